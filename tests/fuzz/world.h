// The world of a fuzz target. What the daemon reaches outside of itself (console, clock, modem, server, mail
// client, the end of its process) is kept in memory here: the daemon takes these things as they are handed to
// it. An input is therefore run without a wait, and every run of it gives the same.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "alarmd/alarmd.h"
#include "knihovny/descriptor.h"

namespace fuzz {

// What must hold after any input. Where it does not, the run ends with SIGABRT and one line that names the
// place.
#define MUST(condition)                                                                \
    do {                                                                               \
        if (!(condition)) ::fuzz::finding(__FILE__, __LINE__, "MUST(" #condition ")"); \
    } while (false)
[[noreturn]] void finding(const char* file, int line, const char* what);

// Defines the target NAME, which is run with each input: FUZZ_TARGET(name) { ... input ... }. The daemon is
// as in a process that has just started.
#define FUZZ_TARGET(name)                                                      \
    static void name##Target(std::string_view input);                          \
    static const ::fuzz::Registration name##Registration(#name, name##Target); \
    static void name##Target(std::string_view input)

using Body = void (*)(std::string_view input);
struct Target {
    const char* name;
    Body body;
};
std::vector<Target>& targets();
struct Registration {
    Registration(const char* name, Body body) { targets().push_back({name, body}); }
};

// Runs one input. An end of the process that the target does not expect is a finding.
void run(const Target& target, std::string_view input);

// ---------------------------------------------------------------------------------------------------------------
// What the daemon does to its world.

struct Mail {
    std::string client;
    std::vector<std::string> arguments;
    std::string message;
};

struct World {
    std::string printed;       // standard output
    std::string complained;    // standard error
    int64_t nanoseconds = 0;   // the clock; a sleep puts it forward
    std::string modem_answer;  // what the modem says to each command
    bool modem_has_command = false;
    std::vector<std::string> to_modem;   // a string each transfer
    std::vector<std::string> to_server;  // to the local port
    std::vector<Mail> mails;
};
extern World world;

// Hands bytes to the modem's byte handler.
void modemSays(std::string_view bytes);

// Sends the SMS that wait, and checks what goes to the modem for each.
void sendWaitingSms();

// Thrown in the place of fatal().
struct ProcessEnd {
    std::string line;
};

// Whether action ended the process, as it does for input that it cannot go on with.
template <class Action>
bool endsProcess(const Action& action) {
    try {
        action();
    } catch (const ProcessEnd&) {
        return true;
    }
    return false;
}

// ---------------------------------------------------------------------------------------------------------------
// Input.

// A file in memory.
class MemoryFile {
  public:
    explicit MemoryFile(std::string_view content);

    std::string path() const;

  private:
    const Descriptor descriptor_;
};

// The parts of text between separators; one that is empty for an empty text.
std::vector<std::string> parts(std::string_view text, char separator);

// An input that is several values, one behind the other.
constexpr char kBetweenFields = '\x1f';
class Fields {
  public:
    explicit Fields(std::string_view input) : rest_(input) {}

    // Empty, or 0, behind the last one.
    std::string text();
    int64_t integer();
    double real();
    bool more() const { return !rest_.empty(); }

  private:
    std::string_view rest_;
};

// The lines of a project file in CSV, split into columns by the text helpers.
std::vector<std::vector<std::string>> csvRows(std::string_view content);

size_t count(std::string_view text, std::string_view part);

// ---------------------------------------------------------------------------------------------------------------
// Project data.

// The definitions and groups agree with each other, and a look-up of texts gives what a walk over all
// definitions does.
void checkDefinitions();

// Adds a definition that group 0 is told of, and a user to his group.
void defineAlarm(const _alarm_def& definition);
void addUser(const _user& entry);

// The entries of a queue, which is empty afterwards.
template <template <class> class Queue, class T>
std::vector<T> takeAll(Queue<T>& queue) {
    std::vector<T> all;
    T entry;
    while (queue.take(entry)) all.push_back(entry);
    return all;
}

}  // namespace fuzz
