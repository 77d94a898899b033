#include "sim/modem/network.h"

#include <cstdio>
#include <ctime>
#include <string_view>
#include <utility>

#include "sim/support/event_log.h"

namespace sim {
namespace {

constexpr size_t kLongestText = 160;
constexpr size_t kMostSent = 100000;

// The service centre's time stamp of this moment: local time, and its distance from UTC in quarters of an
// hour.
std::string stampNow() {
    const time_t now = realMicroseconds() / 1000000;
    tm local{};
    localtime_r(&now, &local);
    char stamp[40];
    strftime(stamp, sizeof stamp, "%y/%m/%d,%H:%M:%S", &local);
    char zone[24];
    snprintf(zone, sizeof zone, "%+03ld", local.tm_gmtoff / 900);
    return std::string(stamp) + zone;
}

}  // namespace

Json::Value sentJson(const SentMessage& message) {
    Json::Value json;
    json["number"] = message.number;
    json["text"] = message.text;
    json["raw"] = message.raw;
    json["sent"] = message.sent;
    if (message.sent) {
        json["reference"] = message.reference;
    } else {
        json["error"] = message.error;
    }
    return json;
}

// The +CMS ERROR that a message ends in, 0 when it is sent.
int Network::errorOf(const SentMessage& message, int sim_error) {
    if (message.text.size() > kLongestText) return kCmsTextParameter;
    if (sim_error != 0) return sim_error;
    if (!world_.network) return kCmsNoNetwork;
    if (world_.refusals > 0) {
        --world_.refusals;
        return world_.refusal_code;
    }
    return 0;
}

const SentMessage& Network::send(double at, const std::string& number, const std::string& typed,
                                 int sim_error) {
    SentMessage message{at, number, typed, typed, false, 0, 0};
    if (typed.ends_with('\r')) message.text.pop_back();
    message.error = errorOf(message, sim_error);
    message.sent = message.error == 0;
    if (message.sent) message.reference = reference_ = (reference_ + 1) % 256;
    sent_.push_back(message);
    if (sent_.size() > kMostSent) sent_.pop_front();
    return sent_.back();
}

void Network::answerFrom(const std::string& number, const std::string& word, double after) {
    if (word.empty()) {
        habits_.erase(number);
    } else {
        habits_[number] = {word, after};
    }
}

std::optional<Network::PhoneAnswer> Network::answerTo(const SentMessage& message) const {
    static constexpr std::string_view kSuffix = " /ack:";
    const auto phone = habits_.find(message.number);
    const size_t suffix = message.text.rfind(kSuffix);
    if (phone == habits_.end() || suffix == std::string::npos) return {};
    PhoneAnswer answer{{}, phone->second.after};
    answer.message.number = message.number;
    answer.message.text = phone->second.word + ":" + message.text.substr(suffix + kSuffix.size());
    return answer;
}

void Network::bring(StoredMessage message) {
    if (message.stamp.empty()) message.stamp = stampNow();
    waiting_.push_back(std::move(message));
}

std::optional<StoredMessage> Network::next() {
    if (waiting_.empty()) return {};
    StoredMessage message = std::move(waiting_.front());
    waiting_.pop_front();
    return message;
}

AtAnswer networkState(const AtCommand& command, bool registered) {
    static constexpr struct {
        const char* name;
        const char* registered;
        const char* unregistered;
    } kAnswers[] = {
        {"+CSQ", "+CSQ: 20,99", "+CSQ: 99,99"},
        {"+COPS", "+COPS: 0,0,\"KORVATO TEST\",7", "+COPS: 0"},
        {"+CREG", "+CREG: 0,1", "+CREG: 0,2"},
        {"+CGPADDR", "+CGPADDR: 1,\"10.0.0.2\"", "+CGPADDR: 1,\"0.0.0.0\""},
        {"^SYSINFO", "^SYSINFO:2,3,0,17,1", "^SYSINFO:0,0,0,0,255"},
        {"^SYSINFOEX", "^SYSINFOEX:2,3,0,1,,6,\"LTE\",101,\"LTE\"",
         "^SYSINFOEX:0,0,0,255,,0,\"NOSERVICE\",0,\"NOSERVICE\""},
        {"^CARDLOCK", "^CARDLOCK: 2,10,0", "^CARDLOCK: 2,10,0"},
    };
    if (command.form == AtCommand::kSet || command.form == AtCommand::kTest) return {};
    for (const auto& entry : kAnswers) {
        if (command.name == entry.name)
            return AtAnswer::line(registered ? entry.registered : entry.unregistered);
    }
    return AtAnswer::error();
}

}  // namespace sim
