#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "alarmctl/commands.h"
#include "alarmctl/daemon/daemon_answers.h"
#include "alarmctl/daemon/fcgi_client.h"
#include "alarmd/base/json.h"
#include "alarmd/requests/fcgi_responder.h"

namespace {

enum Protocol {
    kSendSms = 50,
    kStatus = 51,
    kGpsRaw = 52,
    kGps = 53,
    kLastSms = 54,
    kNotificationsOff = 55,
    kNotificationsOn = 56,
};

constexpr double kDefaultTimeout = 10;  // seconds; the daemon itself gives a client so long
constexpr int64_t kOldFix = 60;         // seconds after which a position is called old
constexpr size_t kMostDigits = 15;      // of an international number (E.164)

// What the options of a command say.
struct Options {
    int port = kFcgiPort;
    double timeout = kDefaultTimeout;
    bool json = false;
    bool raw = false;
    std::string number, text, state;
};

int fail(const std::string& reason) {
    fprintf(stderr, "alarmctl: %s\n", printable(validUtf8(reason)).c_str());
    return kFailed;
}

// ---- tables

using Rows = std::vector<std::pair<std::string, std::string>>;

// The characters of a UTF-8 text.
size_t characters(const std::string& text) {
    size_t count = 0;
    for (const char c : text) count += (static_cast<unsigned char>(c) & 0xc0) != 0x80;
    return count;
}

void printRows(const Rows& rows) {
    size_t width = 0;
    for (const auto& [name, value] : rows) width = std::max(width, characters(name));
    for (const auto& [name, value] : rows) {
        const std::string gap(width - characters(name) + 2, ' ');
        printf("%s%s%s\n", name.c_str(), gap.c_str(), printable(value).c_str());
    }
}

std::string ageText(int64_t seconds) {
    struct Unit {
        int64_t seconds;
        const char* name;
    };
    constexpr Unit kUnits[] = {{86400, "d"}, {3600, "h"}, {60, "min"}, {1, "s"}};
    if (seconds < 0) return "ahead of the clock of this machine";
    for (const auto& unit : kUnits) {
        if (seconds >= unit.seconds) return std::to_string(seconds / unit.seconds) + " " + unit.name + " ago";
    }
    return "now";
}

// Seconds since 1970 as local time, with their age.
std::string timeText(int64_t seconds) {
    const auto moment = static_cast<time_t>(seconds);
    tm local = {};
    char text[64];
    if (localtime_r(&moment, &local) == nullptr ||
        strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %Z", &local) == 0) {
        return std::to_string(seconds);
    }
    return std::string(text) + " (" + ageText(time(nullptr) - seconds) + ")";
}

// ---- requests

// Asks the daemon. When it has answered, answer holds what it said, also when that is a refusal; otherwise
// the reason has been told.
bool ask(const Options& options, Json::Value request, int protocol, Json::Value& answer) {
    request["t"] = protocol;
    const std::chrono::milliseconds limit(std::lround(options.timeout * 1000));
    const FcgiReply reply = askResponder(options.port, writeJson(request), limit);
    if (!reply.error.empty()) {
        fail(reply.error);
        return false;
    }
    if (reply.body.empty()) {
        fail("the daemon gave no answer: it is about to stop, or does not know the request");
        return false;
    }
    auto read = readAnswer(protocol, reply.body);
    if (!read) {
        fail("the daemon's answer is not understood");
        return false;
    }
    answer = std::move(*read);
    return true;
}

bool granted(const Json::Value& answer) {
    return answer["s"] == 1;
}

int failRefused(const Json::Value& answer) {
    return fail("the daemon refuses: " + answer.get("err", "no reason given").asString());
}

// Asks for protocol; shows the answer with show, or as JSON when that is wanted.
template <class Show>
int askAndShow(const Options& options, const Json::Value& request, int protocol, Show show) {
    Json::Value answer;
    if (!ask(options, request, protocol, answer)) return kFailed;
    if (options.json) fputs(writeJson(answer).c_str(), stdout);
    if (!granted(answer)) return failRefused(answer);
    if (!options.json) show(answer["d"]);
    return kFine;
}

// ---- status

struct Label {
    const char* member;
    const char* label;
};

constexpr Label kStatusLabels[] = {
    {"TYPE", "Modem type"},
    {"IMEI", "IMEI"},
    {"CSQ", "Signal (CSQ)"},
    {"COPS", "Operator (COPS)"},
    {"CREG", "Registration (CREG)"},
    {"SYSCFG", "System configuration (SYSCFG)"},
    {"SYSCFGEX", "System configuration (SYSCFGEX)"},
    {"CARDLOCK", "SIM lock (CARDLOCK)"},
    {"SYSINFO", "System information (SYSINFO)"},
    {"SYSINFOEX", "System information (SYSINFOEX)"},
    {"CGPADDR", "IP address (CGPADDR)"},
    {"CGEQNEG", "Quality of service (CGEQNEG)"},
};

void showStatus(const Json::Value& data) {
    Rows rows;
    for (const auto& [member, label] : kStatusLabels) {
        const std::string value = data[member].asString();
        // The modem's type is 0 until it is known.
        if (!value.empty() && !(value == "0" && std::string(member) == "TYPE"))
            rows.emplace_back(label, value);
    }
    rows.emplace_back("SMS count",
                      data["SMSCOUNT"].asString() + " handed to the modem since the daemon's start");
    const int64_t updated = atoll(data["UPDATED"].asCString());
    if (updated != 0) rows.emplace_back("Values of", timeText(updated));
    printRows(rows);
}

int runStatus(const Options& options) {
    return askAndShow(options, Json::objectValue, kStatus, showStatus);
}

// ---- sms

// The number as the modem takes it, without blanks and hyphens; empty when it is none.
std::string plainNumber(const std::string& written) {
    std::string number;
    for (const char c : written) {
        if (c != ' ' && c != '-') number += c;
    }
    const std::string digits = number.substr(number.rfind('+', 0) == 0 ? 1 : 0);
    const bool international = digits.size() < number.size();
    const bool right = !digits.empty() && digits.size() <= kMostDigits &&
                       digits.find_first_not_of("0123456789") == std::string::npos &&
                       !(international && digits[0] == '0');
    return right ? number : "";
}

int runSms(const Options& options) {
    const std::string number = plainNumber(options.number);
    if (number.empty()) {
        return fail("\"" + options.number +
                    "\" is no phone number: up to 15 digits, as +420601000001 or 601000001");
    }
    if (options.text.find_first_not_of(" \t\r\n") == std::string::npos) return fail("the text is empty");
    if (validUtf8(options.text) != options.text) return fail("the text is no valid UTF-8");
    Json::Value request;
    request["number"] = number;
    request["text"] = options.text;
    return askAndShow(options, request, kSendSms, [&](const Json::Value&) {
        printf("queued for %s\n", number.c_str());
        printf("The daemon's log tells whether the modem took it: SMS SEND OK or SMS SEND FAIL.\n");
    });
}

// ---- last-sms

void showLastSms(const Json::Value& data) {
    const int64_t received = data["Timestamp"].asInt64();
    if (received == 0) {
        printf("No SMS has come in since the daemon's start.\n");
        return;
    }
    printRows({{"Received", timeText(received)},
               {"From", data["From"].asString()},
               {"Text", data["Text"].asString()}});
}

int runLastSms(const Options& options) {
    return askAndShow(options, Json::objectValue, kLastSms, showLastSms);
}

// ---- gps

void addRow(Rows& rows, const char* name, const std::string& value, const char* unit) {
    if (!value.empty()) rows.emplace_back(name, value + unit);
}

void showGps(const Json::Value& data) {
    const GpsReport report = readGps(data);
    Rows rows;
    if (report.fix) {
        char degrees[64];
        snprintf(degrees, sizeof degrees, "%.6f, %.6f", *report.north, *report.east);
        rows.emplace_back("Position", report.latitude + "  " + report.longitude);
        rows.emplace_back("Degrees", degrees);
    } else {
        rows.emplace_back("Position", "none: the receiver has no fix");
    }
    addRow(rows, "Altitude", report.altitude, " m");
    addRow(rows, "Speed", report.knots, " kn");
    if (!report.knots.empty() && !report.kilometres.empty()) {
        rows.back().second += " (" + report.kilometres + " km/h)";
    }
    addRow(rows, "Course", report.course, "°");
    addRow(rows, "Satellites", report.satellites_used, " used");
    if (!report.satellites_used.empty() && !report.satellites_in_view.empty()) {
        rows.back().second += ", " + report.satellites_in_view + " in view";
    }
    if (report.time) rows.emplace_back("Fix time", timeText(*report.time));
    printRows(rows);
    if (report.time && time(nullptr) - *report.time > kOldFix) {
        fprintf(stderr, "alarmctl: the position is old: is the receiver still there?\n");
    }
}

void showSentences(const Json::Value& data) {
    for (const char* const kind : {"GGA", "GSA", "RMC", "VTG"}) {
        const std::string sentence = data[kind].asString();
        if (!sentence.empty()) printf("%s\n", printable(sentence).c_str());
    }
    for (const Json::Value& sentence : data["GSV"]) printf("%s\n", printable(sentence.asString()).c_str());
}

// The daemon refuses parsed values for one of two reasons; the raw ones are refused for one of them only.
int failNoPosition(const Options& options) {
    Json::Value raw;
    if (!ask(options, Json::objectValue, kGpsRaw, raw)) return kFailed;
    if (!granted(raw)) return fail("GPS is disabled (gps_enable in /etc/korvato/settings.json)");
    for (const char* const kind : {"GGA", "GSA", "RMC", "VTG"}) {
        if (raw["d"][kind].asString().empty())
            return fail("GPS is enabled, but the receiver has not said everything yet");
    }
    return fail("GPS is enabled, but checksums of its sentences are wrong (see them with --raw)");
}

int runGps(const Options& options) {
    Json::Value answer;
    if (!ask(options, Json::objectValue, options.raw ? kGpsRaw : kGps, answer)) return kFailed;
    if (options.json) fputs(writeJson(answer).c_str(), stdout);
    if (!granted(answer)) return failNoPosition(options);
    if (options.json) return kFine;
    if (options.raw) {
        showSentences(answer["d"]);
    } else {
        showGps(answer["d"]);
    }
    return kFine;
}

// ---- notifications

int runNotifications(const Options& options) {
    const bool on = options.state == "on";
    return askAndShow(
        options, Json::objectValue, on ? kNotificationsOn : kNotificationsOff, [&](const Json::Value&) {
            printf(on ? "Notifications are on.\n"
                      : "Notifications are off: alarms make neither mails nor SMS until they are "
                        "switched on, or the daemon is restarted.\n");
        });
}

// ---- command line

CLI::App* addCommand(CLI::App& app, const char* name, const char* description, const char* examples,
                     const std::shared_ptr<Options>& options, int& status, int (*run)(const Options&)) {
    CLI::App* const command = app.add_subcommand(name, description);
    command->group("Talking to the running daemon");
    command->footer(std::string("Examples:\n") + examples);
    command->add_flag("--json", options->json, "Print the daemon's answer as JSON");
    command->add_option("--timeout", options->timeout, "Give up after so many seconds")
        ->option_text("SECONDS [10]")
        ->check(CLI::Range(0.01, 3600.0).description(""));
    command->add_option("--port", options->port, "Port of the daemon on 127.0.0.1")
        ->option_text("N [11032]")
        ->check(CLI::Range(1, 65535).description(""));
    command->callback([options, &status, run] { status = run(*options); });
    return command;
}

}  // namespace

