// The numbers of the notification groups as the project files give them.
#pragma once

#include "alarmd/alarmd.h"
#include "alarmd/base/complaint.h"

constexpr bool isGroup(int number) {
    return number >= 0 && number < kGroups;
}

// "group 12 is not within 0 to 11, ignored".
Remark noSuchGroup(int number);
