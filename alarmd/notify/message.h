// What goes out to one recipient, and what became of it.
#pragma once

#include <cstdint>
#include <string>

enum class ChannelKind { kMail, kSms };

// Which change of an alarm it is about. A message that no alarm has caused has an alarm_id of 0.
struct EventKey {
    int alarm_id = 0;
    int state = 0;  // AlarmState
    int64_t seconds = 0;
    int64_t microseconds = 0;
};

struct Message {
    ChannelKind channel = ChannelKind::kMail;
    EventKey event;
    int group = 0;
    int user = 0;      // id; 0 for a recipient who is no user
    std::string to;    // address or number
    std::string body;  // HTML of a mail, text of an SMS
};

enum class Outcome {
    kSent,      // taken: the mail client ended well, the modem said OK
    kTryAgain,  // not sent, for a reason that may pass
    kRefused,   // not sent, and never will be
    kUnknown,   // handed over, and the answer was lost: it may have gone out
    kStopped,   // cut short by the daemon's stop: it may have gone out
};

struct SendResult {
    Outcome outcome = Outcome::kSent;
    std::string detail;  // for people: why not, or what is odd about a message that was sent
};
