#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "knihovny/mutex.h"

// One stream of the log: a text goes to the descriptor in the call that brings it, and nothing is kept. A
// full disk and a reader that has gone cost the text, without a word.
//
// A pipe, a terminal or a socket whose reader has stopped takes nothing. By itself the stream waits for it.
// With a limit it waits so long; then it drops lines, and looks once with every text whether there is room
// again. When there is, the line "N lines of the log dropped" comes first.
//   - A line is what ends with a newline in the stream, whatever the calls that it came in. One that is cut
//     is counted and ended; of one whose begin was dropped, the rest is dropped too.
//   - The limit runs from the moment at which the reader last took something, for all threads together: one
//     waits, and the others wait for it. So a reader that is slow loses nothing. What it takes shows with
//     every byte on a pipe, after some KiB on a socket or a terminal.
//   - The descriptor stays as blocking as it is: who else has it (a shell, a child) would be surprised.
class LogStream {
  public:
    // The descriptor stays the caller's.
    constexpr explicit LogStream(int descriptor) : descriptor_(descriptor) {}
    LogStream(const LogStream&) = delete;
    LogStream& operator=(const LogStream&) = delete;

    // Sets the limit for what the descriptor leads to now; 0: none. Takes SIGRTMIN for the process, with a
    // handler that does nothing, and unblocks it in the calling thread and those that it makes. To be called
    // before there are other threads.
    void setLimit(std::chrono::milliseconds limit);

    // Whether it has a limit, and one is of use for what the descriptor leads to.
    bool isLimited() const { return kind_ != Kind::kPlain; }

    // Writes text as it is, or drops it; it is out when this returns. Threads take turns, so the text of
    // another one never comes between. Any thread.
    void write(std::string_view text) EXCLUDES(mutex_);

    // Writes up to 64 bytes, unless a thread has its turn or there is no room: then they come before or
    // behind that thread's text, or before the next one. Async-signal-safe; waits for nobody.
    void writeInSignalHandler(std::string_view text);

    // Whether lines were dropped that have not been told yet: write({}) tells them when there is room.
    bool hasDroppedLines() const { return has_dropped_; }

  private:
    enum class Kind { kPlain, kPipe, kSocket, kTerminal };

    // A lock that a signal handler can try: it cannot wait for the thread below it.
    class CAPABILITY("mutex") Turn {
      public:
        void lock() ACQUIRE();
        bool tryLock() TRY_ACQUIRE(true) { return !taken_.exchange(true); }
        void unlock() RELEASE() { taken_ = false; }

      private:
        std::atomic<bool> taken_{false};
    };

    // A text that a signal handler has left for the next one to have a turn.
    struct Place {
        enum State { kFree, kFilling, kFull };
        std::atomic<State> state{kFree};
        size_t length = 0;
        char text[64] = {};
    };

    struct Wait;

    void leave(std::string_view text);
    bool isTextLeft() const;
    void putLeft(bool waits) REQUIRES(turn_);
    void endTurn() RELEASE(turn_);
    void put(std::string_view text, bool waits) REQUIRES(turn_);
    std::string_view send(std::string_view text, bool waits) REQUIRES(turn_);
    ssize_t tryWrite(std::string_view text, bool waits) REQUIRES(turn_);
    bool hasRoom() const;
    int unread() const;
    bool waitForRoom(Wait& wait) REQUIRES(turn_);
    std::string_view behindDroppedLine(std::string_view text) REQUIRES(turn_);
    void drop(std::string_view text) REQUIRES(turn_);

    const int descriptor_;
    Kind kind_ = Kind::kPlain;
    std::chrono::milliseconds limit_{0};

    // Threads take the mutex, also while one of them waits for room, and behind it the turn.
    Mutex mutex_;
    Turn turn_;
    bool nowait_offered_ GUARDED_BY(turn_) = true;  // by the system, for a pipe
    bool stuck_ GUARDED_BY(turn_) = false;          // the limit has passed and nothing was taken since
    bool at_line_start_ GUARDED_BY(turn_) = true;
    bool in_dropped_line_ GUARDED_BY(turn_) = false;
    int64_t dropped_ GUARDED_BY(turn_) = 0;  // lines that are to be told
    std::atomic<bool> has_dropped_{false};

    std::array<Place, 4> left_;
    std::atomic<int> without_place_{0};
};
