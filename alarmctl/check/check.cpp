#include "alarmctl/check/check.h"

#include "alarmctl/check/check_config.h"
#include "alarmctl/check/check_loaders.h"
#include "alarmctl/check/check_project.h"
#include "alarmctl/check/check_settings.h"

namespace {

void checkFiles(Findings& findings, AlarmPlaces& places) {
    checkPresence(findings);
    checkGroups(findings);
    checkDefinitions(findings, places);
    checkProjectId(findings);
    checkUsers(findings);
}

// What the daemon itself says of the files.
void takeComplaints(const std::vector<Complaint>& complaints, Findings& findings) {
    for (const Complaint& complaint : complaints) {
        // These are told with their consequence by the check of the file.
        const bool told =
            complaint.code == ComplaintCode::kUnreadable || complaint.code == ComplaintCode::kNotJson;
        if (!told) findings.add(findingFrom(complaint));
    }
}

}  // namespace

CheckReport checkAll(bool machine) {
    CheckReport report;
    loadConfiguration();
    if (!checkConfiguration(report.findings)) return report;
    AlarmPlaces places;
    // What the readers that are shared with the loaders complain of, the loaders will.
    complaintsOf([&] { checkFiles(report.findings, places); });
    const std::vector<Complaint> complaints = loadAll();
    takeComplaints(complaints, report.findings);
    report.starts = lastWords(complaints) == nullptr;
    if (report.starts) {
        report.loaded = checkNotifications(places, report.findings);
    } else {
        loadModemSettings();
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
