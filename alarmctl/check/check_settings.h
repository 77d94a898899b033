// Checks of the modem settings, and of what the daemon needs of this machine.
#pragma once

#include "alarmctl/check/findings.h"

// Looks at system_setting. REQUIRES: loadAll, or readSMSset, has read it.
void checkModemSettings(Findings& findings);

// Looks at the ports of modem and GPS and at the mail client, with the rights of this process. REQUIRES: the
// same, and readConfigFiles.
void checkMachine(Findings& findings);
