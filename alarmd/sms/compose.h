#pragma once

#include <string>

#include "alarmd/alarmd.h"

// The text of an alarm's SMS, 999 bytes at most. message: the alarm's message text in the recipient's
// language, which ends at its first zero byte. Any thread.
std::string alarmSmsText(const _alarm_tag& alarm, const std::string& message);
