#include "alarmd/notify/event.h"

#include <gtest/gtest.h>

namespace {

struct Expected {
    int state;
    bool known;
    int64_t seconds;  // of a sample whose times are 1 (activation), 2 (deactivation), 3 (acknowledge)
    const char* mail_word;
    const char* sms_tag;
    bool tells_ack;
};

class StateRuleTest : public testing::TestWithParam<Expected> {};

TEST_P(StateRuleTest, SaysWhatAStateMeans) {
    const Expected& expected = GetParam();
    _alarm_tag alarm;
    alarm.id = 7;
    alarm.stat = expected.state;
    alarm.atm[0] = 1;
    alarm.dtm[0] = 2;
    alarm.acktm[0] = 3;
    alarm.atm[1] = alarm.dtm[1] = alarm.acktm[1] = 50;
    EXPECT_EQ(isKnownState(expected.state), expected.known);
    EXPECT_EQ(eventTime(alarm)[0], expected.seconds);
    EXPECT_STREQ(ruleOf(expected.state).mail_word, expected.mail_word);
    EXPECT_STREQ(ruleOf(expected.state).sms_tag, expected.sms_tag);
    EXPECT_EQ(ruleOf(expected.state).sms_tells_ack, expected.tells_ack);
    const EventKey event = eventOf(alarm);
    EXPECT_EQ(event.alarm_id, 7);
    EXPECT_EQ(event.state, expected.state);
    EXPECT_EQ(event.seconds, expected.seconds);
    EXPECT_EQ(event.microseconds, 50);
}

INSTANTIATE_TEST_SUITE_P(States, StateRuleTest,
                         testing::Values(Expected{kDeactivated, true, 2, "Deactivate", "(DEA)", false},
                                         Expected{kActivated, true, 1, "Activate", "(ACT)", true},
                                         Expected{kAcknowledged, true, 3, "Acknowledge", "(ACK)", false},
                                         Expected{kAckTimedState, true, 3, "", "", false},
                                         Expected{3, false, 3, "", "", false},
                                         Expected{-1, false, 3, "", "", false}));

TEST(WantsSms, HangsOnTheFlagOfTheStateAlone) {
    _alarm_def definition;
    definition.smsact = true;
    EXPECT_TRUE(wantsSms(definition, kActivated));
    for (const int state : {int{kDeactivated}, int{kAcknowledged}, int{kAckTimedState}, 3})
        EXPECT_FALSE(wantsSms(definition, state)) << state;
    definition.smsact = false;
    definition.smsdeact = definition.smsack = true;
    EXPECT_TRUE(wantsSms(definition, kDeactivated));
    EXPECT_TRUE(wantsSms(definition, kAcknowledged));
    for (const int state : {int{kActivated}, int{kAckTimedState}, 3})
        EXPECT_FALSE(wantsSms(definition, state)) << state;
}

}  // namespace
