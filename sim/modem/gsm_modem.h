// The simulated GSM modem: AtModem on a pseudo terminal, with a thread of its own.
//
//   EventLog log(printEvent);
//   GsmModem modem({.link = "/tmp/ttyModem2"}, log);
//   modem.start();
//   ... a program opens /tmp/ttyModem2 and sends AT commands ...
//   modem.call([](AtModem& at) { at.deliver({.number = "+420601000001", .text = "ACK:12"}); });
//   modem.unplug();
//
// Events it tells: "port", "command", "sms", "phone"; see sim/README.md.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "knihovny/descriptor.h"
#include "knihovny/mutex.h"
#include "sim/modem/at_modem.h"
#include "sim/support/event_log.h"
#include "sim/support/pty.h"

namespace sim {

// Bytes that went over the line in one go.
struct LineRecord {
    double at = 0;           // seconds since the log began
    int64_t time = 0;        // microseconds since the epoch
    bool from_host = false;  // else from the modem
    std::string bytes;
};

// "at", "time", "from" ("host" or "modem"), "hex", and "shown" for people.
Json::Value lineJson(const LineRecord& record);

// Any thread may call its functions but the modem's own.
class GsmModem {
  public:
    struct Options {
        const ModemModel* model = &modemModels()[2];
        std::string link = {};  // path of a symbolic link to the port; empty: none
        bool plugged = true;    // at the start
        bool sim = true;        // a SIM is in
        std::string pin = {};   // that the SIM asks for; empty: none
    };

    // Throws std::runtime_error when there is no pseudo terminal or the link cannot be made. log outlives the
    // modem.
    // The port is there from here on, the modem answers from start() on.
    GsmModem(const Options& options, const EventLog& log);
    ~GsmModem();
    GsmModem(const GsmModem&) = delete;
    GsmModem& operator=(const GsmModem&) = delete;

    // Once, before any other function but device() is used.
    void start();

    // Runs action on the modem's thread and waits until it is done. What action throws is thrown here.
    void call(const std::function<void(AtModem&)>& action) EXCLUDES(mutex_);

    // The port goes away with whatever is under way on it; plug() makes a new one, and the modem powers up
    // anew. Neither does anything when it is so already.
    void unplug();
    void plug();

    // Unplugs as soon as these bytes have come from the host.
    void unplugAfter(const std::string& bytes);

    // The line is not read: what the host writes piles up.
    void setDeaf(bool deaf);

    // The port's device, empty while it is unplugged.
    std::string device();

    // What went over the line so far, at most the last 100,000 pieces.
    std::vector<LineRecord> line();
    void forgetLine();

  private:
    static constexpr size_t kMostRecords = 100000;
    static constexpr size_t kMostUnsent = 1 << 20;

    void run();
    void runTasks() EXCLUDES(mutex_);
    void wake() const;
    void pollOnce();
    void readLine();
    void take(const std::string& bytes);
    void writeLine();
    void send(std::string_view bytes);
    void record(bool from_host, std::string_view bytes);
    void noteOpened();
    void doPlug();
    void doUnplug();
    void tellPort(const char* what) const;
    std::string deviceNow() const { return pty_ ? pty_->device() : ""; }

    const EventLog& log_;
    const Descriptor wake_;
    std::atomic<bool> end_{false};

    Mutex mutex_;
    std::deque<std::function<void()>> tasks_ GUARDED_BY(mutex_);

    // Used by the modem's thread.
    DeviceLink link_;
    AtModem modem_;
    std::unique_ptr<Pty> pty_;  // null while unplugged
    bool opened_ = false;
    bool deaf_ = false;
    std::string unsent_;
    std::string trigger_, seen_;  // unplugAfter: bytes to wait for, last bytes that came
    std::deque<LineRecord> line_;

    std::thread thread_;  // none before start()
};

}  // namespace sim
