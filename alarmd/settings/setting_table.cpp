#include "alarmd/settings/setting_table.h"

#include <algorithm>
#include <limits>

#include "alarmd/alarmd.h"

namespace {

constexpr int kNoLimit = std::numeric_limits<int>::max();

}  // namespace

const std::vector<Setting>& modemSettings() {
    constexpr auto kPortKeeps = Outside::kPortKeeps;
    constexpr Range kParities{1, 4, kPortKeeps, "1 none, 2 even, 3 odd"};
    constexpr Range kStopBits{1, 2, kPortKeeps, "1 or 2"};
    constexpr Range kDataBits{5, 8, kPortKeeps, "5 to 8"};
    constexpr Range kOnOff{1, 2, kPortKeeps, "1 on, 2 off"};
    constexpr Range kSmsLimits{0, kNoLimit, Outside::kFunctionIsLost, "no SMS is ever sent"};
    constexpr Range kPauses{0, kNoLimit, Outside::kTaken, "taken for no pause at all"};
    constexpr Range kPorts{0, 65535, Outside::kDefault};
    constexpr Range kTimeouts{0, 86400, Outside::kDefault};
    constexpr auto kNone = std::nullopt;
    static const std::vector<Setting> settings = {
        {"modemPort",
         "/dev/ttyModem2",
         &modemPort,
         "the modem's AT port; empty: no SMS",
         kNone,
         {{"; PORT = ", 3}}},
        {"speed", 115200, &modem_speed, "speed of the line in baud", kNone, {{"; Speed = ", 5}}},
        {"parity", 1, &modem_parity, "parity", kParities, {{"; Parity = ", 6}}},
        {"stopbit", 1, &modem_stopbit, "stop bits", kStopBits, {{"; Stopbit = ", 7}}},
        {"databit", 8, &modem_databit, "data bits", kDataBits, {{"; Databit = ", 8}}},
        {"flow", 2, &modem_flow, "RTS/CTS", kOnOff, {{"; Flow = ", 9}}},
        {"xflow", 2, &modem_xflow, "XON/XOFF", kOnOff, {{"; SW Flow =", 10}}},
        {"pin", "", &pin, "PIN of the SIM card", kNone, {{"; PIN = ", 4}}},
        {"usePin", false, &usePin, "not used: the PIN is always entered"},
        {"smsc", "", &smsc, "SMS service centre", kNone, {{"SMS center = ", 1}}},
        {"smspeermin", 10, &smspeermin, "most SMS a minute", kSmsLimits, {{" ; SMS peer minut = ", 2}}},
        {"resend_enable", 0, &resend_enable, "1: keep the list of alarms that wait for an acknowledge"},
        {"resend_period1_timeout", 300, &resend_period1_timeout, "seconds", kPauses},
        {"resend_period1_quantity", 5, &resend_period1_quantity, "times"},
        {"resend_period2_timeout", 3600, &resend_period2_timeout, "seconds", kPauses},
        {"resend_period2_quantity", 5, &resend_period2_quantity, "times"},
        {"gps_enable", false, &gps_enable, "read the modem's GPS from `/dev/ttyModem3`"},
        {"tcp_port", 0, &tcp_port, "answer TCP requests on this port of 127.0.0.1; 0: none", kPorts},
        {"tcp_timeout", 15, &tcp_timeout, "seconds after which a silent TCP client is disconnected",
         kTimeouts},
    };
    return settings;
}

const std::vector<ConfigKey>& configKeys() {
    static const std::vector<ConfigKey> keys = {
        {KeyFile::kMain, "pFolder", &pFolder, "folder of the project's files"},
        {KeyFile::kMain, "https_port", &https_port, "port of the server's alarm history on this machine"},
        {KeyFile::kMain, "http_port", &http_port, "kept, not used"},
        {KeyFile::kMain, "binFolder", &binFolder, "the mail client is `binFolder`/ext/msmtp/msmtp"},
        {KeyFile::kMailClient, "from", &mail_from, "the sender of the mails"},
    };
    return keys;
}

bool isMainKey(std::string_view name) {
    return std::any_of(configKeys().begin(), configKeys().end(),
                       [&](const ConfigKey& key) { return key.file == KeyFile::kMain && key.name == name; });
}
