// Checks across the files: which alarms reach nobody, and in which languages they have no text.
#pragma once

#include "alarmctl/check/check_project.h"
#include "alarmctl/check/findings.h"

// What is in use of what was loaded.
struct Loaded {
    size_t alarms = 0;
    size_t users = 0;
    size_t groups = 0;  // 0 to 9, with an alarm and a user each
};

// Looks at the loaded definitions, groups and users, and leaves no definitions behind. REQUIRES: loadAll.
Loaded checkNotifications(const AlarmPlaces& places, Findings& findings);
