// The modem's surroundings.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace sim {

// What the modem makes of its surroundings. Changed from outside at any time.
struct ModemWorld {
    bool sim = true;        // a SIM card is in
    std::string pin;        // that the SIM asks for after power-up; empty: none
    int tries_left = 3;     // wrong PINs until the SIM wants its PUK
    bool network = true;    // there is a network
    int refusals = 0;       // so many messages more are refused
    int refusal_code = 38;  // +CMS ERROR of a refusal
    double sending = 0;     // seconds a message takes to be sent
    double slow = 0;        // seconds before each answer
    bool mute = false;      // takes everything and says nothing
    int quiet = 0;          // says nothing to the texts of so many messages more
    std::vector<std::pair<double, std::string>> instead;  // but this to the next, so many seconds behind it
    double chatter = 0;                                   // seconds from one ^RSSI to the next; 0: none
};

}  // namespace sim
