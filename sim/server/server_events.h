// The events of scenario files and commands that concern the server.
#pragma once

#include "sim/server/korvato_server.h"
#include "sim/support/scenario.h"

namespace sim {

// Makes dispatcher carry out the server's events on server, which outlives it.
void handleServerEvents(Dispatcher& dispatcher, KorvatoServer& server);

}  // namespace sim
