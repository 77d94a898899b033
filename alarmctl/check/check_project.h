// Checks of the project files themselves, for what their loaders pass over in silence.
#pragma once

#include <cstddef>
#include <string>
#include <unordered_map>

#include "alarmctl/check/findings.h"

// Where the alarm definitions stand that are in force.
struct AlarmPlaces {
    std::string file;
    bool lines = false;  // numbers of lines; else of elements
    std::unordered_map<int, size_t> numbers;

    Place of(int id) const {
        const auto found = numbers.find(id);
        if (found == numbers.end()) return {file};
        return lines ? Place{file, found->second} : Place{file, 0, found->second};
    }
};

// Which form of each kind of file the daemon takes; a form that it passes over, or none, is reported.
void checkPresence(Findings& findings);

// Each looks at the form of its file that the daemon takes, and does nothing when there is none.
void checkGroups(Findings& findings);
void checkDefinitions(Findings& findings, AlarmPlaces& places);
void checkProjectId(Findings& findings);
void checkUsers(Findings& findings);

// ---------------------------------------------------------------------------------------------------------------
// The two forms, each for a file that is there (the daemon's group_list and so on).
void checkGroupsCsv(Findings& findings);
void checkDefinitionsCsv(Findings& findings, AlarmPlaces& places);
void checkUsersCsv(Findings& findings);

void checkGroupsJson(Findings& findings);
void checkDefinitionsJson(Findings& findings, AlarmPlaces& places);
void checkProjectIdJson(Findings& findings);
void checkUsersJson(Findings& findings);
