#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <string>

#include "alarmctl/check/check.h"
#include "alarmctl/check/check_config.h"
#include "alarmctl/check/check_loaders.h"
#include "alarmctl/commands.h"
#include "alarmctl/daemon/daemon_answers.h"
#include "alarmctl/explain/explain.h"
#include "alarmctl/explain/explain_forms.h"
#include "alarmctl/text/sms_length.h"
#include "alarmd/alarmd.h"
#include "alarmd/base/json.h"
#include "alarmd/notify/event.h"

namespace {

constexpr size_t kShownOfEach = 10;  // findings of one code in one file

constexpr char kCheckExamples[] =
    "Examples:\n"
    "  alarmctl check -c /etc/korvato/korvato.conf -m /etc/korvato/msmtp.conf -s /etc/korvato/sms.conf\n"
    "  alarmctl check --files-only        a project for another machine, in its folder\n"
    "  alarmctl check --json | jq .       for programs\n"
    "Exit status: 0 nothing but notes, 1 warnings, 2 errors.";

constexpr char kExplainExamples[] =
    "Examples:\n"
    "  alarmctl explain 101 -c /etc/korvato/korvato.conf -m /etc/korvato/msmtp.conf\n"
    "  alarmctl explain 101 --state acknowledged --user \"Jana Nováková\"\n"
    "  alarmctl explain 101 --html alarm.html && xdg-open alarm.html\n"
    "  alarmctl explain 101 --mail | msmtp -C msmtp.conf -a korvato me@example.com\n"
    "The mail shown is that of the first user who has an address, or of --user. Its times are now and its\n"
    "values 0. Exit status: 0 somebody hears of the alarm, 1 nobody does, 2 error.";

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

struct ExplainOptions {
    Question question;
    std::string state = ruleOf(kActivated).name;
    std::string html;
    bool mail = false;
    bool json = false;
};

int fail(const std::string& reason) {
    fprintf(stderr, "alarmctl: %s\n", printable(wellFormed(reason)).c_str());
    return kFailed;
}

// Loads the project; the reason why that does not work, else an empty text.
std::string loadProject() {
    Findings findings;
    if (!mainFileIsReadable(findings)) return conf_file + ": " + findings.sorted().front().text;
    const std::vector<Complaint> complaints = loadAll();
    const Complaint* end = lastWords(complaints);
    return end == nullptr ? "" : "the daemon would not start: alarmd: " + describe(*end);
}

int writeHtml(const std::string& path, const std::string& html) {
    std::ofstream file(path, std::ios::binary);
    file << html;
    file.close();
    return file ? kFine : fail(path + ": " + strerror(errno));
}

int showExplanation(const ExplainOptions& options, const Explanation& explanation) {
    const bool mail_wanted = options.mail || !options.html.empty();
    if (mail_wanted && explanation.mails.empty()) return fail("nobody gets a mail: " + explanation.no_mail);
    if (!options.html.empty()) {
        const int status = writeHtml(options.html, mailBody(explanation, shownMail(explanation)));
        if (status != kFine) return status;
    }
    if (options.mail) {
        const std::string message = mailMessage(explanation, shownMail(explanation));
        fwrite(message.data(), 1, message.size(), stdout);
    } else if (options.json) {
        fputs(writeJson(explanationJson(explanation)).c_str(), stdout);
    } else {
        fputs(explanationText(explanation).c_str(), stdout);
    }
    return explanation.mails.empty() && explanation.messages.empty() ? kWarnings : kFine;
}

int runExplain(const ExplainOptions& options) {
    const std::string trouble = loadProject();
    if (!trouble.empty()) return fail(trouble);
    Question question = options.question;
    for (const int state : {kDeactivated, kAcknowledged}) {
        if (options.state == ruleOf(state).name) question.state = state;
    }
    if (access(msmtp_conf_file.c_str(), R_OK) != 0)
        fail(msmtp_conf_file + ": " + strerror(errno) + ", so the mails name no sender");
    const Explanation explanation = explain(question, time(nullptr));
    const std::string number = std::to_string(options.question.id);
    if (!explanation.known)
        return fail("there is no definition with the id " + number + ": nobody hears of it");
    if (!explanation.user_found)
        return fail("there is no user " + inQuotes(options.question.user) +
                    " among those who are told of alarms");
    return showExplanation(options, explanation);
}

void addExplain(CLI::App& app, int& status) {
    const auto options = std::make_shared<ExplainOptions>();
    Question& question = options->question;
    CLI::App* command =
        app.add_subcommand("explain", "Tells who hears of an alarm, by mail and by SMS, and what exactly");
    command->add_option("ID", question.id, "the alarm")->required();
    addFileOptions(*command);
    command->add_option("--state", options->state, "what has happened to it")
        ->check(CLI::IsMember({"activated", "deactivated", "acknowledged"}))
        ->capture_default_str();
    command->add_option("--user", question.user, "only this user: name, address, number or id");
    CLI::Option* mail = command->add_flag("--mail", options->mail, "the exact mail and nothing else");
    command->add_option("--html", options->html, "write the mail's HTML into this file");
    command->add_flag("--json", options->json, "one JSON object")->excludes(mail);
    command->footer(kExplainExamples);
    command->callback([options, &status] { status = runExplain(*options); });
}

}  // namespace

void addProjectCommands(CLI::App& app, int& status) {
    system_setting = "/etc/korvato/settings.json";
    addCheck(app, status);
    addExplain(app, status);
}
