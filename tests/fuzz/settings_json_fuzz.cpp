// settings.json: the modem, the limits, the ports
#include "alarmd/base/json.h"
#include "alarmd/settings/modem_settings.h"
#include "tests/fuzz/world.h"

namespace {

// All that the file sets, as one text.
std::string settings() {
    MutexLock lock(settings_mutex);
    std::string text = modemPort + '\0' + pin + '\0' + smsc + '\0';
    for (const int number :
         {modem_speed.load(), modem_parity.load(), modem_stopbit.load(), modem_databit.load(),
          modem_flow.load(), modem_xflow.load(), smspeermin.load(), resend_period1_timeout,
          resend_period1_quantity, resend_period2_timeout, resend_period2_quantity, tcp_port, tcp_timeout}) {
        text += std::to_string(number) + ' ';
    }
    for (const bool flag : {usePin.load(), resend_enable, gps_enable.load()}) text += flag ? '1' : '0';
    return text;
}

std::string settingsOf(std::string_view content) {
    const fuzz::MemoryFile file(content);
    system_setting = file.path();
    readSMSset();
    return settings();
}

}  // namespace

FUZZ_TARGET(settings_json) {
    const std::string defaults = settingsOf("{}");
    const std::string first = settingsOf(input);
    MUST(tcp_port >= 0 && tcp_port <= 65535);
    MUST(tcp_timeout >= 0 && tcp_timeout <= 86400);

    Json::Value root;
    std::string errors;
    const std::string text(input);
    if (!parseJson(text, root, errors) || !root.isObject()) MUST(first == defaults);

    MUST(settingsOf(input) == first);
    MUST(settingsOf("{}") == defaults);  // nothing is left of an earlier file
}
