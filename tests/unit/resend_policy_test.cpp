#include "alarmd/waiting/resend_policy.h"

#include <gtest/gtest.h>

namespace {

constexpr ResendPolicy kPolicy{300, 2, 3600, 3};

struct Expected {
    int64_t waited;  // seconds since it was last sent
    int resends;
    int pause;
    bool resend, drop;
};

class ResendPolicyTest : public testing::TestWithParam<Expected> {};

TEST_P(ResendPolicyTest, SaysWhatToDo) {
    const Expected& expected = GetParam();
    const ResendStep step = resendStep(kPolicy, 1000, expected.resends, 1000 + expected.waited);
    EXPECT_EQ(step.pause, expected.pause);
    EXPECT_EQ(step.resend, expected.resend);
    EXPECT_EQ(step.drop, expected.drop);
}

INSTANTIATE_TEST_SUITE_P(Steps, ResendPolicyTest,
                         testing::Values(Expected{0, 0, 300, false, false},     // just sent
                                         Expected{300, 0, 300, false, false},   // the pause has to be over
                                         Expected{301, 0, 300, true, false},    // the first time again
                                         Expected{301, 1, 300, true, false},    // the last one at this pause
                                         Expected{301, 2, 3600, false, false},  // the longer pause
                                         Expected{3601, 2, 3600, true, true},   // the last one of all
                                         Expected{3601, 3, 3600, false, true}));  // nothing is left

TEST(ResendPolicy, GivesUpAtOnceWhereNoResendIsAllowed) {
    const ResendPolicy none{300, 5, 3600, 0};
    EXPECT_TRUE(resendStep(none, 1000, 0, 1301).drop);
    EXPECT_FALSE(resendStep(none, 1000, 0, 1301).resend);
}

}  // namespace
