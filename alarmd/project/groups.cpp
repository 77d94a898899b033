#include "alarmd/project/groups.h"

#include <map>
#include <string>
#include <utility>

#include "alarmd/alarmd.h"
#include "alarmd/base/files.h"
#include "alarmd/project/csv_file.h"
#include "alarmd/project/group_number.h"
#include "alarmd/project/json_file.h"
#include "knihovny/debugerror.h"

namespace {

// What a file says of one group.
struct GroupEntry {
    std::string name;
    int max_severity = 0;
    bool reporting = false;
};

// By group number; a later line or element takes the place of an earlier one.
using GroupEntries = std::map<int, GroupEntry>;

enum GroupColumn { kNumber, kMaxSeverity, kReporting, kName, kGroupColumns };

GroupEntries readCsvEntries() {
    GroupEntries entries;
    CsvFile file(group_list);
    file.skipLine();
    while (file.next()) {
        if (file.size() < kGroupColumns) continue;
        const int number = leadingNumber(file[kNumber]);
        if (!isGroup(number)) {
            file.complainOfLine(noSuchGroup(number));
            continue;
        }
        entries[number] = {std::string(file[kName]), leadingNumber(file[kMaxSeverity]),
                           file[kReporting] == kYes};
    }
    return entries;
}

GroupEntries jsonEntries(const Json::Value& root) {
    GroupEntries entries;
    convertElements(group_list_json, root, [&](const JsonElement& element, Remark& remark) {
        const int number = element.number("groupNo");
        GroupEntry entry{element.text("name"), element.number("reportingMaxSeverity"),
                         element.flag("reporting")};
        if (isGroup(number)) {
            entries[number] = std::move(entry);
        } else {
            remark = noSuchGroup(number);
        }
    });
    return entries;
}

void apply(GroupEntries&& entries) {
    MutexLock lock(project_mutex);
    for (auto& [number, entry] : entries) {
        _group& group = list_group[number];
        group.groupname = std::move(entry.name);
        group.max_severity = entry.max_severity;
        group.periodic_mail = entry.reporting ? 1 : 0;
    }
}

}  // namespace

void readGroup() {
    Print(group_list + "\nNacitam groups.csv\n");
    if (!fileExists(group_list)) {
        PrintLine("File group.csv not exist!");
        return;
    }
    PrintLine("Prse file groups.csv");
    apply(readCsvEntries());
}

void readGroupJson() {
    PrintLine("Nacitam groups.json");
    Json::Value root;
    if (readJsonArray(group_list_json, "groups.json", root)) apply(jsonEntries(root));
}
