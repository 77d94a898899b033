// The alarm definitions: severity, texts by language, what is notified and in which groups.
//
// A group number outside 0 to 11 is logged in one line and ignored. So are groups that are no array: such a
// definition is in no group.
#pragma once

#include <string>
#include <vector>

#include "alarmd/alarmd.h"

// Loads cas_list (CSV of at least 27 columns, one header line). A definition from CSV does not carry its id
// inside the record: the record's id and translations are those that the working record alarm_def holds,
// which are empty unless a JSON file was loaded before. Main thread only.
void readAlarmDef();

// Loads cas_list_json (an array of objects). Main thread only.
void readAlarmDefJson();

// Prints all definitions when dbglev is above 0. Main thread only.
void printAlarmDefJson();

// ---------------------------------------------------------------------------------------------------------------
// Look-up. The map's own subscript works as well; what is written into the map by other means than the
// loaders and definitionFor is seen by definitionsWithId after definitionsChanged, at the latest when the
// map's size has changed.

// The definition under a key, an empty one being inserted where there is none.
const _alarm_def& definitionFor(int key) REQUIRES(project_mutex);

// Inserts an empty definition for every missing key from 0 to the largest one below kFilledKeys, as a walk by
// subscript does. The definitions beyond are found all the same, and an id of two thousand million fills
// nothing. Costs nothing when there is no gap since the last call.
constexpr int kFilledKeys = 10000;
void fillDefinitionGaps() REQUIRES(project_mutex);

// The definitions whose record carries the given id and that have a say in its texts, in the order of their
// keys. Keys below 0 are not among them. Costs one hash look-up, but the first call after a change, which
// goes over the whole map. Valid until the map changes.
const std::vector<const _alarm_def*>& definitionsWithId(int id) REQUIRES(project_mutex);

// To be called when the map was written to: the next definitionsWithId looks at all definitions anew.
void definitionsChanged() REQUIRES(project_mutex);

// Does at once what a definitionsWithId after definitionsChanged would do, so that no later call pays for it.
void indexDefinitions() REQUIRES(project_mutex);

// Forgets all definitions and what was derived from them.
void clearDefinitions() REQUIRES(project_mutex);
