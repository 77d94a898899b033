#include "sim/modem/at_modem.h"

#include <algorithm>
#include <utility>

#include "sim/support/event_log.h"

namespace sim {

// ---------------------------------------------------------------------------------------------------------------
// Power, time

AtModem::AtModem(const ModemModel& model, Outside outside)
    : outside_(std::move(outside)), commands_(model, world), network_(world) {
    powerUp();
}

void AtModem::powerUp() {
    powerDown();
    powered_ = true;
    commands_.powerUp();
    next_chatter_ = 0;
}

void AtModem::powerDown() {
    powered_ = false;
    busy_ = false;
    std::erase_if(agenda_, [](const auto& entry) { return entry.second.dies_with_power; });
    input_.clear();
    editor_.clear();
    output_.clear();
    unsolicited_.clear();
}

void AtModem::run() {
    const double now = outside_.now();
    while (!agenda_.empty() && agenda_.begin()->first <= now) {
        agenda_.extract(agenda_.begin()).mapped().action();
    }
    receiveWaiting();
    chatter();
    work();
    finish();
}

double AtModem::wait() const {
    double next = 1e9;
    if (!agenda_.empty()) next = agenda_.begin()->first;
    if (world.chatter > 0 && powered_) next = std::min(next, next_chatter_);
    return std::max(0.0, next - outside_.now());
}

void AtModem::later(double seconds, bool dies_with_power, std::function<void()> action) {
    agenda_.emplace(outside_.now() + seconds, Task{dies_with_power, std::move(action)});
}

// Does it at the end of this time, or at once when there is none.
void AtModem::busyFor(double seconds, std::function<void()> action) {
    if (seconds <= 0) {
        action();
        return;
    }
    busy_ = true;
    later(seconds, true, [this, action = std::move(action)] {
        busy_ = false;
        action();
    });
}

// ---------------------------------------------------------------------------------------------------------------
// The line

void AtModem::receive(std::string_view bytes) {
    if (!powered_ || world.mute) return;
    input_ += bytes;
    work();
    finish();
}

// Works off what came while an answer was under way.
void AtModem::work() {
    size_t place = 0;
    while (place < input_.size() && !busy_) takeByte(input_[place++]);
    input_.erase(0, place);
}

void AtModem::finish() {
    flushUnsolicited();
    if (output_.empty()) return;
    const std::string bytes = std::exchange(output_, {});
    if (!world.mute) outside_.send(bytes);
}

void AtModem::say(std::string_view bytes) {
    output_ += bytes;
    finish();
}

void AtModem::answer(const std::string& bytes) {
    busyFor(world.slow, [this, bytes] { output_ += bytes; });
}

void AtModem::unsolicited(const std::string& line) {
    if (powered_) unsolicited_.push_back(line);
    finish();
}

void AtModem::flushUnsolicited() {
    if (!idle()) return;
    for (const std::string& line : unsolicited_) output_ += "\r\n" + line + "\r\n";
    unsolicited_.clear();
}

void AtModem::chatter() {
    const double now = outside_.now();
    if (world.chatter <= 0 || now < next_chatter_) return;
    next_chatter_ = now + world.chatter;
    if (powered_ && model().huawei && commands_.settings().number("^CURC") != 0)
        unsolicited_.push_back("^RSSI:20");
}

void AtModem::takeByte(char c) {
    switch (editor_.take(c, echo(), output_)) {
        case LineEditor::Typed::kCommand:
            executeLine();
            break;
        case LineEditor::Typed::kText:
            // It is on its way while the answer is under way: the network decides at its end.
            busyFor(world.slow + world.sending, [this] { sendText(); });
            break;
        case LineEditor::Typed::kGivenUp:
            answer("\r\nOK\r\n");
            break;
        case LineEditor::Typed::kNothing:
            break;
    }
}

// ---------------------------------------------------------------------------------------------------------------
// Commands

void AtModem::executeLine() {
    if (customReply()) return;
    const std::string& line = editor_.line();
    std::vector<AtCommand> commands;
    if (line.size() > LineEditor::kLongestLine || !parseAtLine(line.substr(2), commands)) {
        answer(answerBytes(AtAnswer::error(), cmee()));
        return;
    }
    const AtAnswer whole = commands_.execute(commands);
    answer(answerBytes(whole, cmee()));
    if (whole.kind == AtAnswer::kPrompt) editor_.beginText();
    std::string result = finalResult(whole, cmee());
    std::erase_if(result, [](char c) { return c == '\r' || c == '\n'; });
    tellCommand(result);
}

bool AtModem::customReply() {
    const std::string line = upperCase(editor_.line());
    const auto reply = std::find_if(replies_.begin(), replies_.end(),
                                    [&](const Reply& entry) { return line.starts_with(entry.command); });
    if (reply == replies_.end()) return false;
    const std::string bytes = reply->bytes;
    if (--reply->times == 0) replies_.erase(reply);
    answer(bytes);
    tellCommand("as told");
    return true;
}

void AtModem::replyTo(const std::string& command, const std::string& bytes, int times) {
    replies_.push_back({upperCase(command), bytes, times});
}

void AtModem::tellCommand(const std::string& result) const {
    Json::Value members;
    members["command"] = editor_.line();
    members["answer"] = result;
    outside_.tell("command", "modem " + printable(editor_.line()) + " -> " + result, members);
}

// ---------------------------------------------------------------------------------------------------------------
// Messages

void AtModem::sendText() {
    const SentMessage& message =
        network_.send(outside_.now(), commands_.number(), editor_.text(), commands_.sim().error());
    std::string line = "sms to " + message.number + ": " + printable(message.text);
    if (!message.sent) line += " (refused, " + std::to_string(message.error) + ")";
    if (world.quiet > 0) {
        --world.quiet;
        for (const auto& [seconds, bytes] : world.instead) {
            later(seconds, true, [this, words = bytes] { output_ += words; });
        }
        world.instead.clear();
    } else if (message.sent) {
        output_ += "\r\n+CMGS: " + std::to_string(message.reference) + "\r\n\r\nOK\r\n";
    } else {
        output_ += finalResult(AtAnswer::cms(message.error), cmee());
    }
    outside_.tell("sms", line, sentJson(message));
    if (!message.sent) return;
    if (const auto reply = network_.answerTo(message)) {
        later(reply->after, false, [this, words = reply->message] { deliver(words); });
    }
}

void AtModem::deliver(StoredMessage message) {
    Json::Value members;
    members["number"] = message.number;
    members["text"] = message.text;
    outside_.tell("phone", "phone " + printable(message.number) + " sends " + printable(message.text),
                  members);
    network_.bring(std::move(message));
    receiveWaiting();
    finish();
}

void AtModem::receiveWaiting() {
    while (registered() && !store().full()) {
        const auto message = network_.next();
        if (!message) return;
        const std::string line = commands_.messages().take(*message);
        if (!line.empty()) unsolicited_.push_back(line);
    }
}

}  // namespace sim
