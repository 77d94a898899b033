// A GSM/LTE modem as its AT command line shows it: text mode of 3GPP TS 27.005, the commands of 3GPP
// TS 27.007 that go with it, command lines of ITU-T V.250. It knows no device and no thread: bytes go in and
// come out, time is asked for. Here are its power, its clock and its line; the parts behind them have headers
// of their own.
#pragma once

#include <json/value.h>

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "sim/modem/command_table.h"
#include "sim/modem/line_editor.h"
#include "sim/modem/modem_world.h"
#include "sim/modem/network.h"
#include "sim/support/modem_models.h"

namespace sim {

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
    void setModel(const ModemModel& model) { commands_.setModel(model); }
    const ModemModel& model() const { return commands_.model(); }

    // Bytes from the line. Answers may come from here or, later, from run().
    void receive(std::string_view bytes);

    // Does what is due. wait() tells in how many seconds something will be.
    void run();
    double wait() const;

    // A message from a phone. It reaches the store when the modem has a network and a place for it.
    void deliver(StoredMessage message);

    // As Network's.
    void answerFrom(const std::string& number, const std::string& word, double after) {
        network_.answerFrom(number, word, after);
    }
    const std::deque<SentMessage>& sentMessages() const { return network_.sent(); }
    void forgetSent() { network_.forgetSent(); }

    // An unasked line, such as "RING", as soon as no command is under way.
    void unsolicited(const std::string& line);

    // Bytes to the line at once, whatever is under way.
    void say(std::string_view bytes);

    // The next times command lines that begin so (with "AT", no matter the case) are answered with these
    // bytes and nothing else.
    void replyTo(const std::string& command, const std::string& bytes, int times);

    const MessageStore& store() const { return commands_.store(); }
    bool simReady() const { return commands_.sim().ready(); }
    bool registered() const { return powered_ && commands_.registered(); }
    bool powered() const { return powered_; }
    bool echo() const { return commands_.settings().echo; }

  private:
    struct Reply {
        std::string command, bytes;
        int times;
    };
    struct Task {
        bool dies_with_power;
        std::function<void()> action;
    };

    void later(double seconds, bool dies_with_power, std::function<void()> action);
    void busyFor(double seconds, std::function<void()> action);
    void work();
    void finish();
    void takeByte(char c);
    void executeLine();
    bool customReply();
    void tellCommand(const std::string& result) const;
    void answer(const std::string& bytes);
    void sendText();
    void receiveWaiting();
    void flushUnsolicited();
    void chatter();
    bool idle() const { return powered_ && !busy_ && editor_.idle() && input_.empty(); }
    int cmee() const { return commands_.settings().number("+CMEE"); }

    const Outside outside_;
    CommandTable commands_;
    Network network_;
    LineEditor editor_;
    std::vector<Reply> replies_;
    std::multimap<double, Task> agenda_;  // by the time at which they are due
    double next_chatter_ = 0;

    // Since power-up.
    bool powered_ = false;
    std::string input_;  // bytes that wait until the modem has time
    bool busy_ = false;  // an answer is under way
    std::deque<std::string> unsolicited_;
    std::string output_;  // until the end of the present call
};

}  // namespace sim
