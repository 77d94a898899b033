// The simulated GPS receiver: NMEA 0183 sentences on a pseudo terminal, once a second, with a thread of its
// own.
//
//   EventLog log(printEvent);
//   GpsReceiver receiver({.link = "/tmp/ttyModem3"}, log);
//   receiver.start();
//   ... a program opens /tmp/ttyModem3 and reads ...
//   receiver.setCorrupt(3);  // the next three sentences have wrong checksums
//
// Events it tells: "port", "fix"; see sim/README.md.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "knihovny/descriptor.h"
#include "knihovny/mutex.h"
#include "sim/support/event_log.h"
#include "sim/support/pty.h"
#include "sim/support/scenario.h"

namespace sim {

// A sentence without its CR LF: "$", the content, "*" and the checksum.
std::string nmeaSentence(std::string_view content);

// What the receiver knows at one time.
struct GpsFix {
    int64_t time = 0;      // seconds since the epoch
    double latitude = 0;   // degrees, north is positive
    double longitude = 0;  // degrees, east is positive
    double speed = 0;      // knots
    double course = 0;     // degrees from north
    bool valid = true;     // false: no satellites were found yet
    bool glonass = false;  // satellites of a second system: the talker is GN, GSV comes from GP and from GL
};

// The sentences of one second, in the order GGA, RMC, GSA, GSV, VTG.
std::vector<std::string> gpsSentences(const GpsFix& fix);

// Any thread may call its functions but the receiver's own.
class GpsReceiver {
  public:
    struct Options {
        std::string link = {};  // path of a symbolic link to the port; empty: none
        bool plugged = true;    // at the start
        bool glonass = false;
        std::chrono::milliseconds interval{1000};
    };

    // Throws std::runtime_error when there is no pseudo terminal or the link cannot be made. log outlives the
    // receiver.
    GpsReceiver(const Options& options, const EventLog& log);
    ~GpsReceiver();
    GpsReceiver(const GpsReceiver&) = delete;
    GpsReceiver& operator=(const GpsReceiver&) = delete;

    // Once, before any other function but device() is used.
    void start();

    void plug();
    void unplug();

    // Nothing is said until that ends.
    void setSilent(bool silent);

    // So many sentences more have a wrong checksum.
    void setCorrupt(int sentences);

    void setValid(bool valid);
    void moveTo(double latitude, double longitude);

    // These bytes at once, between two sentences.
    void say(const std::string& bytes);

    // The port's device, empty while it is unplugged.
    std::string device();

    // How many sentences have been said so far.
    int64_t sentences();

  private:
    using Clock = std::chrono::steady_clock;

    void call(const std::function<void()>& action) EXCLUDES(mutex_);
    void run();
    void runTasks() EXCLUDES(mutex_);
    void wake() const;
    void sayFix();
    void move();
    void noteOpened();
    void doPlug();
    void tellPort(const char* what) const;
    std::string deviceNow() const { return pty_ ? pty_->device() : ""; }

    const EventLog& log_;
    const std::chrono::milliseconds interval_;
    const Descriptor wake_;
    std::atomic<bool> end_{false};

    Mutex mutex_;
    std::deque<std::function<void()>> tasks_ GUARDED_BY(mutex_);

    // Used by the receiver's thread.
    DeviceLink link_;
    std::unique_ptr<Pty> pty_;  // null while unplugged
    bool opened_ = false;
    bool silent_ = false;
    int corrupt_ = 0;
    int64_t sentences_ = 0;
    GpsFix fix_;

    std::thread thread_;  // none before start()
};

// Makes dispatcher carry out the receiver's events on receiver; both are used with log and outlived by it.
void handleGpsEvents(Dispatcher& dispatcher, GpsReceiver& receiver, const EventLog& log);

}  // namespace sim
