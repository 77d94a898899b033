// What the requests read of the daemon, and what they do to it. Any thread.
#pragma once

#include <optional>
#include <string>

#include "alarmd/alarmd.h"
#include "alarmd/requests/answers.h"

// A copy of what the answers tell of.
RequestState takeRequestState();

// The place in fronta_sms_raw for the SMS that an answer announces; none for other answers.
using SmsPlace = std::optional<BoundedFronta<_sms_raw>::Place>;

// Takes the place for the SMS of an answer that is not written yet, noting who asked for it. While there is
// no room, the answer becomes the refusal.
SmsPlace takePlace(Answer& answer, const std::string& from_ip, int from_port);

// Does what an answer announced, once it is written: queues the SMS in its place, or switches the
// notifications; and keeps the parsed GPS values.
void carryOut(const Answer& answer, SmsPlace place);

// The pause behind each request that named a protocol that there is: 50 us.
void pauseAfter(const Answer& answer);
