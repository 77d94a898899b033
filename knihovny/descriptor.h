#pragma once

#include <unistd.h>

// Owns an open file descriptor and closes it at the end of its life. Threads that share one hold it by
// shared_ptr: its number then goes to no other file while any of them still uses it.
class Descriptor {
  public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return fd_; }

  private:
    const int fd_;
};
