#pragma once

// Reads the modem, SMS and resend settings from the JSON file system_setting, object "network", member
// "modem", and prints a summary. A setting that the file does not give gets its default. A member of a wrong
// type (or an integer out of range) keeps the default and is told in one line on standard error. Main thread
// only.
void readSMSset();
