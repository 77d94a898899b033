// Checks of the key/value files: korvato.conf, msmtp.conf, sms.conf and the project's setting.txt.
#pragma once

#include <string>

#include "alarmctl/findings.h"

// Looks at the three configuration files named by conf_file, msmtp_conf_file and sms_conf_file. False when
// the main one cannot be read, so that nothing else is known. REQUIRES: loadConfiguration was called.
bool checkConfiguration(Findings& findings);

// Whether conf_file can be opened, which is told when not.
bool mainFileIsReadable(Findings& findings);

// Looks at project_file, from which the project id comes.
void checkProjectIdFile(Findings& findings);
