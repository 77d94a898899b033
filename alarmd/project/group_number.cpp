#include "alarmd/project/group_number.h"

#include <string>

Remark noSuchGroup(int number) {
    return {ComplaintCode::kGroupNumber, "group " + std::to_string(number) + " is not within 0 to " +
                                             std::to_string(kGroups - 1) + ", ignored"};
}
