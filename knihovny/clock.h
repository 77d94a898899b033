// The clocks and the pauses of the process. A test hands in its own, so that it waits for nothing.
#pragma once

#include <sys/time.h>

#include <ctime>

class Clock {
  public:
    virtual ~Clock() = default;

    // Seconds since the epoch.
    virtual time_t now() const { return time(nullptr); }

    // The time of a clock that is never set back.
    virtual timeval monotonic() const;

    // A signal ends it early.
    virtual void sleep(long seconds, long nanoseconds);
};

// Set before there are other threads; the system's own by itself.
extern Clock* process_clock;

// The time of day of process_clock, in seconds since the epoch. MySleep and MonotonicTime (generalfce.h) ask
// it too. Any thread.
inline time_t Now() {
    return process_clock->now();
}
