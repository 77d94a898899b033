#include "alarmd/notify/stale_alarm.h"

#include <cstring>
#include <ctime>
#include <string>

#include "alarmd/alarmd.h"
#include "knihovny/clock.h"
#include "knihovny/debugerror.h"

namespace {

// The ctime text without its newline, empty for a year that has more than four digits.
std::string timeText(int64_t seconds) {
    const time_t moment = seconds;
    char text[32];
    if (ctime_r(&moment, text) == nullptr) return "";
    return {text, strcspn(text, "\n")};
}

}  // namespace

bool isStale(int64_t event_time) {
    int64_t age;
    // Only a time far below zero is out of range.
    if (__builtin_sub_overflow(static_cast<int64_t>(Now()), event_time, &age)) return true;
    return age >= ALARM_TIMEOUT;
}

void printStale(int64_t event_time) {
    PrintLine(color_sms, "ALARM TIMEOUT !!! (", event_time, " ", timeText(event_time), ")", color_off);
}
