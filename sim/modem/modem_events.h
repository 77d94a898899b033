// The events of scenario files and commands that concern the modem, its network and the phones in it.
#pragma once

#include "sim/modem/gsm_modem.h"
#include "sim/support/scenario.h"

namespace sim {

// Makes dispatcher carry out the modem's events on modem; both are used with log and outlived by it.
void handleModemEvents(Dispatcher& dispatcher, GsmModem& modem, const EventLog& log);

}  // namespace sim
