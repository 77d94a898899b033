// cas.csv
#include <list>
#include <map>

#include "alarmd/project/alarm_definitions.h"
#include "alarmd/project/csv_file.h"
#include "tests/fuzz/world.h"

namespace {

constexpr int kEarlierId = 7;

using Row = std::vector<std::string>;

void checkDefinition(const _alarm_def& definition, const Row& row) {
    MUST(definition.id == kEarlierId && definition.areaLangs.size() == 2);
    MUST(definition.severity == leadingNumber(row[0]));
    MUST(definition.area == row[1] && definition.message == row[2]);
    MUST(definition.device == row[3] && definition.tag == row[4]);
    MUST(definition.email == (row[12] == kYes) && definition.smsact == (row[13] == kYes));
    MUST(definition.smsdeact == (row[14] == kYes) && definition.smsack == (row[15] == kYes));
}

}  // namespace

FUZZ_TARGET(cas_csv) {
    std::map<int, Row> expected;
    std::list<int> ids[kGroups];
    const auto rows = fuzz::csvRows(input);
    for (size_t i = 1; i < rows.size(); ++i) {  // behind the header
        if (rows[i].size() < CsvFile::kMaxColumns) continue;
        const int id = leadingNumber(rows[i][26]);
        expected[id] = rows[i];
        for (size_t group = 0; group < kNotifiedGroups; ++group) {
            if (rows[i][16 + group] == kYes) ids[group].push_back(id);
        }
    }

    // What the last definition from a JSON file left behind goes into each of the records.
    alarm_def.id = kEarlierId;
    alarm_def.areaLangs = alarm_def.messageLangs = {{"cs", "Kotel"}, {"de", ""}};

    const fuzz::MemoryFile file(input);
    cas_list = file.path();
    readAlarmDef();
    readAlarmDef();  // once more: the same, nothing is added
    {
        MutexLock lock(project_mutex);
        MUST(alarm_def_map.size() == expected.size());
        for (const auto& [id, row] : expected) {
            MUST(alarm_def_map.contains(id));
            checkDefinition(alarm_def_map[id], row);
        }
        for (int group = 0; group < kGroups; ++group) MUST(list_group[group].alarm_ids == ids[group]);
    }
    fuzz::checkDefinitions();
}
