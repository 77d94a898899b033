// What the programs of the simulated world have in common: options, events on standard output, commands on
// standard input, the scenario, and the end.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "sim/support/event_log.h"
#include "sim/support/scenario.h"

namespace sim {

// An option of one program. The value is handed over as it stands on the command line, empty for an option
// without one; what is returned is what is wrong with it, empty when nothing is.
struct ProgramOption {
    const char* name;   // without the dashes
    const char* value;  // its name in the help text; null: an option without a value
    const char* help;
    std::function<std::string(const std::string&)> take;
};

// Use, in this order: construct, parse, start the simulation (whose threads then do not take the signals),
// run.
class Program {
  public:
    // description: what the help text begins with.
    Program(std::string name, std::string description, std::vector<ProgramOption> options);

    // Reads the command line. Returns the exit status when the program ends here: 0 after --help and
    // --version, 2 after a complaint on standard error. From here on SIGTERM and SIGINT are kept for run(),
    // and SIGPIPE is ignored.
    std::optional<int> parse(int argc, char** argv);

    // The scenario of the command line, if there is one.
    const std::optional<Scenario>& scenario() const { return scenario_; }

    // Where events go: a sink that prints as the options say. The event "ready" is printed in any case.
    EventLog::Sink sink() const;

    // Plays the scenario and carries out commands until the scenario's end, SIGTERM, SIGINT or the end of
    // standard input (with --control). Returns the exit status.
    int run(const Dispatcher& dispatcher, const EventLog& log);

  private:
    enum class Events { kNone, kText, kJson };

    std::string help() const;
    std::string takeOption(const std::string& name, const std::optional<std::string>& value);
    bool needsValue(const std::string& name) const;
    bool readCommands(const Dispatcher& dispatcher);

    const std::string name_, description_;
    const std::vector<ProgramOption> options_;
    Events events_ = Events::kNone;
    bool control_ = false, loop_ = false, ends_ = false;
    std::optional<Scenario> scenario_;
    std::string input_;  // the beginning of a command
};

// For options: reads a whole number from least to most, or returns what is wrong.
std::string takeNumber(const std::string& text, int least, int most, int& number);

}  // namespace sim
