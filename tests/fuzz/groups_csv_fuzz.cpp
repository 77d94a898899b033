// groups.csv
#include <map>

#include "alarmd/project/csv_file.h"
#include "alarmd/project/group_number.h"
#include "alarmd/project/groups.h"
#include "tests/fuzz/world.h"

FUZZ_TARGET(groups_csv) {
    std::map<int, _group> expected;
    size_t no_groups = 0;
    const auto rows = fuzz::csvRows(input);
    for (size_t i = 1; i < rows.size(); ++i) {  // behind the header
        if (rows[i].size() < 4) continue;
        const int number = leadingNumber(rows[i][0]);
        if (!isGroup(number)) {
            ++no_groups;
            continue;
        }
        expected[number].max_severity = leadingNumber(rows[i][1]);
        expected[number].periodic_mail = rows[i][2] == kYes ? 1 : 0;
        expected[number].groupname = rows[i][3];
    }

    const fuzz::MemoryFile file(input);
    group_list = file.path();
    readGroup();

    MutexLock lock(project_mutex);
    for (int number = 0; number < kGroups; ++number) {
        const _group& group = list_group[number];
        MUST(group.max_severity == expected[number].max_severity);
        MUST(group.periodic_mail == expected[number].periodic_mail);
        MUST(group.groupname == expected[number].groupname);
    }
    MUST(fuzz::count(fuzz::world.complained, "\n") == no_groups);
}
