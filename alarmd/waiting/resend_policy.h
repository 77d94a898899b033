// When an alarm that waits for its acknowledge is sent again, and when it is given up. Pure; any thread.
#pragma once

#include <cstdint>

struct ResendPolicy {
    int period1_timeout, period1_quantity;  // seconds between resends, and how many there are at this pause
    int period2_timeout;                    // seconds, from then on
    int most;                               // resends in all
};

struct ResendStep {
    int pause;    // seconds, that count at present
    bool resend;  // now
    bool drop;    // now, behind the resend where there is one
};

// What to do at the time now with an alarm that was last sent at last and has been sent again so many times.
constexpr ResendStep resendStep(const ResendPolicy& policy, int64_t last, int resends, int64_t now) {
    const int pause = resends < policy.period1_quantity ? policy.period1_timeout : policy.period2_timeout;
    if (last + pause >= now) return {pause, false, false};
    const bool resend = resends < policy.most;
    return {pause, resend, resends + (resend ? 1 : 0) >= policy.most};
}
