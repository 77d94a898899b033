#include "knihovny/generalfce.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "knihovny/clock.h"
#include "knihovny/debugerror.h"
#include "knihovny/descriptor.h"
#include "knihovny/regular_file.h"

namespace {

constexpr int64_t kMicrosecondsPerSecond = 1000000;
constexpr long kNanosecondsPerSecond = 1000000000;
constexpr long kFlagLookNanoseconds = 50000000;
constexpr size_t kReadBlock = size_t{64} * 1024;
constexpr int kSystemLogMs = 100;

int64_t microseconds(const timeval& time) {
    return int64_t{time.tv_sec} * kMicrosecondsPerSecond + int64_t{time.tv_usec};
}

// Whether the system log's queue is full and stays so, as when its reader has ended: syslog would wait in it
// without limit. A log that is not there at all is syslog's own business.
bool systemLogIsFull() {
    const Descriptor probe(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_un address{AF_UNIX, _PATH_LOG};
    if (connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return false;
    pollfd writable{probe.get(), POLLOUT, 0};
    return poll(&writable, 1, kSystemLogMs) == 0;
}

// The value of a hexadecimal digit, -1 for any other byte.
int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

void appendWithoutCarriageReturns(std::string& line, const char* begin, const char* end) {
    while (begin != end) {
        const char* stop = static_cast<const char*>(memchr(begin, '\r', static_cast<size_t>(end - begin)));
        if (stop == nullptr) stop = end;
        line.append(begin, stop);
        begin = stop == end ? end : stop + 1;
    }
}

bool isComment(const std::string& line) {
    return line.empty() || line[0] == '#' || line[0] == '$' || line[0] == ' ';
}

// False when the line has no key, which leaves a line that begins with a zero byte.
bool storeLine(const std::string& line, std::map<std::string, std::string>& map) {
    if (isComment(line)) return true;
    if (line[0] == '\0') return false;
    const size_t blank = line.find(' ');
    std::string& value = map[line.substr(0, blank)];
    if (blank == std::string::npos) {
        value.clear();
    } else {
        value.assign(line, blank + 1);
    }
    return true;
}

// Stores the lines of a key/value file, which comes in blocks.
class ParameterLines {
  public:
    ParameterLines(std::map<std::string, std::string>& map, const Complain& complain)
        : map_(map), complain_(complain) {}

    // Stores the lines that end in the block and keeps the begun one. False at a line without a key.
    bool take(const char* block, size_t length) {
        const char* const end = block + length;
        while (const void* feed = memchr(block, '\n', static_cast<size_t>(end - block))) {
            const char* const stop = static_cast<const char*>(feed);
            append(block, stop);
            if (!endLine()) return false;
            block = stop + 1;
        }
        append(block, end);
        return true;
    }

  private:
    void append(const char* begin, const char* end) {
        if (too_long_) return;
        appendWithoutCarriageReturns(line_, begin, end);
        too_long_ = line_.size() > kLongestParameterLine;
    }

    bool endLine() {
        ++number_;
        const bool good = too_long_ || storeLine(line_, map_);
        if (too_long_) {
            complain_(number_, "longer than " + std::to_string(kLongestParameterLine) + " bytes, ignored");
        }
        line_.clear();
        too_long_ = false;
        return good;
    }

    std::map<std::string, std::string>& map_;
    const Complain& complain_;
    std::string line_;
    bool too_long_ = false;
    size_t number_ = 0;
};

}  // namespace

void MySleep(long seconds, long nanoseconds) {
    process_clock->sleep(seconds, nanoseconds);
}

timeval MonotonicTime() {
    return process_clock->monotonic();
}

int TimevalMinus(timeval* result, timeval* a, timeval* b) {
    const int64_t difference = microseconds(*a) - microseconds(*b);
    const int64_t size = difference < 0 ? -difference : difference;
    result->tv_sec = static_cast<time_t>(size / kMicrosecondsPerSecond);
    result->tv_usec = static_cast<suseconds_t>(size % kMicrosecondsPerSecond);
    return difference < 0 ? 1 : 0;
}

bool TimevalMensi(timeval* a, timeval* b) {
    timeval difference{};
    return TimevalMinus(&difference, a, b) == 1;
}

void TiskTed2(char* buffer, int size) {
    if (size <= 0) return;
    const time_t now = Now();
    tm local{};
    localtime_r(&now, &local);
    // What a too small buffer holds after strftime is not defined.
    if (strftime(buffer, static_cast<size_t>(size), "%d.%m.%Y %H:%M:%S", &local) == 0) buffer[0] = '\0';
}

bool ParamNacti(const std::string& path, std::map<std::string, std::string>& map, const Complain& complain) {
    std::string reason;
    const Descriptor file(openRegularFile(path, reason));
    const auto block = std::make_unique<char[]>(kReadBlock);
    long length = file.get() < 0 ? -1 : readSome(file.get(), block.get(), kReadBlock, reason);
    if (length < 0) {
        PrintLine("Nelze otevrit konfiguracni soubor");
        complain(0, reason);
        return false;
    }
    ParameterLines lines(map, complain);
    for (; length > 0; length = readSome(file.get(), block.get(), kReadBlock, reason)) {
        if (!lines.take(block.get(), static_cast<size_t>(length))) {
            Print("Chybny konfiguracni soubor");
            return false;
        }
    }
    if (length < 0) complain(0, reason);
    return true;
}

bool ParamNacti(const std::string& path, std::map<std::string, std::string>& map) {
    return ParamNacti(path, map, [&](size_t line, const std::string& reason) {
        PrintErrorLine(path, line > 0 ? ", line " + std::to_string(line) : "", ": ", reason);
    });
}

std::vector<std::string> txt2vector(const char* text, const char* delimiters) {
    std::vector<std::string> pieces;
    std::string copy(text);
    char* rest = nullptr;
    for (const char* piece = strtok_r(copy.data(), delimiters, &rest); piece != nullptr;
         piece = strtok_r(nullptr, delimiters, &rest)) {
        pieces.emplace_back(piece);
    }
    return pieces;
}

std::vector<std::string> txt2vector(const std::string& text, const std::string& delimiters) {
    return txt2vector(text.c_str(), delimiters.c_str());
}

std::string StringToUpper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(toupper(c)); });
    return text;
}

