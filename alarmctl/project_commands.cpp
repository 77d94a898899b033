#include <cstdio>
#include <memory>
#include <string>

#include "alarmctl/check.h"
#include "alarmctl/commands.h"
#include "alarmd/alarmd.h"
#include "alarmd/json_reader.h"

namespace {

constexpr size_t kShownOfEach = 10;  // findings of one code in one file

constexpr char kCheckExamples[] =
    "Examples:\n"
    "  alarmctl check -c /etc/korvato/korvato.conf -m /etc/korvato/msmtp.conf -s /etc/korvato/sms.conf\n"
    "  alarmctl check --files-only        a project for another machine, in its folder\n"
    "  alarmctl check --json | jq .       for programs\n"
    "Exit status: 0 nothing but notes, 1 warnings, 2 errors.";

struct CheckOptions {
    bool files_only = false;
    bool all = false;
    bool json = false;
};

// The files that both commands read. Their defaults are the daemon's.
void addFileOptions(CLI::App& command) {
    command.add_option("-c,--config", conf_file, "the daemon's main configuration file")
        ->capture_default_str();
    command.add_option("-m,--mail-config", msmtp_conf_file, "configuration of the mail client")
        ->capture_default_str();
}

int statusOf(const CheckReport& report) {
    if (report.findings.count(Severity::kError) > 0) return kFailed;
    return report.findings.count(Severity::kWarning) > 0 ? kWarnings : kFine;
}

int runCheck(const CheckOptions& options) {
    const CheckReport report = checkAll(!options.files_only);
    if (options.json) {
        Json::Value json = report.findings.json();
        json["starts"] = report.starts;
        json["loaded"]["alarms"] = Json::UInt64(report.loaded.alarms);
        json["loaded"]["users"] = Json::UInt64(report.loaded.users);
        json["loaded"]["groups"] = Json::UInt64(report.loaded.groups);
        fputs(writeJson(json).c_str(), stdout);
    } else {
        const std::string text = report.findings.text(options.all ? 0 : kShownOfEach);
        printf("%s%s\n", text.c_str(), summaryOf(report).c_str());
    }
    return statusOf(report);
}

void addCheck(CLI::App& app, int& status) {
    const auto options = std::make_shared<CheckOptions>();
    CLI::App* command = app.add_subcommand(
        "check", "Reads all files as the daemon would and tells what it would skip, drop or end at");
    addFileOptions(*command);
    command->add_option("-s,--sms-config", sms_conf_file, "SMS configuration")->capture_default_str();
    command->add_option("--settings", system_setting, "modem settings")->capture_default_str();
    command->add_flag("--files-only", options->files_only,
                      "leave out this machine's devices and its mail client");
    command->add_flag("--all", options->all,
                      "show all findings, not only the first ten of each code in a file");
    command->add_flag("--json", options->json, "one JSON object, with all findings");
    command->footer(kCheckExamples);
    command->callback([options, &status] { status = runCheck(*options); });
}

}  // namespace

void addProjectCommands(CLI::App& app, int& status) {
    system_setting = "/etc/korvato/settings.json";
    addCheck(app, status);
}
