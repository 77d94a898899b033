// A modem without a line: keeps what it is asked for, and gives what the test has put into it.
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "alarmd/sms/driver.h"

class FakeDriver final : public ModemDriver {
  public:
    bool open(const std::string& device) override {
        note("open " + device);
        is_open = failing_opens-- <= 0;
        return is_open;
    }
    bool usable() const override { return is_open; }
    void close() override {
        note("close");
        is_open = false;
    }
    bool initialise() override {
        note("initialise");
        return failing_initialisations-- <= 0;
    }
    SendResult send(const std::string& number, const std::string& text) override {
        note("send " + number + " " + text);
        return result;
    }
    std::optional<IncomingSms> receive() override {
        note("receive");
        if (incoming.empty()) return std::nullopt;
        IncomingSms message = incoming.front();
        incoming.pop_front();
        return message;
    }
    void forgetReceived() override { note("forget"); }
    void order(const std::string& command) override { note("order " + command); }

    std::vector<std::string> calls;
    std::function<void(const std::string& call)> meanwhile;  // called at each of them

    bool is_open = false;
    int failing_opens = 0;
    int failing_initialisations = 0;
    SendResult result;  // of each message
    std::deque<IncomingSms> incoming;

  private:
    void note(std::string call) {
        calls.push_back(std::move(call));
        if (meanwhile) meanwhile(calls.back());
    }
};
