#include "knihovny/clock.h"

#include <gtest/gtest.h>

#include "knihovny/debugerror.h"
#include "knihovny/generalfce.h"

namespace {

class FakeClock : public Clock {
  public:
    time_t now() const override { return seconds; }
    timeval monotonic() const override { return {seconds - 1000, 0}; }
    void sleep(long length, long /*nanoseconds*/) override { seconds += length; }

    time_t seconds = 5000;
};

TEST(ProcessClock, IsWhatTimesAndPausesAskFor) {
    Clock* const before = process_clock;
    FakeClock clock;
    process_clock = &clock;
    EXPECT_EQ(Now(), 5000);
    MySleep(3600, 0);
    EXPECT_EQ(Now(), 8600);
    EXPECT_EQ(MonotonicTime().tv_sec, 7600);
    process_clock = before;
    EXPECT_NEAR(static_cast<double>(Now()), static_cast<double>(time(nullptr)), 1);
}

TEST(LogTarget, TakesWhatIsPrinted) {
    class Kept : public LogTarget {
      public:
        void print(std::string_view text) override { printed += text; }
        void printError(std::string_view text) override { complained += text; }
        std::string printed, complained;
    };
    Kept kept;
    setLogTarget(&kept);
    PrintLine("one ", 1);
    PrintErrorLine("two");
    setLogTarget(nullptr);
    EXPECT_EQ(kept.printed, "one 1\n");
    EXPECT_EQ(kept.complained, "two\n");
}

}  // namespace