void addDaemonCommands(CLI::App& app, int& status) {
    const auto add = [&](const char* name, const char* description, const char* examples,
                         int (*run)(const Options&)) {
        const auto options = std::make_shared<Options>();
        return std::pair(addCommand(app, name, description, examples, options, status, run), options);
    };

    add("status", "Show what the daemon knows of the modem, and its count of SMS",
        "  alarmctl status\n  alarmctl status --json", runStatus);

    const auto [sms, message] = add(
        "sms", "Send an SMS. The daemon takes it into its queue; it goes also while notifications are off",
        "  alarmctl sms +420601000001 \"Pump 3 is off\"\n"
        "  alarmctl sms 601000001 -- \"-5 degrees in the hall\"",
        runSms);
    sms->add_option("NUMBER", message->number, "Phone number, as +420601000001 or 601000001")
        ->required()
        ->option_text(" ");
    sms->add_option("TEXT", message->text, "The message, one argument")->required()->option_text(" ");

    add("last-sms", "Show the last SMS that came in, from whoever it came",
        "  alarmctl last-sms\n  alarmctl last-sms --json", runLastSms);

    const auto [gps, gps_options] =
        add("gps", "Show the position", "  alarmctl gps\n  alarmctl gps --raw", runGps);
    gps->add_flag("--raw", gps_options->raw, "The sentences as the receiver said them");

    const auto [notifications, wanted] =
        add("notifications", "Switch the mails and SMS of alarms on or off; they are on after each start",
            "  alarmctl notifications off\n  alarmctl notifications on", runNotifications);
    notifications->add_option("STATE", wanted->state, "on or off")
        ->required()
        ->option_text(" ")
        ->check(CLI::IsMember({"on", "off"}).description(""));
}
