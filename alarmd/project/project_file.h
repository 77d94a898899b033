// What the loaders of the project files share.
#pragma once

#include <string>
#include <string_view>

#include "alarmd/alarmd.h"

// The text that means true in a CSV column; any other means false.
constexpr std::string_view kYes = "YES";

// True when a stat of path succeeds.
bool fileExists(const std::string& path);

constexpr bool isGroup(int number) {
    return number >= 0 && number < kGroups;
}

// "group 12 is not within 0 to 11, ignored".
std::string noSuchGroup(int number);
