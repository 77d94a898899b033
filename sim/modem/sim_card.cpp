#include "sim/modem/sim_card.h"

namespace sim {

bool SimCard::ready() const {
    return world_.sim && world_.tries_left > 0 && (world_.pin.empty() || pin_given_);
}

int SimCard::error() const {
    if (!world_.sim) return kCmsSimMissing;
    if (world_.tries_left <= 0) return kCmsPukRequired;
    return ready() ? 0 : kCmsPinRequired;
}

AtAnswer SimCard::cpin(const AtCommand& command) {
    if (command.form == AtCommand::kTest) return {};
    if (!world_.sim) return AtAnswer::cme(kCmeSimMissing);
    if (command.form == AtCommand::kRead) {
        if (world_.tries_left <= 0) return AtAnswer::line("+CPIN: SIM PUK");
        return AtAnswer::line(ready() ? "+CPIN: READY" : "+CPIN: SIM PIN");
    }
    if (command.form != AtCommand::kSet) return AtAnswer::error();
    if (ready()) return AtAnswer::cme(kCmeNotAllowed);
    if (world_.tries_left <= 0) return AtAnswer::cme(kCmePukRequired);
    if (command.parameters[0] != world_.pin) {
        --world_.tries_left;
        return AtAnswer::cme(kCmeWrongPassword);
    }
    pin_given_ = true;
    world_.tries_left = 3;
    return {};
}

AtAnswer SimCard::csca(const AtCommand& command) {
    if (command.form == AtCommand::kTest) return {};
    if (const int failure = error()) return AtAnswer::cms(failure);
    if (command.form == AtCommand::kRead) {
        const char* type = service_centre_.starts_with("+") ? ",145" : ",129";
        return AtAnswer::line("+CSCA: " + quoted(service_centre_) + type);
    }
    if (command.form != AtCommand::kSet) return AtAnswer::error();
    if (!isTelephoneNumber(command.parameters[0])) return AtAnswer::cms(kCmsServiceCentre);
    service_centre_ = command.parameters[0];
    return {};
}

AtAnswer SimCard::cimi(const AtCommand& command) const {
    if (command.form == AtCommand::kTest) return {};
    if (!world_.sim) return AtAnswer::cme(kCmeSimMissing);
    if (!ready()) return AtAnswer::cme(kCmePinRequired);
    return AtAnswer::line("230010000000001");
}

}  // namespace sim
