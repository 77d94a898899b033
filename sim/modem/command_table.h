// The modem's commands: which part of the modem answers which.
#pragma once

#include <string>
#include <vector>

#include "sim/modem/at_answer.h"
#include "sim/modem/at_command.h"
#include "sim/modem/at_settings.h"
#include "sim/modem/message_access.h"
#include "sim/modem/message_store.h"
#include "sim/modem/modem_world.h"
#include "sim/modem/sim_card.h"
#include "sim/support/modem_models.h"

namespace sim {

// For one thread.
class CommandTable {
  public:
    // Both outlive the object.
    CommandTable(const ModemModel& model, ModemWorld& world);
    CommandTable(const CommandTable&) = delete;
    CommandTable& operator=(const CommandTable&) = delete;

    void powerUp();
    void setModel(const ModemModel& model);
    const ModemModel& model() const { return *model_; }

    // Carries out the commands of a line, to the first that fails or asks for a message's text. The answer
    // has the information of all of them and the result of the last.
    AtAnswer execute(const std::vector<AtCommand>& commands);

    // Of the message whose text was asked for last.
    const std::string& number() const { return number_; }

    const AtSettings& settings() const { return settings_; }
    const SimCard& sim() const { return sim_; }
    const MessageStore& store() const { return store_; }
    MessageAccess& messages() { return messages_; }
    bool registered() const { return sim_.ready() && world_.network; }

  private:
    struct Entry;

    AtAnswer execute(const AtCommand& command);
    AtAnswer basic(const AtCommand& command);
    AtAnswer identity(const AtCommand& command) const;
    AtAnswer cmgs(const AtCommand& command);

    const ModemModel* model_;
    ModemWorld& world_;
    AtSettings settings_;
    SimCard sim_;
    MessageStore store_;
    MessageAccess messages_;
    std::string number_;
};

}  // namespace sim
