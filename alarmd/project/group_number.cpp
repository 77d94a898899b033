#include "alarmd/project/group_number.h"

std::string noSuchGroup(int number) {
    return "group " + std::to_string(number) + " is not within 0 to " + std::to_string(kGroups - 1) +
           ", ignored";
}
