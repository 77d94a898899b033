// The commands of alarmctl. Each function adds its commands to the command line; what a command does runs
// when the command line is parsed, and leaves the exit status in status.
#pragma once

#include <CLI/CLI.hpp>

// Exit status of all commands.
enum ExitStatus {
    kFine = 0,
    kWarnings = 1,  // check: warnings and no errors
    kFailed = 2,    // errors, a wrong command line, no daemon
};

// check and explain: read the files as the daemon would.
void addProjectCommands(CLI::App& app, int& status);

// status, sms, last-sms, gps, notifications: talk to the running daemon.
void addDaemonCommands(CLI::App& app, int& status);
