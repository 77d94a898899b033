// What a change of an alarm's state means to those who hear of it. Any thread.
#pragma once

#include "alarmd/alarmd.h"
#include "alarmd/notify/message.h"

struct StateRule {
    int state;                       // AlarmState
    const char* name;                // for people
    TimeTriple _alarm_tag::*moment;  // that dates the state
    const char* mail_word;           // in the column STATUS of its mails
    const char* sms_tag;             // in front of its SMS
    bool sms_tells_ack;              // its SMS ends with how to acknowledge
    bool _alarm_def::*sms_flag;      // what its SMS hangs on; null: there are none
    const char* sms_flag_name;
    const char* queue_word;  // of the log, when the SMS is queued
};

// The rule of a state; for a state that the history should not report, that of kAckTimedState.
const StateRule& ruleOf(int state);

// Whether the history's state is one of AlarmState. Another one is never new.
bool isKnownState(int state);

// The moment that dates the alarm's state: of its activation, of its deactivation, or of its acknowledge,
// also for states that are none of these. Part of alarm.
const TimeTriple& eventTime(const _alarm_tag& alarm);

EventKey eventOf(const _alarm_tag& alarm);

// Whether the definition wants SMS on this state. Mails it wants on all states or on none.
bool wantsSms(const _alarm_def& definition, int state);
