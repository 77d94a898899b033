// A scripted modem on a pty for the tests of the SMS rooms: records what arrives and answers by a table.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "alarmd/alarmd.h"
#include "alarmd/sms/timed_text/modem_port.h"
#include "knihovny/descriptor.h"
#include "knihovny/mutex.h"
#include "tests/support/resets.h"

class PtyModem {
  public:
    // When the received bytes end with `command`, the modem sends `reply`.
    using Script = std::vector<std::pair<std::string, std::string>>;

    explicit PtyModem(Script script = {})
        : script_(std::move(script)), master_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
        grantpt(master_.get());
        unlockpt(master_.get());
        termios raw{};
        tcgetattr(master_.get(), &raw);
        cfmakeraw(&raw);
        tcsetattr(master_.get(), TCSANOW, &raw);
        char name[128];
        ptsname_r(master_.get(), name, sizeof name);
        device_ = name;
        keep_.reset(open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));  // so that a closed channel is no hang-up
        thread_ = std::thread([this] { run(); });
    }

    ~PtyModem() {
        stop_ = true;
        thread_.join();
    }

    const std::string& device() const { return device_; }

    // All bytes that arrived so far.
    std::string received() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return received_;
    }

    void say(const std::string& bytes) const {
        size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t written = write(master_.get(), bytes.data() + done, bytes.size() - done);
            if (written <= 0) return;
            done += static_cast<size_t>(written);
        }
    }

    // From here on the line is not read, and fills; or it is read again.
    void setDeaf(bool deaf) { deaf_ = deaf; }

    // How many bytes wait in the line.
    int waiting() const {
        int count = 0;
        ioctl(master_.get(), FIONREAD, &count);
        return count;
    }

    // Waits, at most 10 s, until the condition holds.
    static bool eventually(const std::function<bool()>& condition) {
        for (int look = 0; look < 2000; ++look) {
            if (condition()) return true;
            usleep(5000);
        }
        return condition();
    }

  private:
    void run() {
        while (!stop_) {
            pollfd event{master_.get(), POLLIN, 0};
            if (deaf_) {
                usleep(1000);
                continue;
            }
            if (poll(&event, 1, 20) <= 0 || !(event.revents & POLLIN)) continue;
            char buffer[512];
            const ssize_t count = read(master_.get(), buffer, sizeof buffer);
            for (ssize_t i = 0; i < count; ++i) take(buffer[i]);
        }
    }

    void take(char c) EXCLUDES(mutex_) {
        std::string replies;
        {
            MutexLock lock(mutex_);
            received_ += c;
            for (const auto& [command, reply] : script_) {
                if (received_.ends_with(command)) replies += reply;
            }
        }
        say(replies);
    }

    Script script_;
    Descriptor master_;
    Descriptor keep_;
    std::string device_;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> deaf_{false};
    Mutex mutex_;
    std::string received_ GUARDED_BY(mutex_);
};

// Opens the daemon's modem channel on the device.
inline bool connectModem(const std::string& device) {
    MyModem.NastavUkonceni(&konecModem);
    MyModem.SetCom(115200, 1, 8, 1, 2, 2, 2, device.c_str());
    return MyModem.Connect();
}

inline void disconnectModem() {
    konecModem = true;
    MyModem.StopReading();
    konecModem = false;
}
