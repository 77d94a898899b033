// What the modem makes of the command line that begins a message.
#pragma once

#include "alarmd/sms/timed_text/modem_port.h"

// Its last word since the line was sent.
enum class PromptAnswer {
    kNone,    // neither of these
    kPrompt,  // a line that begins with "> ": it waits for the text
    kError,   // a final result ERROR, +CMS ERROR or +CME ERROR, a line of its own: it waits for a command
};

// Looks at a byte of what the modem says. Allocates nothing. Reading thread.
void watchPrompt(char c) REQUIRES(reply_mutex);

// Whether a line is coming in that is not at its end. A prompt has none.
bool lineHasBegun() REQUIRES(reply_mutex);

// From here on what the modem says is an answer to the line that is sent next. What remains of a line that
// has already begun is none. SMS thread.
void awaitPrompt() EXCLUDES(reply_mutex);
PromptAnswer promptAnswer() EXCLUDES(reply_mutex);

// No text follows the last awaitPrompt, so a prompt that comes all the same is left without an answer. SMS
// thread.
void keepTextBack() EXCLUDES(reply_mutex);

// Whether there is such a prompt; true once. SMS thread.
bool takeUnansweredPrompt() EXCLUDES(reply_mutex);
