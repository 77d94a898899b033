#include "alarmctl/commands.h"

void addDaemonCommands(CLI::App&, int&) {}
