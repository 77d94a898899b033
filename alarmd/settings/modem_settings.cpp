#include "alarmd/settings/modem_settings.h"

#include <string>
#include <utility>
#include <variant>

#include "alarmd/alarmd.h"
#include "alarmd/base/complaint.h"
#include "alarmd/base/files.h"
#include "alarmd/base/json.h"
#include "knihovny/debugerror.h"

namespace {

constexpr int kHighestPort = 65535;
constexpr int kLongestTimeout = 86400;

// Collected here and then handed to the other threads in one go, so that none sees the defaults in between.
struct ModemSettings {
    std::string port = "/dev/ttyModem2";
    int speed = 115200;
    int parity = 1;
    int stopbit = 1;
    int databit = 8;
    int flow = 2;
    int xflow = 2;
    std::string pin_code;
    bool use_pin = false;
    std::string centre;
    int per_minute = 10;
    int resend = 0;
    int period1_timeout = 300;
    int period1_quantity = 5;
    int period2_timeout = 3600;
    int period2_quantity = 5;
    bool gps = false;
    int request_port = 0;
    int request_timeout = 15;
};

struct Key {
    const char* name;
    std::variant<std::string ModemSettings::*, int ModemSettings::*, bool ModemSettings::*> member;
};

const Key kKeys[] = {
    {"modemPort", &ModemSettings::port},
    {"speed", &ModemSettings::speed},
    {"parity", &ModemSettings::parity},
    {"stopbit", &ModemSettings::stopbit},
    {"databit", &ModemSettings::databit},
    {"flow", &ModemSettings::flow},
    {"xflow", &ModemSettings::xflow},
    {"pin", &ModemSettings::pin_code},
    {"usePin", &ModemSettings::use_pin},
    {"smsc", &ModemSettings::centre},
    {"smspeermin", &ModemSettings::per_minute},
    {"resend_enable", &ModemSettings::resend},
    {"resend_period1_timeout", &ModemSettings::period1_timeout},
    {"resend_period1_quantity", &ModemSettings::period1_quantity},
    {"resend_period2_timeout", &ModemSettings::period2_timeout},
    {"resend_period2_quantity", &ModemSettings::period2_quantity},
    {"gps_enable", &ModemSettings::gps},
    {"tcp_port", &ModemSettings::request_port},
    {"tcp_timeout", &ModemSettings::request_timeout},
};

void complainOfMember(ComplaintCode code, const std::string& name, const std::string& reason) {
    complain({code, system_setting, "\"" + name + "\" is ignored: " + reason});
}

void convert(const Json::Value& value, std::string& target) {
    target = value.asString();
}
void convert(const Json::Value& value, int& target) {
    target = value.asInt();
}
void convert(const Json::Value& value, bool& target) {
    target = value.asBool();
}

void takeKey(const Key& key, const Json::Value& value, ModemSettings& settings) {
    if (value.isNull()) return;
    try {
        std::visit([&](auto member) { convert(value, settings.*member); }, key.member);
    } catch (const Json::Exception& error) {
        complainOfMember(ComplaintCode::kWrongType, key.name, error.what());
    }
}

// The member called name; null when there is none or when it is no object.
Json::Value objectIn(const Json::Value& parent, const char* name) {
    const Json::Value& member = parent[name];
    if (member.isObject() || member.isNull()) return member;
    complainOfMember(ComplaintCode::kWrongShape, name, "not an object");
    return Json::Value();
}

void keepInRange(const char* name, int most, int otherwise, int& value) {
    if (value >= 0 && value <= most) return;
    complainOfMember(ComplaintCode::kOutOfRange, name, "out of range");
    value = otherwise;
}

void takeAll(const Json::Value& root, ModemSettings& settings) {
    if (!root.isObject() && !root.isNull()) {
        complain({ComplaintCode::kWrongShape, system_setting,
                  "the document is not an object, nothing is taken from it"});
        return;
    }
    const Json::Value modem = objectIn(objectIn(root, "network"), "modem");
    for (const Key& key : kKeys) takeKey(key, modem[key.name], settings);
    const ModemSettings defaults;
    keepInRange("tcp_port", kHighestPort, defaults.request_port, settings.request_port);
    keepInRange("tcp_timeout", kLongestTimeout, defaults.request_timeout, settings.request_timeout);
}

void publish(const ModemSettings& settings) {
    {
        MutexLock lock(settings_mutex);
        modemPort = settings.port;
        pin = settings.pin_code;
        smsc = settings.centre;
    }
    modem_speed = settings.speed;
    modem_parity = settings.parity;
    modem_stopbit = settings.stopbit;
    modem_databit = settings.databit;
    modem_flow = settings.flow;
    modem_xflow = settings.xflow;
    usePin = settings.use_pin;
    smspeermin = settings.per_minute;
    resend_enable = settings.resend != 0;
    resend_period1_timeout = settings.period1_timeout;
    resend_period1_quantity = settings.period1_quantity;
    resend_period2_timeout = settings.period2_timeout;
    resend_period2_quantity = settings.period2_quantity;
    gps_enable = settings.gps;
    tcp_port = settings.request_port;
    tcp_timeout = settings.request_timeout;
}

void printSummary(const ModemSettings& settings) {
    PrintLine("SMS Setting: SMS center = ", settings.centre, " ; SMS peer minut = ", settings.per_minute,
              "; PORT = ", settings.port, "; PIN = ", settings.pin_code, "; Speed = ", settings.speed,
              "; Parity = ", settings.parity, "; Stopbit = ", settings.stopbit,
              "; Databit = ", settings.databit, "; Flow = ", settings.flow, "; SW Flow =", settings.xflow);
}

// What is off unless the settings switch it on.
void printSwitchedOn(const ModemSettings& settings) {
    if (settings.gps) PrintLine("GPS is switched on");
    if (settings.request_port != 0) {
        PrintLine("TCP requests are switched on: 127.0.0.1:", settings.request_port, ", timeout ",
                  settings.request_timeout, " s");
    }
}

}  // namespace

std::vector<std::string_view> modemSettingNames() {
    std::vector<std::string_view> names;
    for (const Key& key : kKeys) names.emplace_back(key.name);
    return names;
}

void readSMSset() {
    PrintLine("Nacitam settings.json");
    ModemSettings settings;
    std::string text;
    std::string errors;
    Json::Value root;
    readWholeFile(system_setting, text);
    if (parseJson(text, root, errors)) {
        takeAll(root, settings);
    } else {
        complain({ComplaintCode::kNotJson, system_setting, "Failed to parse settings.json\n" + errors,
                  faultLine(errors)});
    }
    publish(settings);
    printSummary(settings);
    printSwitchedOn(settings);
}
