#include "alarmd/sms/timed_text/submission.h"

#include "alarmd/sms/driver.h"
#include "alarmd/sms/timed_text/exchange.h"
#include "alarmd/sms/timed_text/owed_bytes.h"
#include "alarmd/sms/timed_text/prompt.h"
#include "knihovny/generalfce.h"

namespace {

constexpr long kPromptNanoseconds = 5000000;
constexpr int kOutcomeLooks = 5;
constexpr char kCtrlZ = '\x1a';
constexpr char kEscape = '\x1b';

// The modems of this system were always sent ten more bytes behind Ctrl-Z, a zero first; they ignore them.
constexpr size_t kBytesBehindCtrlZ = 10;

bool endsNumber(char c) {
    return c == '"' || static_cast<unsigned char>(c) < ' ' || c == '\x7f';
}
bool endsText(char c) {
    return c == kCtrlZ || c == kEscape;
}

// The command line that asks for the prompt. False when it did not go out to its end: a text would become a
// part of it, or a command. ESC spoils what the modem has of it, so that the number is not used cut short.
bool orderMessage(const std::string& number) {
    if (!freeLine()) return false;
    const std::string command = "at+CMGS=\"" + number + "\"\r";
    awaitPrompt();
    if (sendOrder(command) == command.size()) return true;
    owed_bytes = {kEscape, '\r'};
    keepTextBack();
    return false;
}

// Returns whether the modem has the text to its end.
bool handOver(const std::string& text) {
    const std::string body = text + '\r' + kCtrlZ;
    if (sendOrder(body + std::string(kBytesBehindCtrlZ, '\0')) < body.size()) {
        owed_bytes = kEscape;
        return false;
    }
    ++sms_counter;
    return true;
}

SendResult waitForOutcome() {
    if (waitForOk(kOutcomeLooks)) return {Outcome::kSent, ""};
    if (okHasCome()) return {Outcome::kSent, "the modem's OK came behind the last look"};
    return {Outcome::kUnknown, "the modem gave no OK to the text"};
}

// As long as an OK would be waited for. The modem may say one to the ESC behind what it did not get: it is no
// answer to the message.
SendResult giveUp(const char* reason) {
    for (int look = 0; look < kOutcomeLooks; ++look) {
        offerOwedBytes();
        MySleep(1, 0);
    }
    return {Outcome::kTryAgain, reason};
}

}  // namespace

SendResult submitMessage(std::string number, std::string text) {
    std::erase_if(number, endsNumber);
    std::erase_if(text, endsText);

    const bool ordered = orderMessage(number);
    MySleep(1, kPromptNanoseconds);
    MySleep(1, kPromptNanoseconds);
    if (!ordered) {
        payOwedBytes();
        return giveUp("the line did not take the number");
    }
    // A modem that waits for a command would execute the text. The error may be the network's or the SIM
    // card's as well as the number's.
    if (promptAnswer() == PromptAnswer::kError) {
        keepTextBack();
        return {Outcome::kTryAgain, "the modem answered the number with an error"};
    }
    return handOver(text) ? waitForOutcome() : giveUp("the line did not take the text");
}
