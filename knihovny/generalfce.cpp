#include "knihovny/generalfce.h"

#include <syslog.h>

#include <cerrno>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>

#include "knihovny/debugerror.h"

namespace {

constexpr int kMicrosecondsPerSecond = 1000000;
constexpr int kTimedOut = ETIMEDOUT;
constexpr long kFlagLookNanoseconds = 50000000;

// Not a facility of the log library, which then keeps its default one.
constexpr int kLogFacility = 6;

bool isComment(const std::string& line) {
    return line.empty() || line[0] == '#' || line[0] == '$' || line[0] == ' ';
}

// Splits "key value" at its first blank and stores it.
void storeParameter(const std::string& line, std::map<std::string, std::string>& map) {
    const size_t blank = line.find(' ');
    if (blank == std::string::npos) {
        map[line].clear();
    } else {
        map[line.substr(0, blank)] = line.substr(blank + 1);
    }
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

void MySleep(long seconds, long nanoseconds) {
    const timespec length{seconds, nanoseconds};
    nanosleep(&length, nullptr);
}

int TimevalMinus(timeval* result, timeval* a, timeval* b) {
    const int64_t difference =
        (static_cast<int64_t>(a->tv_sec) - b->tv_sec) * kMicrosecondsPerSecond + (a->tv_usec - b->tv_usec);
    const int64_t size = difference < 0 ? -difference : difference;
    result->tv_sec = static_cast<time_t>(size / kMicrosecondsPerSecond);
    result->tv_usec = static_cast<suseconds_t>(size % kMicrosecondsPerSecond);
    return difference < 0 ? 1 : 0;
}

bool TimevalMensi(timeval* a, timeval* b) {
    timeval difference;
    return TimevalMinus(&difference, a, b) == 1;
}

void TiskTed2(char* buffer, int size) {
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    strftime(buffer, static_cast<size_t>(size), "%d.%m.%Y %H:%M:%S", &local);
}

bool ParamNacti(const std::string& path, std::map<std::string, std::string>& map) {
    const std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(path.c_str(), "re"), fclose);
    char block[65536];
    // A folder opens but does not read.
    size_t length = file ? fread(block, 1, sizeof block, file.get()) : 0;
    if (!file || ferror(file.get())) {
        PrintLine("Nelze otevrit konfiguracni soubor");
        return false;
    }
    std::string line;
    for (; length > 0; length = fread(block, 1, sizeof block, file.get())) {
        for (size_t i = 0; i < length; ++i) {
            if (block[i] == '\r') continue;
            if (block[i] != '\n') {
                line += block[i];
                continue;
            }
            if (!isComment(line)) storeParameter(line, map);
            line.clear();
        }
    }
    return true;
}

std::vector<std::string> txt2vector(const char* text, const char* delimiters) {
    std::vector<std::string> pieces;
    std::string copy(text);
    char* rest = nullptr;
    for (char* piece = strtok_r(copy.data(), delimiters, &rest); piece != nullptr;
         piece = strtok_r(nullptr, delimiters, &rest)) {
        pieces.emplace_back(piece);
    }
    return pieces;
}

std::vector<std::string> txt2vector(const std::string& text, const std::string& delimiters) {
    return txt2vector(text.c_str(), delimiters.c_str());
}

std::string StringToUpper(std::string text) {
    for (char& c : text) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return text;
}

std::string urldecode(const std::string& text) {
    std::string decoded;
    bool escape = false;
    for (size_t i = 0; i < text.size(); ++i) {
        if (!escape) {
            if (text[i] == '%') {
                escape = true;
            } else {
                decoded += text[i] == '+' ? ' ' : text[i];
            }
            continue;
        }
        escape = false;
        const int high = hexDigit(text[i]);
        const int low = i + 1 < text.size() ? hexDigit(text[i + 1]) : -1;
        if (high >= 0 && low >= 0) {
            decoded += static_cast<char>(high * 16 + low);
            ++i;
        }
    }
    return decoded;
}

void systemLog(const char* identity, const char* message) {
    openlog(identity, LOG_CONS, kLogFacility);
    syslog(LOG_INFO, "%s", message);
    closelog();
}

void systemLogAndPrint(const char* identity, const char* message) {
    PrintLine(message);
    fflush(stdout);
    systemLog(identity, message);
}

void binTiskHex2(int length, const char* buffer) {
    std::string line;
    for (int i = 0; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(buffer[i]);
        if (byte > 31 && byte < 126) {
            line += buffer[i];
        } else {
            char hex[8];
            snprintf(hex, sizeof hex, " %02X", byte);
            line += hex;
        }
    }
    PrintLine(line);
}

int waitOnCondition(const bool* flag, pthread_cond_t* condition, pthread_mutex_t* mutex, int seconds) {
    pthread_mutex_lock(mutex);
    timeval now;
    gettimeofday(&now, nullptr);
    const timespec deadline{now.tv_sec + seconds, now.tv_usec * 1000L};
    int result = 0;
    while (!*flag && result != kTimedOut) result = pthread_cond_timedwait(condition, mutex, &deadline);
    pthread_mutex_unlock(mutex);
    return result;
}

int waitOnConditionSleep(const std::atomic<bool>* flag, int seconds, int milliseconds) {
    const int64_t limit = static_cast<int64_t>(seconds) * kMicrosecondsPerSecond + milliseconds * 1000L;
    timeval start;
    gettimeofday(&start, nullptr);
    for (;;) {
        if (*flag) return 1;
        MySleep(0, kFlagLookNanoseconds);
        timeval now, elapsed;
        gettimeofday(&now, nullptr);
        if (TimevalMinus(&elapsed, &now, &start) == 1) {
            start = now;  // the clock was set back
            continue;
        }
        if (static_cast<int64_t>(elapsed.tv_sec) * kMicrosecondsPerSecond + elapsed.tv_usec > limit) return kTimedOut;
    }
}
