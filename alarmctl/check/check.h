// The check of all that the daemon reads.
#pragma once

#include <string>

#include "alarmctl/check/check_notifications.h"
#include "alarmctl/check/findings.h"

struct CheckReport {
    Findings findings;
    bool starts = true;  // the daemon would not end while it reads its files
    Loaded loaded;
};

// Checks the files named by the daemon's conf_file, msmtp_conf_file, sms_conf_file and system_setting, the
// project that they lead to and, with machine, the devices and programs that the daemon uses. To be called
// once in a process, which must have one thread.
CheckReport checkAll(bool machine);

// "2 errors, 5 warnings, 1 note in 7 files: the daemon would start; 12 alarms, 6 users, 3 groups are in use".
std::string summaryOf(const CheckReport& report);
