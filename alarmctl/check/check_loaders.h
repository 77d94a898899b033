// The daemon's own loaders, run for what they say.
#pragma once

#include <vector>

#include "alarmctl/check/findings.h"
#include "alarmd/base/complaint.h"

// Reads all files into the daemon's data of this process, as the daemon does at its start, and returns what
// the loaders complain of. A fatal complaint, at which the daemon would end, is the last and leaves the data
// half read. The paths are the daemon's conf_file and so on. REQUIRES: this process has one thread.
std::vector<Complaint> loadAll();

// Derives the paths of the project files from the configuration files without a word.
void loadConfiguration();

// Reads the modem settings without a word.
void loadModemSettings();

// The complaint at which the daemon would end, or null.
const Complaint* lastWords(const std::vector<Complaint>& complaints);

// What a complaint says.
Finding findingFrom(const Complaint& complaint);
