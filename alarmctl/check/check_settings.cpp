#include "alarmctl/check/check_settings.h"

#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "alarmctl/check/check_json_text.h"
#include "alarmd/alarmd.h"
#include "alarmd/mail/mail_channel.h"
#include "alarmd/settings/modem_settings.h"
#include "alarmd/settings/setting_table.h"

namespace {

std::string reasonOf(int error) {
    return std::generic_category().message(error);
}

int numberIn(const SettingTarget& target) {
    int number = 0;
    const auto take = [&](const auto* value) {
        if constexpr (!std::is_same_v<decltype(value), const std::string*>) number = *value;
    };
    std::visit(take, target);
    return number;
}

void checkRange(const Setting& setting, const Range& range, Findings& findings) {
    const int value = numberIn(setting.target);
    if (value >= range.least && value <= range.most) return;
    const std::string name = "\"" + std::string(setting.name) + "\" ";
    const std::string below = name + "is below " + std::to_string(range.least) + ": " + range.remark;
    switch (range.outside) {
        case Outside::kDefault:
            break;  // which the loader tells
        case Outside::kPortKeeps:
            findings.warning({system_setting}, "bad-value",
                             name + std::to_string(value) + " means nothing (" + range.remark +
                                 "): the port keeps what it had");
            break;
        case Outside::kTaken:
            findings.warning({system_setting}, "bad-value", below);
            break;
        case Outside::kFunctionIsLost:
            findings.error({system_setting}, "bad-value", below);
            break;
    }
}

// The settings of the port, or the others.
void checkRanges(bool of_port, Findings& findings) {
    for (const Setting& setting : modemSettings()) {
        if (setting.range && (setting.range->outside == Outside::kPortKeeps) == of_port)
            checkRange(setting, *setting.range, findings);
    }
}

void checkSpeed(Findings& findings) {
    termios record{};
    if (modem_speed > 0 && cfsetspeed(&record, static_cast<speed_t>(modem_speed)) == 0) return;
    findings.warning({system_setting}, "bad-value",
                     "\"speed\" " + std::to_string(modem_speed) +
                         " is no speed of a serial line: the port keeps what it had or cannot be set up");
}

void checkTexts(Findings& findings) {
    MutexLock lock(settings_mutex);
    if (modemPort.empty())
        findings.warning({system_setting}, "no-modem", "\"modemPort\" is empty: no SMS is sent or received");
    if (usePin && pin.empty())
        findings.warning({system_setting}, "no-pin",
                         "\"usePin\" is true and \"pin\" is empty: an empty PIN is entered");
    if (!usePin && !pin.empty())
        findings.note({system_setting}, "pin-used",
                      "\"usePin\" is false, but the PIN is entered all the same");
}

void checkMembers(const Json::Value& root, Findings& findings) {
    if (!root.isObject()) return;
    const Json::Value& network = root[kNetwork];
    const Json::Value& modem = network.isObject() ? network[kModem] : Json::Value::nullSingleton();
    if (modem.isNull()) {
        findings.note({system_setting}, "no-settings",
                      "has no \"network\" / \"modem\": all settings have their defaults");
        return;
    }
    if (!modem.isObject()) return;  // which the loader tells
    std::vector<std::string_view> names;
    for (const Setting& setting : modemSettings()) names.emplace_back(setting.name);
    UnreadKeys unread(std::move(names));
    unread.look(modem, {system_setting});
    unread.tell(findings);
}

std::string portName() {
    MutexLock lock(settings_mutex);
    return modemPort;
}

void checkPort(const std::string& device, const char* consequence, Findings& findings) {
    const Place place{device};
    struct stat info;
    if (stat(device.c_str(), &info) != 0) {
        findings.error(place, "no-device",
                       "is not there (" + reasonOf(errno) + "): " + consequence + " until it is");
    } else if (!S_ISCHR(info.st_mode)) {
        findings.error(place, "no-device", std::string("is no serial port: ") + consequence);
    } else if (access(device.c_str(), R_OK | W_OK) != 0) {
        findings.error(place, "no-permission",
                       "may not be opened by this user (" + reasonOf(errno) + "; the group dialout may): " +
                           consequence + " while the daemon runs as this user");
    } else {
        findings.lookedAt(device);
    }
}

void checkMailClient(Findings& findings) {
    const std::string client = mailClientPath();
    struct stat info;
    if (stat(client.c_str(), &info) != 0) {
        findings.error(
            {client}, "no-mail-client",
            "is not there (" + reasonOf(errno) + "): no mail is sent (a link to /usr/bin/msmtp will do)");
    } else if (!S_ISREG(info.st_mode) || access(client.c_str(), X_OK) != 0) {
        findings.error({client}, "no-mail-client", "is no program that may be run: no mail is sent");
    } else {
        findings.lookedAt(client);
    }
}

}  // namespace

void checkModemSettings(Findings& findings) {
    Json::Value root;
    // The loader told of an unreadable file on standard output only.
    const bool there = access(system_setting.c_str(), F_OK) == 0;
    if (parseForCheck(system_setting, there ? Severity::kError : Severity::kWarning,
                      "all settings have their defaults", findings, root))
        checkMembers(root, findings);
    checkRanges(true, findings);
    checkSpeed(findings);
    checkRanges(false, findings);
    checkTexts(findings);
}

void checkMachine(Findings& findings) {
    const std::string device = portName();
    if (!device.empty()) checkPort(device, "no SMS is sent or received", findings);
    if (gps_enable) checkPort(kGpsPort, "there is no position", findings);
    checkMailClient(findings);
}
