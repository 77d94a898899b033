// The models that the simulated modem can be.
#pragma once

#include <string>
#include <vector>

namespace sim {

// A model of modem.
struct ModemModel {
    const char* name;          // the answer to AT+CGMM
    const char* manufacturer;  // the answer to AT+CGMI
    bool huawei;               // knows the commands that begin with '^', and tells its signal unasked
    int first_index;           // of the message store
};

// Null for an unknown name.
const ModemModel* findModel(const std::string& name);
const std::vector<ModemModel>& modemModels();

}  // namespace sim
