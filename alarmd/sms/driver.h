// The modem as the SMS thread sees it.
#pragma once

#include <atomic>
#include <ctime>
#include <optional>
#include <string>

#include "alarmd/notify/message.h"

// A message that came in.
struct IncomingSms {
    std::string from;
    std::string text;           // its first line; may end in a carriage return
    bool whole_sender = false;  // from is all that the network gave, not the part before a comma in it
};

// A way to talk to a modem. SMS thread only.
class ModemDriver {
  public:
    virtual ~ModemDriver() = default;

    // One try to open the modem on its device. Whether it is open may show a little later: usable().
    virtual bool open(const std::string& device) = 0;
    virtual bool usable() const = 0;
    virtual void close() = 0;

    // One try to make the open modem fit for messages. Returns whether it is.
    virtual bool initialise() = 0;

    // Sends one text message and waits until it is known what became of it, or no answer is to be expected
    // any more. Characters that would end number or text early on the line are left out. Counts sms_counter.
    // kSent with a detail: sent, but told so late that nobody waited for it any more.
    virtual SendResult send(const std::string& number, const std::string& text) = 0;

    // Looks once for a message that came in. Sets readsmstime.
    virtual std::optional<IncomingSms> receive() = 0;

    // What receive() gave is in good hands: the modem may delete it. To be called once for each message.
    virtual void forgetReceived() = 0;

    // Gives the modem an order whose answer is not waited for.
    virtual void order(const std::string& command) = 0;
};

// The driver of the daemon's modem.
ModemDriver& modemDriver();

inline time_t readsmstime = 0;  // earliest time of the next receive(), seconds. SMS thread only.

// Messages whose text was handed to the modem since start. Read by the request threads.
inline std::atomic<int> sms_counter{0};

// Told by the requests; nothing stores the identified type, so it stays 0.
inline std::atomic<int> modemTyp{0};
