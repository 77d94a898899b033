#pragma once

#include <cstdint>

// Whether an alarm of this event time (seconds since the epoch) is ALARM_TIMEOUT seconds old or older, so
// that nobody is to be told of it any more. Any thread.
bool isStale(int64_t event_time);

// Logs a stale alarm, with its time as a number and as ctime text. Any thread.
void printStale(int64_t event_time);
