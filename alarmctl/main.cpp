// alarmctl: checks what the daemon reads, explains whom an alarm reaches, and talks to the running daemon.
#include <CLI/CLI.hpp>

#include "alarmctl/commands.h"

int main(int argc, char* argv[]) {
    CLI::App app(
        "Checks the configuration of alarmd, explains whom an alarm reaches, and talks to the running "
        "daemon.");
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
