// The network around the modem, with its phones: takes or refuses messages, and keeps those that are for the
// modem until it has room.
#pragma once

#include <json/value.h>

#include <deque>
#include <map>
#include <optional>
#include <string>

#include "sim/modem/at_answer.h"
#include "sim/modem/at_command.h"
#include "sim/modem/message_store.h"
#include "sim/modem/modem_world.h"

namespace sim {

// A sent message.
struct SentMessage {
    double at = 0;  // by the modem's clock
    std::string number;
    std::string text;   // without the carriage return before Ctrl-Z
    std::string raw;    // as it was typed
    bool sent = false;  // the network took it
    int reference = 0;  // +CMGS: reference; of a message that was sent
    int error = 0;      // +CMS ERROR: code; of one that was not
};

// As events and queries show it: "number", "text", "raw", "sent", and "reference" or "error".
Json::Value sentJson(const SentMessage& message);

// For one thread.
class Network {
  public:
    // world tells how the network is; it outlives the object.
    explicit Network(ModemWorld& world) : world_(world) {}

    // Decides on a message to number, as it was typed, at this time of the modem's clock. sim_error is the
    // +CMS ERROR of the SIM, 0 when it is ready.
    const SentMessage& send(double at, const std::string& number, const std::string& typed, int sim_error);

    // Messages that were decided on, at most the last 100,000.
    const std::deque<SentMessage>& sent() const { return sent_; }
    void forgetSent() { sent_.clear(); }

    // A phone that answers each message that ends in "/ack:ID" with word + ":ID", after some seconds. An
    // empty word ends it.
    void answerFrom(const std::string& number, const std::string& word, double after);

    struct PhoneAnswer {
        StoredMessage message;
        double after;  // seconds
    };
    // What the phone that has got this message answers.
    std::optional<PhoneAnswer> answerTo(const SentMessage& message) const;

    // A message for the modem, to wait here. Without a time stamp it gets the present one.
    void bring(StoredMessage message);
    // Takes the oldest of them.
    std::optional<StoredMessage> next();

  private:
    struct Habit {
        std::string word;
        double after;
    };

    int errorOf(const SentMessage& message, int sim_error);

    ModemWorld& world_;
    std::deque<StoredMessage> waiting_;
    std::deque<SentMessage> sent_;
    int reference_ = 0;
    std::map<std::string, Habit> habits_;  // by number
};

// What the modem answers to a command that asks for the network's state.
AtAnswer networkState(const AtCommand& command, bool registered);

}  // namespace sim
