// The key/value configuration files, the project id and the choice of the project files. Main thread only.
#pragma once

#include <string>

// Reads korvato.conf, msmtp.conf and sms.conf (their paths are conf_file, msmtp_conf_file and sms_conf_file)
// and derives the paths of the project files. A key that a file does not supply is empty; so is every key of
// a file that cannot be opened. With an empty pFolder the project files are looked for in the root directory.
void readConfigFiles();

// Loads groups, alarm definitions, project id and users, each from its JSON file when that exists, else from
// its CSV (or key/value) file when that exists, else not at all. print_definitions: print the definitions
// read from JSON.
//
// From the key/value file projectID becomes the one character whose code is the id's low byte, which may be
// zero.
void loadProjectFiles(bool print_definitions);

// The project id from project_file_json, a number as its decimal text, empty when there is none. A file that
// is no JSON, or whose project id cannot be had as a text, ends the process.
std::string readProjectIdJson();

// The project id from pFolder + "/setting.txt": leading digits of "projectID", 0 when there are none.
int readProjectId();
