#include "alarmctl/check/check_project.h"

#include "alarmctl/check/check_config.h"
#include "alarmd/alarmd.h"
#include "alarmd/base/files.h"

namespace {

struct Kind {
    const std::string& json;
    const std::string& other;
    Severity severity;  // of having neither
    const char* consequence;
};

std::string nameOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

}  // namespace

void checkPresence(Findings& findings) {
    const Kind kinds[] = {
        {group_list_json, group_list, Severity::kNote, "the groups have no names"},
        {cas_list_json, cas_list, Severity::kError, "no alarm is known, so nobody is told of any"},
        {project_file_json, project_file, Severity::kWarning, "the polls name no project"},
        {acc_list_json, acc_list, Severity::kError, "there is no user, so nobody is told of any alarm"},
    };
    for (const Kind& kind : kinds) {
        const bool json = fileExists(kind.json);
        const bool other = fileExists(kind.other);
        if (json && other)
            findings.warning({kind.other}, "shadowed",
                             "is not read, since " + nameOf(kind.json) + " is there");
        if (!json && !other)
            findings.add({kind.severity,
                          {kind.json},
                          "no-file",
                          "is not there, and " + nameOf(kind.other) + " neither: " + kind.consequence});
    }
}

void checkGroups(Findings& findings) {
    if (fileExists(group_list_json)) {
        checkGroupsJson(findings);
    } else if (fileExists(group_list)) {
        checkGroupsCsv(findings);
    }
}

void checkDefinitions(Findings& findings, AlarmPlaces& places) {
    if (fileExists(cas_list_json)) {
        checkDefinitionsJson(findings, places);
    } else if (fileExists(cas_list)) {
        checkDefinitionsCsv(findings, places);
    }
}

void checkProjectId(Findings& findings) {
    if (fileExists(project_file_json)) {
        checkProjectIdJson(findings);
    } else if (fileExists(project_file)) {
        checkProjectIdFile(findings);
    }
}

void checkUsers(Findings& findings) {
    if (fileExists(acc_list_json)) {
        checkUsersJson(findings);
    } else if (fileExists(acc_list)) {
        checkUsersCsv(findings);
    }
}
