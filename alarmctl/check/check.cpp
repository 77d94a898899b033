#include "alarmctl/check/check.h"

#include "alarmctl/check/check_config.h"
#include "alarmctl/check/check_loaders.h"
#include "alarmctl/check/check_project.h"
#include "alarmctl/check/check_settings.h"
#include "alarmd/alarmd.h"
#include "alarmd/settings/modem_settings.h"

namespace {

void checkFiles(CheckReport& report, AlarmPlaces& places) {
    const Silence silence;
    Findings& findings = report.findings;
    checkPresence(findings);
    checkGroups(findings);
    checkDefinitions(findings, places);
    checkProjectId(findings);
    checkUsers(findings);
}

// What the daemon itself says of the files. Only then can they be loaded into this process.
void takeOutcome(const LoaderOutcome& outcome, CheckReport& report) {
    report.starts = outcome.survived;
    for (size_t i = 0; i < outcome.complaints.size(); ++i) {
        const bool last_words = !outcome.survived && i + 1 == outcome.complaints.size();
        const Finding finding = findingFrom(outcome.complaints[i], last_words);
        // What cannot be opened is told with its consequence by the check of the file.
        if (finding.code != "unreadable") report.findings.add(finding);
    }
}

}  // namespace

CheckReport checkAll(bool machine) {
    CheckReport report;
    loadConfiguration();
    if (!checkConfiguration(report.findings)) return report;
    LoaderRun loaders;
    AlarmPlaces places;
    checkFiles(report, places);
    takeOutcome(loaders.outcome(), report);
    if (report.starts) {
        loadAll();
        report.loaded = checkNotifications(places, report.findings);
    } else {
        const Silence silence;
        readSMSset();
    }
    checkModemSettings(report.findings);
    if (machine) checkMachine(report.findings);
    return report;
}

std::string summaryOf(const CheckReport& report) {
    const Findings& findings = report.findings;
    std::string text = counted(findings.count(Severity::kError), "error") + ", " +
                       counted(findings.count(Severity::kWarning), "warning") + ", " +
                       counted(findings.count(Severity::kNote), "note") + " in " +
                       counted(findings.files().size(), "file") + ": ";
    if (!report.starts) return text + "the daemon would not start";
    return text + "the daemon would start; " + counted(report.loaded.alarms, "alarm") + ", " +
           counted(report.loaded.users, "user") + ", " + counted(report.loaded.groups, "group") +
           " are in use";
}
