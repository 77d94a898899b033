#include "alarmd/sms/timed_text/prompt.h"

#include <cstddef>
#include <string_view>

namespace {

// The line that is coming in, from its begin as far as it takes to know what it is; then full.
char line[sizeof "+CMS ERROR:"] GUARDED_BY(reply_mutex);
size_t line_length GUARDED_BY(reply_mutex) = 0;

PromptAnswer prompt_answer GUARDED_BY(reply_mutex) = PromptAnswer::kNone;
PromptAnswer answer_before_prompt GUARDED_BY(reply_mutex) = PromptAnswer::kNone;
bool prompt_given GUARDED_BY(reply_mutex) = false;  // at any time since the line was sent
bool text_kept_back GUARDED_BY(reply_mutex) = false;

bool lineIs(std::string_view text) REQUIRES(reply_mutex) {
    return text == std::string_view(line, line_length);
}

}  // namespace

bool lineHasBegun() {
    return line_length > 0 && !lineIs("> ");
}

// An "ER" anywhere, as it ends a reply, will not do here: an echo or an unasked line may have one, and a text
// that is kept back for it would leave the modem waiting.
void watchPrompt(char c) {
    if (c == '\r' || c == '\n') {
        if (lineIs("ERROR")) prompt_answer = PromptAnswer::kError;
        // A prompt is not ended by the modem: this was a line of somebody's text, or it is over.
        if (lineIs("> ")) prompt_answer = answer_before_prompt;
        line_length = 0;
    } else if (line_length < sizeof line) {
        line[line_length++] = c;
        if (lineIs("> ")) {
            answer_before_prompt = prompt_answer;
            prompt_answer = PromptAnswer::kPrompt;
            prompt_given = true;
        }
        if (lineIs("+CMS ERROR:") || lineIs("+CME ERROR:")) prompt_answer = PromptAnswer::kError;
    }
}

void awaitPrompt() {
    MutexLock lock(reply_mutex);
    if (line_length > 0) line_length = sizeof line;
    prompt_answer = PromptAnswer::kNone;
    prompt_given = false;
    text_kept_back = false;
}

PromptAnswer promptAnswer() {
    MutexLock lock(reply_mutex);
    return prompt_answer;
}

void keepTextBack() {
    MutexLock lock(reply_mutex);
    text_kept_back = true;
}

// Also before the error that kept the text back: that one may have been for something else.
bool takeUnansweredPrompt() {
    MutexLock lock(reply_mutex);
    if (!text_kept_back || !prompt_given) return false;
    text_kept_back = false;
    return true;
}
