#pragma once

// The port on which the modem gives its GPS sentences. No setting changes it.
constexpr char kGpsPort[] = "/dev/ttyModem3";

// Reads the modem, SMS, resend, GPS and TCP request settings (modemSettings) from the JSON file
// system_setting, object "network", member "modem", and prints a summary, with a line each for GPS and the
// TCP requests when they are switched on. A setting that the file does not give gets its default. A member of
// a wrong type (or an integer out of range) keeps the default and is complained of. Main thread only.
void readSMSset();
