#include "alarmd/sms/reception.h"

#include <algorithm>
#include <utility>

#include "alarmd/alarmd.h"
#include "alarmd/sms/commands.h"
#include "knihovny/clock.h"
#include "knihovny/debugerror.h"

namespace {

void storeLastSms(const IncomingSms& message) {
    _last_sms received{Now(), message.from, message.text};
    std::erase(received.text, '\r');
    std::erase(received.text, '\n');
    MutexLock lock(last_sms_mutex);
    last_sms = std::move(received);
}

// The first user with the sender's number who may control by SMS. A user without a number has no phone.
std::optional<int> authorisedUser(const IncomingSms& message) {
    if (!message.whole_sender || message.from.empty()) return std::nullopt;
    MutexLock lock(project_mutex);
    const auto found = std::find_if(user_list.begin(), user_list.end(), [&](const _user& candidate) {
        return candidate.mobil == message.from && candidate.sms_control;
    });
    return found == user_list.end() ? std::nullopt : std::optional(found->id);
}

}  // namespace

void readSms(ModemDriver& driver) {
    PrintLine("\t-->Thread sms: Cteni SMS");
    if (const std::optional<IncomingSms> message = driver.receive()) takeIn(driver, *message);
    Print("\n");
}

void read_sms() {
    readSms(modemDriver());
}

void takeIn(ModemDriver& driver, const IncomingSms& message) {
    storeLastSms(message);
    driver.forgetReceived();
    const std::optional<int> userID = authorisedUser(message);
    if (!userID) {
        Print("UNAUTHORIZED USER !!!\n\n");
        return;
    }
    Print("AUTHORIZED USER !!!\n\n");
    if (message.text.empty()) {
        Print("COMAND EMPTY !!!\n\n");
        return;
    }
    execute_sms_command(message.text, *userID, message.from);
}
