#include "knihovny/log_stream.h"

#include <linux/sockios.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>

#include "knihovny/generalfce.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kSlice{100};
constexpr long kAgainNanoseconds = 10000000;

// What makes a write return that finds no room in spite of all looks.
int interruption() {
    return SIGRTMIN;
}

void takeInterruption() {
    struct sigaction action {};
    action.sa_handler = [](int) {};  // and no SA_RESTART
    sigaction(interruption(), &action, nullptr);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, interruption());
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

// A timer that interrupts the system calls of the thread that has made it. Async-signal-safe.
class Interrupter {
  public:
    Interrupter() {
        sigevent event{};
        event.sigev_notify = SIGEV_THREAD_ID;
        event.sigev_signo = interruption();
        event._sigev_un._tid = gettid();
        made_ = timer_create(CLOCK_MONOTONIC, &event, &timer_) == 0;
    }
    ~Interrupter() {
        if (made_) timer_delete(timer_);
    }
    Interrupter(const Interrupter&) = delete;
    Interrupter& operator=(const Interrupter&) = delete;

    // Not where the system gives no more timers.
    bool isMade() const { return made_; }

    // Writes; after a slice without room the write ends.
    ssize_t write(int descriptor, std::string_view text) {
        constexpr timespec kInterval{0, std::chrono::nanoseconds(kSlice).count()};
        set({kInterval, kInterval});  // again and again: the first time may come before the write begins
        const ssize_t count = ::write(descriptor, text.data(), text.size());
        const int error = errno;
        set({});
        errno = error;
        return count;
    }

  private:
    void set(const itimerspec& times) const {
        if (made_) timer_settime(timer_, 0, &times, nullptr);
    }

    timer_t timer_{};
    bool made_ = false;
};

bool isTemporary(int error) {
    return error == EAGAIN || error == EINTR;
}

ssize_t noRoom() {
    errno = EAGAIN;
    return -1;
}

int64_t linesIn(std::string_view text) {
    return std::count(text.begin(), text.end(), '\n');
}

}  // namespace

// How long a text has waited, and for what.
struct LogStream::Wait {
    Clock::time_point since{};  // when the reader last took something
    int unread = INT_MAX;
    bool promised = false;  // poll has told of room
};

void LogStream::setLimit(std::chrono::milliseconds limit) {
    struct stat file {};
    fstat(descriptor_, &file);
    limit_ = limit;
    kind_ = Kind::kPlain;
    if (limit_.count() == 0) return;
    if (S_ISFIFO(file.st_mode)) kind_ = Kind::kPipe;
    if (S_ISSOCK(file.st_mode)) kind_ = Kind::kSocket;
    if (S_ISCHR(file.st_mode) && isatty(descriptor_) == 1) kind_ = Kind::kTerminal;
    takeInterruption();
}

// ---------------------------------------------------------------------------------------------------------------
// Turns.

void LogStream::Turn::lock() {
    // A handler that has it only looks and writes.
    while (!tryLock()) sched_yield();
}

void LogStream::write(std::string_view text) {
    MutexLock lock(mutex_);
    turn_.lock();
    putLeft(true);
    put(text, true);
    endTurn();
}

// A handler that came within the turn has left its text to this thread.
void LogStream::endTurn() NO_THREAD_SAFETY_ANALYSIS {
    do {
        putLeft(true);
        turn_.unlock();
    } while (isTextLeft() && turn_.tryLock());
}

void LogStream::writeInSignalHandler(std::string_view text) {
    const int error = errno;
    leave(text);
    if (turn_.tryLock()) {
        if (hasRoom()) putLeft(false);
        turn_.unlock();
    }
    errno = error;
}

void LogStream::leave(std::string_view text) {
    for (Place& place : left_) {
        Place::State state = Place::kFree;
        if (!place.state.compare_exchange_strong(state, Place::kFilling)) continue;
        place.length = std::min(text.size(), sizeof place.text);
        memcpy(place.text, text.data(), place.length);
        place.state = Place::kFull;
        return;
    }
    ++without_place_;
}

bool LogStream::isTextLeft() const {
    return std::any_of(left_.begin(), left_.end(),
                       [](const Place& place) { return place.state == Place::kFull; });
}

void LogStream::putLeft(bool waits) {
    for (Place& place : left_) {
        if (place.state != Place::kFull) continue;
        put({place.text, place.length}, waits);
        place.state = Place::kFree;
    }
}

// ---------------------------------------------------------------------------------------------------------------
// Lines.

