// General helpers: sleeping, timeval arithmetic, the key/value file reader, text splitting, system log,
// bounded waits.
//
// They hold no state and take no locks (but the caller's mutex in waitOnCondition): any thread may call them.
#pragma once

#include <pthread.h>
#include <sys/time.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

// Sleeps once for the given seconds and nanoseconds. A signal ends the sleep early; it is not resumed.
void MySleep(long seconds, long nanoseconds);

// The time of a clock that is never set back: for measuring how long something took.
timeval MonotonicTime();

// Stores |a - b| in result and returns 1 when a is earlier than b, else 0.
int TimevalMinus(timeval* result, timeval* a, timeval* b);

// True when a is earlier than b; equal times give false.
bool TimevalMensi(timeval* a, timeval* b);

// Writes the local time as "dd.mm.yyyy hh:mm:ss" into buffer of size bytes.
void TiskTed2(char* buffer, int size);

// Reads a key/value file into map and returns true.
//
// A line is a key, one blank and the value (all further blanks belong to the value). Lines that begin with
// '#', '$' or a blank are comments. Carriage returns are dropped. A last line without a line feed is not
// read, whatever its length. A later line replaces an earlier one with the same key. Other bytes are taken as
// they are; a byte order mark is a part of the first key. A line that begins with a zero byte has no key:
// prints "Chybny konfiguracni soubor" without a newline and returns false; the lines before it are stored.
//
// A line of more than kLongestParameterLine bytes, carriage returns and the line feed not counted, is passed
// over and complained of. When the file cannot be opened, or is no regular file (a folder, a pipe, a device,
// a socket), prints "Nelze otevrit konfiguracni soubor", complains with the reason and returns false; map
// stays as it was. A file that can be read no further ends there, which is complained of.
//
// complain hears of each of these: the number of the line, counted from 1, or 0 for the file as a whole, and
// the reason. Without it, "PATH, line 7: REASON" or "PATH: REASON" is a line on standard error.
using Complain = std::function<void(size_t line, const std::string& reason)>;
constexpr size_t kLongestParameterLine = size_t{1} << 20;
bool ParamNacti(const std::string& path, std::map<std::string, std::string>& map, const Complain& complain);
bool ParamNacti(const std::string& path, std::map<std::string, std::string>& map);

// Splits text at any of the delimiter characters. Empty pieces are never produced. Text ends at its first
// zero byte.
std::vector<std::string> txt2vector(const char* text, const char* delimiters);
std::vector<std::string> txt2vector(const std::string& text, const std::string& delimiters);

// A copy with toupper applied to every byte.
std::string StringToUpper(std::string text);

// Percent-decoding of a query string; '+' gives a blank. A '%' without two hexadecimal digits behind it is
// dropped together with the byte right after it.
std::string urldecode(const std::string& text);

// Writes message to the system log under identity, informational priority. A message that the system log does
// not take, since nobody reads it any more, is dropped.
void systemLog(const char* identity, const char* message);

// Prints message and a newline on standard output, flushes it, then does what systemLog does.
void systemLogAndPrint(const char* identity, const char* message);

// Prints length bytes: printable ones (32 to 125) as they are, others as " %02X"; then one newline.
void binTiskHex2(int length, const char* buffer);

// That text, without the newline.
std::string binHex2(int length, const char* buffer);

// Waits until flag is true, at most the given seconds, on a condition variable whose broadcasts follow its
// changes. Takes mutex for the wait. Returns 0 when the flag was found set, ETIMEDOUT or another error number
// otherwise.
int waitOnCondition(const bool* flag, pthread_cond_t* condition, pthread_mutex_t* mutex, int seconds);

// Looks at flag every 50 ms until it is true (returns 1) or more than the given time has passed (returns
// 110).
int waitOnConditionSleep(const std::atomic<bool>* flag, int seconds, int milliseconds);
