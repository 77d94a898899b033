#include "alarmd/notify/event.h"

#include <algorithm>
#include <iterator>

namespace {

constexpr StateRule kRules[] = {
    {kDeactivated, "deactivated", &_alarm_tag::dtm, "Deactivate", "(DEA)", false, &_alarm_def::smsdeact,
     "SMS on deactivation (smsDeact)", "DEACTIVATION"},
    {kActivated, "activated", &_alarm_tag::atm, "Activate", "(ACT)", true, &_alarm_def::smsact,
     "SMS on activation (smsAct)", "ACTIVATION"},
    {kAcknowledged, "acknowledged", &_alarm_tag::acktm, "Acknowledge", "(ACK)", false, &_alarm_def::smsack,
     "SMS on acknowledge (smsAck)", "ACKNOWLEDGE"},
    {kAckTimedState, "acknowledged", &_alarm_tag::acktm, "", "", false, nullptr, "", ""},
};

const StateRule* find(int state) {
    const auto rule = std::find_if(std::begin(kRules), std::end(kRules),
                                   [state](const StateRule& candidate) { return candidate.state == state; });
    return rule == std::end(kRules) ? nullptr : rule;
}

}  // namespace

const StateRule& ruleOf(int state) {
    const StateRule* rule = find(state);
    return rule != nullptr ? *rule : *find(kAckTimedState);
}

bool isKnownState(int state) {
    return find(state) != nullptr;
}

const TimeTriple& eventTime(const _alarm_tag& alarm) {
    return alarm.*ruleOf(alarm.stat).moment;
}

EventKey eventOf(const _alarm_tag& alarm) {
    const TimeTriple& time = eventTime(alarm);
    return {alarm.id, alarm.stat, time[0], time[1]};
}

bool wantsSms(const _alarm_def& definition, int state) {
    const StateRule& rule = ruleOf(state);
    return rule.sms_flag != nullptr && definition.*rule.sms_flag;
}
