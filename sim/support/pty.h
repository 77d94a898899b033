// A serial port that is none: a pseudo terminal, whose one end is a device that a program opens as its port.
#pragma once

#include <string>
#include <string_view>

#include "knihovny/descriptor.h"

namespace sim {

// One pseudo terminal in raw mode. For one thread.
class Pty {
  public:
    // Throws std::runtime_error.
    Pty();

    // The path of the port's device.
    const std::string& device() const { return device_; }

    // For poll(): readable when bytes have come, POLLHUP while nobody has the port open.
    int fd() const { return master_.get(); }

    // What has come, at most limit bytes; empty when nothing has.
    std::string read(size_t limit = 4096);

    // Writes what the other side has room for and returns how much that was.
    size_t write(std::string_view bytes);

    // True while a program has the port open.
    bool opened() const;

  private:
    Descriptor master_;
    std::string device_;
};

// A symbolic link that points to a device, removed at the end. An existing link is replaced in one step, so
// that whoever opens the path finds the old device or the new one.
class DeviceLink {
  public:
    // An empty path is no link; all calls then do nothing.
    explicit DeviceLink(std::string path) : path_(std::move(path)) {}
    ~DeviceLink() { remove(); }
    DeviceLink(const DeviceLink&) = delete;
    DeviceLink& operator=(const DeviceLink&) = delete;

    // Throws std::runtime_error that tells path and reason. Only a symbolic link is ever replaced.
    void pointTo(const std::string& device);
    void remove();

  private:
    const std::string path_;
    bool made_ = false;
};

}  // namespace sim
