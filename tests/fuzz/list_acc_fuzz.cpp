// list.acc, the users in CSV
#include <list>

#include "alarmd/project/csv_file.h"
#include "alarmd/project/group_number.h"
#include "alarmd/project/users.h"
#include "tests/fuzz/world.h"

namespace {

struct Recipients {
    std::list<std::string> mail, mobil;
};

// False when a line has no phone number, which ends the process.
bool expectedRecipients(std::string_view content, Recipients (&groups)[kGroups]) {
    for (const auto& row : fuzz::csvRows(content)) {
        if (row.size() < 4) continue;
        const int number = leadingNumber(row[2]);
        if (isGroup(number) && row[3] != " ") groups[number].mail.push_back(row[3]);
        if (row.size() == 4) return false;
        if (isGroup(number) && row[4] != " ") groups[number].mobil.push_back(row[4]);
    }
    return true;
}

std::string joined(const std::list<std::string>& items) {
    std::string text;
    for (const std::string& item : items) text += (text.empty() ? "" : ",") + item;
    return text;
}

}  // namespace

FUZZ_TARGET(list_acc) {
    Recipients expected[kGroups];
    const bool good = expectedRecipients(input, expected);

    const fuzz::MemoryFile file(input);
    acc_list = file.path();
    MUST(fuzz::endsProcess(readUser) == !good);

    MutexLock lock(project_mutex);
    MUST(user_list.empty());
    for (int number = 0; number < kGroups; ++number) {
        const _group& group = list_group[number];
        MUST(group.mail == expected[number].mail && group.mobil == expected[number].mobil);
        if (!good || number >= kNotifiedGroups) continue;
        MUST(group.mail_list == joined(group.mail) && group.mobil_list == joined(group.mobil));
        MUST(group.use_mail == (group.mail.empty() ? 0 : 1) &&
             group.use_mobil == (group.mobil.empty() ? 0 : 1));
    }
}
