#pragma once

#include <cstdint>
#include <map>

// Keeps a failure that comes back thousands of times a second from filling the log: an error of one kind is
// logged once and then once a minute. An object is for one thread.
class ErrorRepeats {
  public:
    // To be called for every failure, with its error number. True when it is to be logged.
    bool due(int error);

    // What the last due() gave.
    bool logged() const { return logged_; }

  private:
    std::map<int, int64_t> next_;  // seconds of the monotonic clock, by error number
    bool logged_ = false;
};
