// The commands by which a program gets at the messages in the store (3GPP TS 27.005, sections 3.2.2, 3.4
// and 3.5.4).
#pragma once

#include <string>

#include "sim/modem/at_answer.h"
#include "sim/modem/at_command.h"
#include "sim/modem/at_settings.h"
#include "sim/modem/message_store.h"
#include "sim/modem/sim_card.h"

namespace sim {

// For one thread.
class MessageAccess {
  public:
    // All three outlive the object.
    MessageAccess(MessageStore& store, const SimCard& sim, const AtSettings& settings)
        : store_(store), sim_(sim), settings_(settings) {}

    // A message has come for which there is a place: it goes where AT+CNMI says. Returns the unasked line
    // that shows it, empty for none.
    std::string take(const StoredMessage& message);

    // The commands of these names.
    AtAnswer cmgr(const AtCommand& command);
    AtAnswer cmgl(const AtCommand& command);
    AtAnswer cmgd(const AtCommand& command);
    AtAnswer cpms(const AtCommand& command) const;

    // The +CMS ERROR of commands on messages in text mode while the SIM is not ready or text mode is not on,
    // 0 otherwise.
    int textModeError() const;

  private:
    MessageStore& store_;
    const SimCard& sim_;
    const AtSettings& settings_;
};

}  // namespace sim
