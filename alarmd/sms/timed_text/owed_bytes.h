// What ends a text or a command line that did not go out to its end, or a prompt whose text was kept back. It
// goes out before anything else, which the modem would take for the rest. SMS thread only.
#pragma once

#include <string>

#include "alarmd/sms/timed_text/modem_port.h"

extern std::string owed_bytes;  // empty when all is well

// Sends what is owed, as far as the line takes it within 3 s. A device that fails is logged.
void payOwedBytes();

// The same, but without a wait and a line in the log.
void offerOwedBytes() EXCLUDES(reply_mutex);

// Pays what is owed, and if anything was, waits a second for the modem's answer to it. False when the line
// does not take it: nothing else may be sent then.
bool freeLine() EXCLUDES(reply_mutex);
