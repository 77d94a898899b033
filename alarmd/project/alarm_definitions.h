// The alarm definitions: severity, texts by language, what is notified and in which groups.
#pragma once

#include <string>
#include <vector>

#include "alarmd/alarmd.h"

// Loads cas_list (CSV of at least 27 columns, one header line). Definitions from CSV carry no id and no translations
// inside the record. Main thread only.
void readAlarmDef();

// Loads cas_list_json (an array of objects). Main thread only.
void readAlarmDefJson();

// Prints all definitions when dbglev is above 0. Main thread only.
void printAlarmDefJson();

// Inserts an empty definition for every missing key from 0 to the largest one, as a walk by subscript does, but only
// below kFilledKeys: the definitions beyond are found all the same, and an id of two thousand million fills nothing.
// Costs nothing when there is no gap since the last call.
constexpr int kFilledKeys = 10000;
void fillDefinitionGaps() REQUIRES(project_mutex);

// The definitions whose record carries the given id and that have a say in its texts, in the order of their keys. Keys
// below 0 are not among them. Costs one hash look-up.
const std::vector<const _alarm_def*>& definitionsWithId(int id) REQUIRES(project_mutex);

// Forgets all definitions and what was derived from them.
void clearDefinitions() REQUIRES(project_mutex);
