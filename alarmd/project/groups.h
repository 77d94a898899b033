// The notification groups: name, severity limit and reporting switch. Main thread only.
//
// A group number outside 0 to 11 is logged in one line and ignored. Nothing is cleared before a load.
#pragma once

// Loads group_list (CSV: number;severity;YES or NO;name, one header line).
void readGroup();

// Loads group_list_json (an array of objects).
void readGroupJson();
