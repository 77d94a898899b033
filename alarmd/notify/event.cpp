#include "alarmd/notify/event.h"

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

}  // namespace

const StateRule& ruleOf(int state) {
    for (const StateRule& rule : kRules) {
        if (rule.state == state) return rule;
    }
    return *std::rbegin(kRules);  // of kAckTimedState
}

bool isKnownState(int state) {
    return ruleOf(state).state == state;
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
