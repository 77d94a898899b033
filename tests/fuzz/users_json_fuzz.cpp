// users.json
#include "alarmd/base/json.h"
#include "alarmd/project/group_number.h"
#include "alarmd/project/users.h"
#include "tests/fuzz/world.h"

namespace {

bool same(const _user& a, const _user& b) {
    return a.id == b.id && a.name == b.name && a.group == b.group && a.mobil == b.mobil && a.mail == b.mail &&
           a.sms_control == b.sms_control && a.lang == b.lang;
}

}  // namespace

FUZZ_TARGET(users_json) {
    const fuzz::MemoryFile file(input);
    acc_list_json = file.path();
    dbglev = 1;
    readUserJson();

    Json::Value root;
    std::string errors;
    const std::string text(input);
    const size_t most = parseJson(text, root, errors) && root.isArray() ? root.size() : 0;

    MutexLock lock(project_mutex);
    MUST(user_list.size() + fuzz::count(fuzz::world.complained, "\n") <= std::max<size_t>(most, 1));
    size_t of_group[kGroups] = {};
    for (const _user& entry : user_list) {
        MUST(isGroup(entry.group));
        MUST(!entry.mail.empty() || !entry.mobil.empty());
        const auto& users = list_group[entry.group].users;
        MUST(of_group[entry.group] < users.size() && same(users[of_group[entry.group]], entry));
        ++of_group[entry.group];
    }
    for (int number = 0; number < kGroups; ++number) {
        const _group& group = list_group[number];
        MUST(group.users.size() == of_group[number]);
        MUST(group.mail.size() + group.mobil.size() >= group.users.size());
        if (number < kNotifiedGroups) MUST(group.use_mail == (group.mail.empty() ? 0 : 1));
    }
}
