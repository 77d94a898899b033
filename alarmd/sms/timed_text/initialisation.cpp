#include "alarmd/sms/timed_text/initialisation.h"

#include <string>
#include <vector>

#include "alarmd/alarmd.h"
#include "alarmd/sms/timed_text/exchange.h"
#include "alarmd/sms/timed_text/message_store.h"
#include "knihovny/clock.h"
#include "knihovny/debugerror.h"
#include "knihovny/generalfce.h"

namespace {

constexpr int kAcknowledgeLooks = 4;
constexpr int kModelReplySeconds = 1;

struct ModemModel {
    const char* name;
    const char* message;
    int code;
    bool first_message_at_1;
};

constexpr ModemModel kModels[] = {
    {"EM820W", "Stary 3G modem(1)\n", 1, false}, {"MU709s-2", "Novy 3G modem(2)\n", 2, false},
    {"ME909u-521", "LTE(3)\n", 3, false},        {"ME909u-523", "LTE(3) USA\n", 3, false},
    {"EM7565", "LTE(4) SIERRA\n", 3, false},  // type 3, though its message counts it among the fourth
    {"4105", "LTE(3) TELID (4105)\n", 3, false}, {"SIM7906E", "LTE(3) SIMCOM SIM7906E\n", 3, false},
    {"ME909s-120", "LTE(4) Huawei\n", 4, true},  {"ME906s-158", "LTE(4) Huawei\n", 4, true},
};

// The PIN goes out whether the SIM card asks for one or not, with two carriage returns; its answer is not
// counted.
void sendPin(const std::string& pin_code) {
    const std::string command = "AT+CPIN=\"" + pin_code + "\"\r\r";
    PrintLine("PIN seted => Sending: ", command);
    sendOrder(command);
}

// The second line of the reply without its carriage return: the first is the empty line, or the echo, before
// it.
std::string modelName(const std::string& reply) {
    const std::vector<std::string> lines = txt2vector(reply, "\n");
    if (lines.size() < 2) return "";
    return lines[1].substr(0, lines[1].size() - 1);
}

}  // namespace

int nastavModem() {
    std::string pin_code, service_centre;
    {
        MutexLock lock(settings_mutex);
        pin_code = pin;
        service_centre = smsc;
    }
    int acknowledged = 0;
    sendPin(pin_code);
    MySleep(3, 0);
    for (const std::string& command :
         {std::string("AT^CURC=0\r"), std::string("AT+CMGF=1\r"), "AT+CSCA=\"" + service_centre + "\"\r"}) {
        sendOrder(command);
        if (waitForOk(kAcknowledgeLooks)) ++acknowledged;
    }
    PrintLine("Aktivace: ", acknowledged);
    return acknowledged;
}

int getModemType() {
    sendOrderAndZero("ate0\r");
    MySleep(1, 0);
    clearReply();
    readsmstime = Now() + kReadPauseSeconds;
    sendOrder("AT+CGMM\r");
    waitForReply(kModelReplySeconds);

    const std::string model = modelName(replyText());
    Print("Modem Typ: >>" + model + "<<\n");
    for (const ModemModel& known : kModels) {
        if (model != known.name) continue;
        if (known.first_message_at_1) msg_cnt = 1;
        Print(known.message);
        return known.code;
    }
    PrintLine("Unknown Modem Type !!!!");
    return 0;
}
