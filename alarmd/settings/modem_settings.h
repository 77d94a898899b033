#pragma once

// Reads the modem, SMS and resend settings from the JSON file system_setting, object "network", member "modem". Every
// setting is first put back to its default. A member of a wrong type keeps the default and is told in one line.
// Main thread only.
void readSMSset();
