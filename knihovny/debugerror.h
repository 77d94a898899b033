// The console log: standard output, one call a piece of text.
//
// All functions may be called from any thread. Each hands its text to the stream (log_stream.h) in one call,
// so the text of another thread never comes between, and it is out when they return.
#pragma once

#include <atomic>
#include <charconv>
#include <chrono>
#include <string>
#include <string_view>
#include <type_traits>

// Writes text to standard output as it is, without adding a newline. Bytes after a zero byte are written too.
void Print(std::string_view text);

// The same on standard error, for what the daemon complains of in one line of its own.
void PrintError(std::string_view text);

// Where both write to instead of the streams, for a test. Null: the streams, as at first. For the main
// thread, before there are others.
class LogTarget {
  public:
    virtual ~LogTarget() = default;
    virtual void print(std::string_view text) = 0;
    virtual void printError(std::string_view text) = 0;
};
void setLogTarget(LogTarget* target);

// perror: writes text, ": ", what errno means, and a newline on standard error. Keeps errno.
void PrintSystemError(const char* text);

// From then on the two drop what has found no room for so long, and tell of it later (log_stream.h); 0: they
// wait, as at first. Where both lead to the same pipe, terminal or socket, they are one stream. For the main
// thread, before there are others.
void dropLogWithoutRoom(std::chrono::milliseconds limit);

// Whether lines were dropped that have not been announced yet. Any thread.
bool logDropsLines();

// Print for a signal handler: up to 64 bytes, which may come a little later, or be dropped.
// Async-signal-safe.
void PrintInSignalHandler(std::string_view text);

// Writes "ERROR: " message " , in thread " and the calling thread's numeric id, and a newline, to standard
// output. The second form is for a failed system call; the error number is accepted and not written.
void DumpError(const char* message);
void DumpError(const char* message, int error);

// Writes message to standard output exactly, no newline added.
void DebugPrint(const char* message);

// Switches additional output of the library, a bit a kind; 0 is silent. The program sets it to its own debug
// level.
extern std::atomic<int> debug_level;

// Appends one part of a log line: texts as they are, integers in decimal, a bool as 0 or 1, a double or long
// double with six significant digits ("%g").
inline void AppendPart(std::string& line, std::string_view text) {
    line += text;
}
inline void AppendPart(std::string& line, const char* text) {
    line += text;
}
inline void AppendPart(std::string& line, const std::string& text) {
    line += text;
}
inline void AppendPart(std::string& line, char c) {
    line += c;
}
inline void AppendPart(std::string& line, bool value) {
    line += value ? '1' : '0';
}
void AppendPart(std::string& line, double value);
void AppendPart(std::string& line, long double value);
template <class Integer, class = std::enable_if_t<std::is_integral_v<Integer>>>
void AppendPart(std::string& line, Integer value) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, value);
    line.append(digits, end.ptr);
}

// Appends the parts and a newline to text: for building several lines that belong together.
template <class... Parts>
void AppendLine(std::string& text, const Parts&... parts) {
    (AppendPart(text, parts), ...);
    text += '\n';
}

// Prints the parts and a newline.
template <class... Parts>
void PrintLine(const Parts&... parts) {
    std::string text;
    AppendLine(text, parts...);
    Print(text);
}

// Prints the parts and a newline on standard error.
template <class... Parts>
void PrintErrorLine(const Parts&... parts) {
    std::string text;
    AppendLine(text, parts...);
    PrintError(text);
}
