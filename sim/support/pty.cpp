#include "sim/support/pty.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace sim {

Pty::Pty() : master_(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)) {
    char device[128];
    if (master_.get() == -1 || grantpt(master_.get()) != 0 || unlockpt(master_.get()) != 0 ||
        ptsname_r(master_.get(), device, sizeof device) != 0) {
        throw std::runtime_error(std::string("pseudo terminal: ") + strerror(errno));
    }
    device_ = device;
    // Opened and closed once: only then does poll() tell that nobody has the port open. And a terminal echoes
    // by itself, which a serial port does not.
    const Descriptor slave(open(device, O_RDWR | O_NOCTTY | O_CLOEXEC));
    termios settings{};
    if (slave.get() == -1 || tcgetattr(slave.get(), &settings) != 0) {
        throw std::runtime_error(device_ + ": " + strerror(errno));
    }
    cfmakeraw(&settings);
    tcsetattr(slave.get(), TCSANOW, &settings);
}

std::string Pty::read(size_t limit) {
    std::string bytes(limit, '\0');
    const ssize_t length = ::read(master_.get(), bytes.data(), limit);
    bytes.resize(length > 0 ? static_cast<size_t>(length) : 0);
    return bytes;
}

size_t Pty::write(std::string_view bytes) {
    const ssize_t length = ::write(master_.get(), bytes.data(), bytes.size());
    return length > 0 ? static_cast<size_t>(length) : 0;
}

bool Pty::opened() const {
    pollfd polled{master_.get(), 0, 0};
    return poll(&polled, 1, 0) >= 0 && (polled.revents & POLLHUP) == 0;
}

void DeviceLink::pointTo(const std::string& device) {
    if (path_.empty()) return;
    struct stat status {};
    const bool there = lstat(path_.c_str(), &status) == 0;
    if (there && !S_ISLNK(status.st_mode))
        throw std::runtime_error(path_ + ": is there and no symbolic link");
    const std::string fresh = path_ + ".new";
    unlink(fresh.c_str());
    if (symlink(device.c_str(), fresh.c_str()) != 0 || rename(fresh.c_str(), path_.c_str()) != 0) {
        throw std::runtime_error(path_ + ": " + strerror(errno));
    }
    made_ = true;
}

void DeviceLink::remove() {
    if (made_) unlink(path_.c_str());
    made_ = false;
}

}  // namespace sim
