#include "knihovny/socketfce.h"

#include <sys/time.h>
#include <unistd.h>

#include <cerrno>

#include "knihovny/debugerror.h"
#include "knihovny/error_repeats.h"
#include "knihovny/generalfce.h"

namespace {

constexpr long kPauseNanoseconds = 1000000;

struct ErrorText {
    int error;
    const char* message;
};

constexpr ErrorText kReadErrors[] = {{EBADF, "SockRead EBADF"}, {EIO, "SockRead EIO"}};
constexpr char kOtherReadError[] = "SockRead jina chyba.";

constexpr ErrorText kWriteErrors[] = {
    {EBADF, "SockWriteTimeout EBADF"}, {EFBIG, "SockWriteTimeout EFBIG"},
    {EIO, "SockWriteTimeout EIO"},     {ENOSPC, "SockWriteTimeout ENOSPC"},
    {EPIPE, "SockWriteTimeout EPIPE"}, {ENOENT, "SockWriteTimeout ENOENT"},
};
constexpr char kOtherWriteError[] = "SockWriteTimeout jina chyba.";

template <size_t Count>
void logError(const ErrorText (&texts)[Count], const char* other, int error) {
    const char* message = other;
    for (const ErrorText& text : texts) {
        if (text.error == error) {
            message = text.message;
            break;
        }
    }
    DumpError(message, error);
}

bool isTemporary(int error) {
    return error == EAGAIN || error == EINTR;
}

// What a failed read gives, with its line and its pause. Error is the read's errno.
int afterFailedRead(int error, ErrorRepeats* repeats) {
    int result = 0;
    if (!isTemporary(error)) {
        result = kSockFailed;
        if (repeats == nullptr || repeats->due(error)) logError(kReadErrors, kOtherReadError, error);
    }
    MySleep(0, kPauseNanoseconds);
    errno = error;
    return result;
}

}  // namespace

int SockRead2(int fd, char* buffer, unsigned long length, ErrorRepeats* repeats) {
    const ssize_t count = read(fd, buffer, length);
    if (count < 0) return afterFailedRead(errno, repeats);
    // A device that was unplugged is at its end for ever.
    if (count == 0) MySleep(0, kPauseNanoseconds);
    return static_cast<int>(count);
}

int SockRead3(int fd, char* buffer, unsigned long length, ErrorRepeats* repeats) {
    const ssize_t count = read(fd, buffer, length);
    if (count < 0) return afterFailedRead(errno, repeats);
    return count == 0 ? kSockPeerClosed : static_cast<int>(count);
}

int SockWriteTimeout(int fd, const char* data, unsigned long length, int seconds, int microseconds,
                     unsigned long* taken) {
    timeval limit{seconds, microseconds};
    timeval start = MonotonicTime();
    unsigned long counter = 0;
    unsigned long& written = taken != nullptr ? *taken : counter;
    written = 0;
    while (written < length) {
        const ssize_t count = write(fd, data + written, length - written);
        const int error = errno;
        const bool retry = count < 0 && isTemporary(error);
        if (count > 0) written += static_cast<unsigned long>(count);
        if (retry) MySleep(0, kPauseNanoseconds);
        timeval now = MonotonicTime();
        timeval elapsed{};
        TimevalMinus(&elapsed, &now, &start);
        errno = error;
        if (TimevalMensi(&limit, &elapsed)) return kSockTimedOut;
        if (retry) continue;
        if (count < 1) {
            logError(kWriteErrors, kOtherWriteError, error);
            errno = error;
            return static_cast<int>(count);
        }
    }
    return static_cast<int>(length);
}
