// Who hears of an alarm: mail, SMS and the explanation of both ask here.
#pragma once

#include <vector>

#include "alarmd/alarmd.h"

// A group that is told of an alarm, and its users as they were at the look-up.
struct NotifiedGroup {
    int group = 0;
    std::vector<_user> users;
};

// The groups 0 to 9 that list the alarm, in the order of their numbers. A user of two of them is told twice.
// Any thread.
std::vector<NotifiedGroup> recipientsOf(int alarm_id) EXCLUDES(project_mutex);
