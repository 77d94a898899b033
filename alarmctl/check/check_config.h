// Checks of the key/value files: korvato.conf, msmtp.conf, sms.conf and the project's setting.txt.
#pragma once

#include <sys/stat.h>

#include <string>

#include "alarmctl/check/findings.h"

// Looks at the three configuration files named by conf_file, msmtp_conf_file and sms_conf_file. False when
// the main one cannot be read, so that nothing else is known. REQUIRES: loadConfiguration was called.
bool checkConfiguration(Findings& findings);

// Whether conf_file can be opened, which is reported when not.
bool mainFileIsReadable(Findings& findings);

// Why the mail client, run by the user reader, refuses a configuration file that holds a password, in its own
// words; empty when it takes it. It looks at the owner first and then at the mode, and for root at neither.
std::string passwordFileRefusal(const struct stat& file, uid_t reader);

// Looks at project_file, from which the project id comes.
void checkProjectIdFile(Findings& findings);
