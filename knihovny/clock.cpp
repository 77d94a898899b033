#include "knihovny/clock.h"

namespace {

Clock system_clock;

}  // namespace

Clock* process_clock = &system_clock;

timeval Clock::monotonic() const {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return {now.tv_sec, static_cast<suseconds_t>(now.tv_nsec / 1000)};
}

void Clock::sleep(long seconds, long nanoseconds) {
    const timespec length{seconds, nanoseconds};
    nanosleep(&length, nullptr);
}
