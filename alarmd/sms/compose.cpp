#include "alarmd/sms/compose.h"

#include <cstddef>

#include "alarmd/notify/event.h"

namespace {

constexpr size_t kTextLimit = 999;

}  // namespace

std::string alarmSmsText(const _alarm_tag& alarm, const std::string& message) {
    const StateRule& rule = ruleOf(alarm.stat);
    std::string text = std::string(rule.sms_tag) + " " + message.substr(0, message.find('\0'));
    if (rule.sms_tells_ack) text += " /ack:" + std::to_string(alarm.id);
    if (text.size() > kTextLimit) text.resize(kTextLimit);
    return text;
}
