// A GSM/LTE modem as its AT command line shows it: text mode of 3GPP TS 27.005, the commands of 3GPP
// TS 27.007 that go with it, command lines of ITU-T V.250. It knows no device and no thread: bytes go in and
// come out, time is asked for.
#pragma once

#include <json/value.h>

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "sim/modem/at_command.h"
#include "sim/modem/message_store.h"

namespace sim {

// A model of modem.
struct ModemModel {
    const char* name;          // the answer to AT+CGMM
    const char* manufacturer;  // the answer to AT+CGMI
    bool huawei;               // knows the commands that begin with '^', and tells its signal unasked
    int first_index;           // of the message store
};

// Null for an unknown name.
const ModemModel* findModel(const std::string& name);
const std::vector<ModemModel>& modemModels();

// What the modem makes of its surroundings. Changed from outside at any time.
struct ModemWorld {
    bool sim = true;        // a SIM card is in
    std::string pin;        // that the SIM asks for after power-up; empty: none
    int tries_left = 3;     // wrong PINs until the SIM wants its PUK
    bool network = true;    // there is a network
    int refusals = 0;       // so many messages more are refused
    int refusal_code = 38;  // +CMS ERROR of a refusal
    double sending = 0;     // seconds a message takes to be sent
    double slow = 0;        // seconds before each answer
    bool mute = false;      // takes everything and says nothing
    double chatter = 0;     // seconds from one ^RSSI to the next; 0: none
};

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
class AtModem {
  public:
    struct Outside {
        std::function<void(std::string_view)> send;  // bytes to the line
        std::function<void(const char* name, const std::string& text, const Json::Value& members)>
            tell;                     // an event
        std::function<double()> now;  // seconds on a clock that runs forward
    };

    // model is one of modemModels(). The modem is powered up.
    AtModem(const ModemModel& model, Outside outside);

    ModemWorld world;

    // Forgets what a modem forgets without power: echo is on, PDU mode, the PIN is asked for. The store
    // stays.
    void powerUp();
    // Without power it takes and says nothing; messages from phones wait in the network.
    void powerDown();
    void setModel(const ModemModel& model);
    const ModemModel& model() const { return *model_; }

    // Bytes from the line. Answers may come from here or, later, from run().
    void receive(std::string_view bytes);

    // Does what is due. wait() tells in how many seconds something will be.
    void run();
    double wait() const;

    // A message from a phone. It reaches the store when the modem has a network and a place for it.
    void deliver(StoredMessage message);

    // A phone that answers each message that ends in "/ack:ID" with word + ":ID", after some seconds. An
    // empty word ends it.
    void answerFrom(const std::string& number, const std::string& word, double after);

    // An unasked line, such as "RING", as soon as no command is under way.
    void unsolicited(const std::string& line);

    // Bytes to the line at once, whatever is under way.
    void say(std::string_view bytes);

    // The next times command lines that begin so (with "AT", no matter the case) are answered with these
    // bytes and nothing else.
    void replyTo(const std::string& command, const std::string& bytes, int times);

    const std::deque<SentMessage>& sentMessages() const { return sent_; }
    void forgetSent() { sent_.clear(); }
    const MessageStore& store() const { return store_; }
    bool simReady() const;
    bool registered() const { return powered_ && simReady() && world.network; }
    bool powered() const { return powered_; }
    bool echo() const { return echo_; }

  private:
    struct Answer {
        enum Kind { kOk, kError, kCme, kCms, kPrompt };
        Kind kind = kOk;
        int code = 0;
        std::vector<std::string> lines;  // information before the result
    };
    struct Handler {
        const char* name;
        Answer (AtModem::*run)(const AtCommand&);
        bool huawei;  // these models only
    };
    struct Setting {
        const char* name;
        const char* value;  // after power-up
        const char* range;  // the answer to the test form
        bool huawei;
    };
    struct Reply {
        std::string command, bytes;
        int times;
    };
    struct PhoneAnswer {
        std::string word;
        double after;
    };
    struct Task {
        uint64_t power;  // number of the power-up it belongs to; 0: of none
        std::function<void()> action;
    };

    static const std::vector<Handler>& handlers();
    static const std::vector<Setting>& settingsTable();

    void later(double seconds, bool dies_with_power, std::function<void()> action);
    void work();
    void finish();
    void takeByte(char c);
    void takeCommandByte(char c);
    void takeTextByte(char c);
    void executeLine();
    bool customReply();
    void runCommands(const std::vector<AtCommand>& commands);
    Answer execute(const AtCommand& command);
    Answer basic(const AtCommand& command);
    const Setting* findSetting(const std::string& name) const;
    Answer setting(const Setting& setting, const AtCommand& command);
    int settingNumber(const char* name, size_t index) const;
    void answer(const std::string& bytes);
    std::string finalResult(const Answer& answer) const;
    std::string informed(const Answer& answer) const;
    void submit();
    void decide();
    int sendingError();
    void phoneAnswers(const SentMessage& message);
    void receiveWaiting();
    void flushUnsolicited();
    void chatter();
    bool idle() const;
    int simError() const;
    std::string header(const StoredMessage& message) const;

    Answer pin(const AtCommand& command);
    Answer sendMessage(const AtCommand& command);
    Answer readMessage(const AtCommand& command);
    Answer listMessages(const AtCommand& command);
    Answer deleteMessage(const AtCommand& command);
    Answer serviceCentre(const AtCommand& command);
    Answer storage(const AtCommand& command);
    Answer identity(const AtCommand& command);
    Answer networkState(const AtCommand& command);

    const Outside outside_;
    const ModemModel* model_;
    MessageStore store_;
    std::string service_centre_ = "+420603052000";  // kept by the SIM
    std::deque<StoredMessage> waiting_;             // in the network
    std::deque<SentMessage> sent_;
    std::map<std::string, PhoneAnswer> phone_answers_;  // by number
    std::vector<Reply> replies_;
    std::multimap<double, Task> agenda_;
    double next_chatter_ = 0;

    // Since power-up.
    uint64_t power_ = 0;
    bool powered_ = false;
    bool echo_ = true;
    bool pin_given_ = false;
    std::map<std::string, std::string> settings_;
    std::string input_;  // bytes that wait until the modem has time
    bool busy_ = false;  // an answer is under way
    std::string line_;   // the command line so far; empty until "A" was seen
    std::string last_line_;
    bool typing_ = false;  // a message's text is being typed
    std::string number_, text_;
    int reference_ = 0;
    std::deque<std::string> unsolicited_;
    std::string output_;  // until the end of the present call
};

}  // namespace sim
