#pragma once

#include <string_view>

#include "knihovny/mutex.h"

// One stream of the log: a text goes to the descriptor in the call that brings it, and nothing is kept. A
// full disk and a reader that has gone cost the text, without a word.
class LogStream {
  public:
    // The descriptor stays the caller's. It may come to lead to another file at any time.
    constexpr explicit LogStream(int descriptor) : descriptor_(descriptor) {}
    LogStream(const LogStream&) = delete;
    LogStream& operator=(const LogStream&) = delete;

    // Writes text as it is; it is out when this returns. Threads take turns, so the text of another one never
    // comes between. Any thread.
    void write(std::string_view text) EXCLUDES(mutex_);

  private:
    const int descriptor_;
    Mutex mutex_;
};
