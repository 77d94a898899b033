#include "alarmd/settings/modem_settings.h"

#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "alarmd/alarmd.h"
#include "alarmd/base/complaint.h"
#include "alarmd/base/files.h"
#include "alarmd/base/json.h"
#include "alarmd/settings/setting_table.h"
#include "knihovny/debugerror.h"

namespace {

// By place in the table. Collected here and then handed to the other threads in one go, so that none sees the
// defaults in between.
using SettingValues = std::vector<SettingValue>;

SettingValues defaults() {
    SettingValues values;
    for (const Setting& setting : modemSettings()) values.push_back(setting.preset);
    return values;
}

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

void takeMember(const Setting& setting, const Json::Value& member, SettingValue& value) {
    if (member.isNull()) return;
    try {
        std::visit([&](auto& target) { convert(member, target); }, value);
    } catch (const Json::Exception& error) {
        complainOfMember(ComplaintCode::kWrongType, setting.name, error.what());
    }
}

// The member called name; null when there is none or when it is no object.
Json::Value objectIn(const Json::Value& parent, const char* name) {
    const Json::Value& member = parent[name];
    if (member.isObject() || member.isNull()) return member;
    complainOfMember(ComplaintCode::kWrongShape, name, "not an object");
    return Json::Value();
}

void keepInRange(const Setting& setting, SettingValue& value) {
    if (!setting.range || setting.range->outside != Outside::kDefault) return;
    const int number = std::get<int>(value);
    if (number >= setting.range->least && number <= setting.range->most) return;
    complainOfMember(ComplaintCode::kOutOfRange, setting.name, "out of range");
    value = setting.preset;
}

void takeAll(const Json::Value& root, SettingValues& values) {
    if (!root.isObject() && !root.isNull()) {
        complain({ComplaintCode::kWrongShape, system_setting,
                  "the document is not an object, nothing is taken from it"});
        return;
    }
    const Json::Value modem = objectIn(objectIn(root, kNetwork), kModem);
    const std::vector<Setting>& settings = modemSettings();
    for (size_t i = 0; i < settings.size(); ++i) takeMember(settings[i], modem[settings[i].name], values[i]);
    for (size_t i = 0; i < settings.size(); ++i) keepInRange(settings[i], values[i]);
}

void publish(const SettingValues& values) {
    const auto assign = [](auto* target, const auto& value) {
        constexpr bool kText = std::is_same_v<decltype(value), const std::string&>;
        if constexpr (std::is_same_v<decltype(target), std::string*> == kText) *target = value;
    };
    MutexLock lock(settings_mutex);
    for (size_t i = 0; i < values.size(); ++i) std::visit(assign, modemSettings()[i].target, values[i]);
}

void printSummary(const SettingValues& values) {
    std::vector<std::string> parts(values.size());
    for (size_t i = 0; i < values.size(); ++i) {
        const std::optional<SummaryPart>& summary = modemSettings()[i].summary;
        if (!summary) continue;
        std::string& part = parts[summary->place - 1];
        part = summary->label;
        std::visit([&](const auto& value) { AppendPart(part, value); }, values[i]);
    }
    std::string line = "SMS Setting: ";
    for (const std::string& part : parts) line += part;
    PrintLine(line);
}

// What is off unless the settings switch it on.
void printSwitchedOn() {
    if (gps_enable) PrintLine("GPS is switched on");
    if (tcp_port != 0) {
        PrintLine("TCP requests are switched on: 127.0.0.1:", tcp_port, ", timeout ", tcp_timeout, " s");
    }
}

}  // namespace

void readSMSset() {
    PrintLine("Nacitam settings.json");
    SettingValues values = defaults();
    std::string text;
    std::string errors;
    Json::Value root;
    readWholeFile(system_setting, text);
    if (parseJson(text, root, errors)) {
        takeAll(root, values);
    } else {
        complain({ComplaintCode::kNotJson, system_setting, "Failed to parse settings.json\n" + errors,
                  faultLine(errors)});
    }
    publish(values);
    printSummary(values);
    printSwitchedOn();
}
