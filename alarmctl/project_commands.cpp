#include "alarmctl/commands.h"

void addProjectCommands(CLI::App&, int&) {}
