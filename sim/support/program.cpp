#include "sim/support/program.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>

#include "knihovny/debugerror.h"
#include "knihovny/descriptor.h"

namespace sim {
namespace {

sigset_t endSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    return set;
}

constexpr struct {
    const char* name;
    const char* value;  // null: an option without a value
    const char* help;
} kCommonOptions[] = {
    {"scenario", "FILE", "play this scenario, then end"},
    {"loop", nullptr, "begin the scenario again when it is over"},
    {"events", nullptr, "print one readable line for each event"},
    {"json-events", nullptr, "print one line of JSON for each event"},
    {"control", nullptr, "carry out commands, lines of JSON from standard input"},
    {"help", nullptr, "print this text"},
    {"version", nullptr, "print the version"},
};

void helpLine(std::string& text, const char* name, const char* value, const char* help) {
    std::string option = std::string("  --") + name + (value ? std::string(" ") + value : "");
    option.resize(std::max<size_t>(option.size() + 2, 22), ' ');
    AppendLine(text, option, help);
}

}  // namespace

std::string takeNumber(const std::string& text, int least, int most, int& number) {
    int parsed = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), parsed);
    if (error != std::errc() || end != text.data() + text.size() || parsed < least || parsed > most) {
        return "is no whole number from " + std::to_string(least) + " to " + std::to_string(most);
    }
    number = parsed;
    return {};
}

Program::Program(std::string name, std::string description, std::vector<ProgramOption> options)
    : name_(std::move(name)), description_(std::move(description)), options_(std::move(options)) {}

std::string Program::help() const {
    std::string text;
    AppendLine(text, "Usage: ", name_, " [OPTION]...");
    AppendLine(text, description_);
    AppendLine(text);
    for (const ProgramOption& option : options_) helpLine(text, option.name, option.value, option.help);
    for (const auto& option : kCommonOptions) helpLine(text, option.name, option.value, option.help);
    return text;
}

bool Program::needsValue(const std::string& name) const {
    return name == "scenario" ||
           std::any_of(options_.begin(), options_.end(),
                       [&](const ProgramOption& option) { return option.value && name == option.name; });
}

// Returns what is wrong.
std::string Program::takeOption(const std::string& name, const std::optional<std::string>& value) {
    if (needsValue(name) != value.has_value()) return value ? "takes no value" : "needs a value";
    for (const ProgramOption& option : options_) {
        if (name == option.name) return option.take(value.value_or(""));
    }
    if (name == "scenario") {
        try {
            scenario_ = loadScenario(*value);
        } catch (const ScenarioError& error) {
            return error.what();
        }
    } else if (name == "loop") {
        loop_ = true;
    } else if (name == "control") {
        control_ = true;
    } else if (name == "events" || name == "json-events") {
        events_ = name == "events" ? Events::kText : Events::kJson;
    } else if (name == "help" || name == "version") {
        Print(name == "help" ? help() : name_ + " " + KORVATO_VERSION + "\n");
        ends_ = true;
    } else {
        return "is not known; --help lists the options";
    }
    return {};
}

std::optional<int> Program::parse(int argc, char** argv) {
    for (int i = 1; i < argc && !ends_; ++i) {
        const std::string argument = argv[i];
        if (!argument.starts_with("--")) {
            PrintErrorLine(name_, ": ", argument, ": is no option");
            return 2;
        }
        const size_t equals = argument.find('=');
        const std::string name = argument.substr(2, equals == std::string::npos ? equals : equals - 2);
        std::optional<std::string> value;
        if (equals != std::string::npos) {
            value = argument.substr(equals + 1);
        } else if (needsValue(name) && i + 1 < argc) {
            value = argv[++i];
        }
        const std::string reason = takeOption(name, value);
        if (!reason.empty()) {
            PrintErrorLine(name_, ": --", name, ": ", reason);
            return 2;
        }
    }
    if (ends_) return 0;
    signal(SIGPIPE, SIG_IGN);
    const sigset_t signals = endSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return std::nullopt;
}

EventLog::Sink Program::sink() const {
    return [events = events_](const Json::Value& event) {
        if (events == Events::kJson) {
            PrintLine(compactJson(event));
        } else if (events == Events::kText || event["event"].asString() == "ready") {
            PrintLine(readableLine(event));
        }
    };
}

// Returns false at the end of standard input.
bool Program::readCommands(const Dispatcher& dispatcher) {
    char buffer[65536];
    const ssize_t length = read(STDIN_FILENO, buffer, sizeof buffer);
    if (length < 0) return errno == EINTR || errno == EAGAIN;
    if (length == 0) return false;
    input_.append(buffer, static_cast<size_t>(length));
    size_t begin = 0;
    for (size_t end; (end = input_.find('\n', begin)) != std::string::npos; begin = end + 1) {
        const std::string line = input_.substr(begin, end - begin);
        if (line.find_first_not_of(" \t\r") != std::string::npos) {
            PrintLine(compactJson(dispatcher.runLine(line)));
        }
    }
    input_.erase(0, begin);
    return true;
}

int Program::run(const Dispatcher& dispatcher, const EventLog& log) {
    const sigset_t signals = endSignals();
    const Descriptor ended(signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC));
    Player player(scenario_.value_or(Scenario()), dispatcher, loop_);
    const auto report = [&](const Json::Value& event, const Json::Value& answer) {
        PrintErrorLine(name_, ": ", compactJson(event), ": ", answer["error"].asString());
    };
    const double begin = log.elapsed();
    for (;;) {
        const double now = log.elapsed() - begin;
        player.play(now, report);
        if (player.finished(now)) break;
        // Not longer than 200 ms in one go: the clock may be a faked one that jumps.
        const int timeout = static_cast<int>(std::min(player.wait(now) * 1000 + 1, 200.0));
        pollfd polled[] = {{ended.get(), POLLIN, 0}, {control_ ? STDIN_FILENO : -1, POLLIN, 0}};
        if (poll(polled, 2, timeout) < 0) continue;
        if (polled[0].revents) break;
        if (polled[1].revents && !readCommands(dispatcher)) break;
    }
    log.tell("end", "end");
    return 0;
}

}  // namespace sim
