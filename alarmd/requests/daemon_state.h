// What the requests read of the daemon, and what they do to it. Any thread.
#pragma once

#include <string>

#include "alarmd/requests/answers.h"

// A copy of what the answers tell of.
RequestState takeRequestState();

// Does what an answer announced, once it is written: queues the SMS, noting who asked for it, or switches the
// notifications; keeps the parsed GPS values; and pauses for 50 us when the request named a protocol that
// there is.
void carryOut(const Answer& answer, const std::string& from_ip, int from_port);
