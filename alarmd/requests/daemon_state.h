// What the requests read of the daemon, and what they do to it. Any thread.
#pragma once

#include <string>

#include "alarmd/requests/answers.h"

// A copy of what the answers tell of.
RequestState takeRequestState();

// Does what an answer announced, once it is written: queues the SMS, noting who asked for it, or switches the
// notifications; and keeps the parsed GPS values.
void carryOut(const Answer& answer, const std::string& from_ip, int from_port);

// The pause behind each request that named a protocol that there is: 50 us.
void pauseAfter(const Answer& answer);