void LogStream::put(std::string_view text, bool waits) {
    dropped_ += without_place_.exchange(0);
    text = behindDroppedLine(text);
    std::string_view rest;
    if (dropped_ > 0) {
        constexpr std::string_view kTail = " lines of the log dropped\n";
        char line[64] = "\n";
        char* const end = std::to_chars(line + 1, line + 32, dropped_).ptr;
        memcpy(end, kTail.data(), kTail.size());
        const std::string_view notice(line, static_cast<size_t>(end - line) + kTail.size());
        rest = send(notice.substr(at_line_start_ ? 1 : 0), waits);
        if (rest.empty()) dropped_ = 0;
    }
    drop(rest.empty() ? send(text, waits) : text);
    has_dropped_ = dropped_ > 0;
}

std::string_view LogStream::behindDroppedLine(std::string_view text) {
    if (!in_dropped_line_) return text;
    const size_t end = text.find('\n');
    if (end == std::string_view::npos) return {};
    in_dropped_line_ = false;
    ++dropped_;
    return text.substr(end + 1);
}

void LogStream::drop(std::string_view text) {
    if (text.empty()) return;
    dropped_ += linesIn(text);
    in_dropped_line_ = text.back() != '\n';
}

// ---------------------------------------------------------------------------------------------------------------
// Bytes.

// Returns what has found no room.
std::string_view LogStream::send(std::string_view text, bool waits) {
    Wait wait;
    while (!text.empty()) {
        const ssize_t count = tryWrite(text, waits);
        if (count > 0) {
            at_line_start_ = text[static_cast<size_t>(count) - 1] == '\n';
            text.remove_prefix(static_cast<size_t>(count));
            stuck_ = false;
            wait = {};
        } else if (count == 0 || !isTemporary(errno)) {
            stuck_ = false;
            return {};
        } else if (!waits || stuck_ || !waitForRoom(wait)) {
            return text;
        }
    }
    return {};
}

// One write. With a limit it takes a slice at most, and in a signal handler that only when another writer
// takes the room that it has seen.
ssize_t LogStream::tryWrite(std::string_view text, bool waits) {
    if (kind_ == Kind::kPlain) return ::write(descriptor_, text.data(), text.size());
    text = text.substr(0, PIPE_BUF);  // finds room as a whole wherever poll tells of room
    if (kind_ == Kind::kSocket) {
        return ::send(descriptor_, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    if (kind_ == Kind::kPipe && nowait_offered_) {
        const iovec part{const_cast<char*>(text.data()), text.size()};
        const ssize_t count = pwritev2(descriptor_, &part, 1, -1, RWF_NOWAIT);
        if (count >= 0 || isTemporary(errno) || errno == EPIPE) return count;
        nowait_offered_ = false;
    }
    if ((!waits || stuck_) && !hasRoom()) return noRoom();
    if (!waits) return Interrupter().write(descriptor_, text);
    // Kept, since making one takes longer than a write.
    thread_local Interrupter interrupter;
    if (!interrupter.isMade() && !hasRoom()) return noRoom();
    return interrupter.write(descriptor_, text);
}

bool LogStream::hasRoom() const {
    if (kind_ == Kind::kPlain) return true;
    pollfd writable{descriptor_, POLLOUT, 0};
    int ready;
    do {
        ready = poll(&writable, 1, 0);
    } while (ready == -1 && errno == EINTR);
    return ready != 0;
}

// How many bytes the reader has before it, as far as the system tells.
int LogStream::unread() const {
    int count = 0;
    const unsigned long request =
        kind_ == Kind::kPipe ? FIONREAD : SIOCOUTQ;  // the same as a terminal's TIOCOUTQ
    return ioctl(descriptor_, request, &count) == 0 ? count : 0;
}

// Waits for a slice, or until there is room. False when the limit has passed.
bool LogStream::waitForRoom(Wait& wait) {
    const Clock::time_point now = Clock::now();
    const int count = unread();
    if (count < wait.unread) wait.since = now;
    wait.unread = count;
    auto slice = kSlice;
    if (kind_ != Kind::kPlain) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(limit_ - (now - wait.since));
        if (left.count() <= 0) {
            stuck_ = true;
            return false;
        }
        slice = std::min(slice, left);
    }
    if (wait.promised) MySleep(0, kAgainNanoseconds);  // in vain: a busy loop would follow
    pollfd writable{descriptor_, POLLOUT, 0};
    wait.promised = poll(&writable, 1, static_cast<int>(slice.count())) > 0;
    return true;
}
