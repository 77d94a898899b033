#include "sim/modem/message_access.h"

#include <algorithm>

namespace sim {
namespace {

std::string header(const StoredMessage& message) {
    std::string text = quoted(stateWord(message.state)) + "," + quoted(message.number) + ",";
    if (!message.name.empty()) text += quoted(message.name);
    return text + "," + quoted(message.stamp);
}

void noteRead(StoredMessage& message) {
    if (message.state == StoredMessage::kUnread) message.state = StoredMessage::kRead;
}

bool isStateWord(const std::string& word) {
    for (const auto state :
         {StoredMessage::kUnread, StoredMessage::kRead, StoredMessage::kUnsent, StoredMessage::kSent}) {
        if (word == stateWord(state)) return true;
    }
    return false;
}

}  // namespace

std::string MessageAccess::take(const StoredMessage& message) {
    const int indication = settings_.number("+CNMI", 1);
    if (indication == 2) {
        return "+CMT: " + quoted(message.number) + ",," + quoted(message.stamp) + "\r\n" + message.text;
    }
    const int index = store_.add(message);
    return indication == 1 ? "+CMTI: \"SM\"," + std::to_string(index) : "";
}

int MessageAccess::textModeError() const {
    if (const int error = sim_.error()) return error;
    return settings_.number("+CMGF") == 1 ? 0 : kCmsNotSupported;
}

AtAnswer MessageAccess::cmgr(const AtCommand& command) {
    if (command.form == AtCommand::kTest) return {};
    if (command.form == AtCommand::kRead) return AtAnswer::error();
    if (const int error = textModeError()) return AtAnswer::cms(error);
    const int index = command.number(0, -1);
    if (!store_.valid(index)) return AtAnswer::cms(kCmsIndex);
    StoredMessage* message = store_.find(index);
    if (!message) return {};
    std::string line = "+CMGR: " + header(*message);
    if (settings_.number("+CSDH") == 1) {
        const std::string type = message->number.starts_with("+") ? "145" : "129";
        line += "," + type + ",4,0,0," + quoted(sim_.serviceCentre()) + ",145," +
                std::to_string(message->text.size());
    }
    noteRead(*message);
    return {AtAnswer::kOk, 0, {line, message->text}};
}

AtAnswer MessageAccess::cmgl(const AtCommand& command) {
    if (command.form == AtCommand::kTest)
        return AtAnswer::line("+CMGL: (\"REC UNREAD\",\"REC READ\",\"STO UNSENT\",\"STO SENT\",\"ALL\")");
    if (command.form == AtCommand::kRead) return AtAnswer::error();
    if (const int error = textModeError()) return AtAnswer::cms(error);
    const std::string which = command.parameters.empty() ? "REC UNREAD" : command.parameters[0];
    if (which != "ALL" && !isStateWord(which)) return AtAnswer::cms(kCmsTextParameter);
    AtAnswer answer;
    for (const auto& [index, stored] : store_.messages()) {
        if (which != "ALL" && which != stateWord(stored.state)) continue;
        answer.lines.push_back("+CMGL: " + std::to_string(index) + "," + header(stored));
        answer.lines.push_back(stored.text);
        noteRead(*store_.find(index));
    }
    return answer;
}

AtAnswer MessageAccess::cmgd(const AtCommand& command) {
    if (command.form == AtCommand::kTest) return AtAnswer::line("+CMGD: (),(0-4)");
    if (command.form != AtCommand::kSet) return AtAnswer::error();
    if (const int error = sim_.error()) return AtAnswer::cms(error);
    const int index = command.number(0, -1);
    const int flag = command.number(1, command.parameters.size() > 1 ? -1 : 0);
    if (flag < 0 || flag > 4) return AtAnswer::cms(kCmsTextParameter);
    if (flag > 0) {
        store_.removeAll(flag);
        return {};
    }
    if (!store_.valid(index)) return AtAnswer::cms(kCmsIndex);
    store_.remove(index);
    return {};
}

AtAnswer MessageAccess::cpms(const AtCommand& command) const {
    if (command.form == AtCommand::kTest) return AtAnswer::line("+CPMS: (\"SM\"),(\"SM\"),(\"SM\")");
    if (command.form == AtCommand::kExecute) return AtAnswer::error();
    if (const int error = sim_.error()) return AtAnswer::cms(error);
    const std::string places =
        std::to_string(store_.messages().size()) + "," + std::to_string(store_.capacity());
    if (command.form == AtCommand::kRead)
        return AtAnswer::line("+CPMS: \"SM\"," + places + ",\"SM\"," + places + ",\"SM\"," + places);
    const auto& names = command.parameters;
    if (std::any_of(names.begin(), names.end(), [](const std::string& name) { return name != "SM"; }))
        return AtAnswer::cms(kCmsNotAllowed);
    return AtAnswer::line("+CPMS: " + places + "," + places + "," + places);
}

}  // namespace sim
