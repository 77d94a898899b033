// alarmctl: checks what the daemon reads, explains whom an alarm reaches, and talks to the running daemon.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>

#include "alarmctl/commands.h"

namespace {

constexpr char kDescription[] =
    "Checks the configuration of alarmd, explains whom an alarm reaches, and talks to the running daemon.";

constexpr char kFooter[] =
    "Examples:\n"
    "  alarmctl check\n"
    "  alarmctl explain 101\n"
    "  alarmctl status\n"
    "  alarmctl sms +420601000001 \"Pump 3 is off\"\n"
    "  alarmctl COMMAND --help\n"
    "\n"
    "Exit status: 0 fine, 1 warnings (check) or nobody hears of the alarm (explain), 2 errors, a wrong "
    "command\n"
    "line, or no daemon.";

int runCommand(int argc, char* argv[]) {
    CLI::App app(kDescription, "alarmctl");
    app.footer(kFooter);
    app.set_version_flag("--version", "alarmctl " KORVATO_VERSION);
    app.require_subcommand(1);
    int status = kFine;
    addProjectCommands(app, status);
    addDaemonCommands(app, status);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kFine : kFailed;
    }
    return status;
}

// What was printed may not have got to its place: a full disk, a reader that is gone.
bool outputWritten() {
    errno = 0;
    if (fflush(stdout) == 0 && !ferror(stdout) && std::cout.flush()) return true;
    fprintf(stderr, "alarmctl: the output cannot be written%s%s\n", errno ? ": " : "",
            errno ? strerror(errno) : "");
    return false;
}

}  // namespace

int main(int argc, char* argv[]) {
    signal(SIGPIPE, SIG_IGN);
    int status = kFailed;
    try {
        status = runCommand(argc, argv);
    } catch (const std::exception& error) {
        fprintf(stderr, "alarmctl: %s\n", error.what());
    }
    return outputWritten() ? status : kFailed;
}
