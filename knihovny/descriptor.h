#pragma once

#include <unistd.h>

#include <utility>

// Owns an open file descriptor, or none (-1), and closes it at the end of its life. Moved, not copied.
// Threads that share one hold it by shared_ptr: its number then goes to no other file while any of them still
// uses it.
class Descriptor {
  public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) reset(std::exchange(other.fd_, -1));
        return *this;
    }

    int get() const { return fd_; }
    // Closes the present one.
    void reset(int fd = -1) {
        if (fd_ >= 0) close(fd_);
        fd_ = fd;
    }

  private:
    int fd_;
};
