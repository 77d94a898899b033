// The modem's settings that a command sets and reads, and nothing else.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>

#include "sim/modem/at_answer.h"
#include "sim/modem/at_command.h"

namespace sim {

// For one thread.
class AtSettings {
  public:
    AtSettings() { reset(); }

    // The values after power-up.
    void reset();

    // The answer to the command of a setting; none to any other command. huawei: the model knows the settings
    // that begin with '^'.
    std::optional<AtAnswer> execute(const AtCommand& command, bool huawei);

    // The index-th number, from 0, in the value of a setting, such as "+CNMI"; 0 when it is none. REQUIRES:
    // there is such a setting.
    int number(const char* name, size_t index = 0) const;

    bool echo = true;  // of what comes on the line

  private:
    std::map<std::string, std::string> values_;
};

}  // namespace sim
