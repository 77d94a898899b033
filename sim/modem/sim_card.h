// The SIM card: its PIN, and what else it keeps besides messages.
#pragma once

#include <string>

#include "sim/modem/at_answer.h"
#include "sim/modem/at_command.h"
#include "sim/modem/modem_world.h"

namespace sim {

// For one thread.
class SimCard {
  public:
    // world tells whether the card is in, and its PIN; it outlives the object.
    explicit SimCard(ModemWorld& world) : world_(world) {}

    // The PIN is asked for again.
    void powerUp() { pin_given_ = false; }

    bool ready() const;
    // The +CMS ERROR of a card that is not ready, 0 when it is.
    int error() const;
    const std::string& serviceCentre() const { return service_centre_; }

    // The commands of these names.
    AtAnswer cpin(const AtCommand& command);
    AtAnswer csca(const AtCommand& command);
    AtAnswer cimi(const AtCommand& command) const;

  private:
    ModemWorld& world_;
    std::string service_centre_ = "+420603052000";
    bool pin_given_ = false;
};

}  // namespace sim