std::string urldecode(const std::string& text) {
    std::string decoded;
    decoded.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i] == '+' ? ' ' : text[i];
            continue;
        }
        ++i;
        if (i + 1 >= text.size()) break;  // one digit, or none, closes the text: nothing more to give
        const int high = hexDigit(text[i]);
        const int low = hexDigit(text[i + 1]);
        if (high < 0 || low < 0) continue;
        decoded += static_cast<char>(high * 16 + low);
        ++i;
    }
    return decoded;
}

void systemLog(const char* identity, const char* message) {
    if (systemLogIsFull()) return;
    // 6 is no facility, so the log library keeps its default one.
    openlog(identity, LOG_CONS, 6);
    syslog(LOG_INFO, "%s", message);
    closelog();
}

void systemLogAndPrint(const char* identity, const char* message) {
    PrintLine(message);
    systemLog(identity, message);
}

std::string binHex2(int length, const char* buffer) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string text;
    for (int i = 0; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(buffer[i]);
        if (byte > 31 && byte < 126) {
            text += buffer[i];
        } else {
            text += {' ', kDigits[byte >> 4], kDigits[byte & 15]};
        }
    }
    return text;
}

void binTiskHex2(int length, const char* buffer) {
    PrintLine(binHex2(length, buffer));
}

int waitOnCondition(const bool* flag, pthread_cond_t* condition, pthread_mutex_t* mutex, int seconds) {
    pthread_mutex_lock(mutex);
    timeval now{};
    gettimeofday(&now, nullptr);
    const long nanoseconds = now.tv_usec * 1000;
    const timespec deadline{now.tv_sec + seconds + nanoseconds / kNanosecondsPerSecond,
                            nanoseconds % kNanosecondsPerSecond};
    int result = 0;
    while (!*flag && result == 0) result = pthread_cond_timedwait(condition, mutex, &deadline);
    pthread_mutex_unlock(mutex);
    return result;
}

int waitOnConditionSleep(const std::atomic<bool>* flag, int seconds, int milliseconds) {
    const int64_t limit = seconds * kMicrosecondsPerSecond + int64_t{milliseconds} * 1000;
    // Not the time of day: a clock that is set back must not lengthen the wait.
    const int64_t start = microseconds(MonotonicTime());
    do {
        if (*flag) return 1;
        MySleep(0, kFlagLookNanoseconds);
    } while (microseconds(MonotonicTime()) - start <= limit);
    return ETIMEDOUT;
}
