// An explanation for people and for programs.
#pragma once

#include <json/value.h>

#include <string>

#include "alarmctl/explain/explain.h"

// Lines for a terminal; control characters are replaced.
std::string explanationText(const Explanation& explanation);

// One object; "mail" is the shown mail, null when there is none.
Json::Value explanationJson(const Explanation& explanation);
