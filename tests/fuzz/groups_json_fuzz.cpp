// groups.json
#include "alarmd/base/json.h"
#include "alarmd/project/groups.h"
#include "tests/fuzz/world.h"

namespace {

// How many elements the array has; 0 when the text is no array.
size_t elements(const std::string& text) {
    Json::Value root;
    std::string errors;
    return parseJson(text, root, errors) && root.isArray() ? root.size() : 0;
}

}  // namespace

FUZZ_TARGET(groups_json) {
    const fuzz::MemoryFile file(input);
    group_list_json = file.path();
    readGroupJson();

    const size_t most = elements(std::string(input));
    size_t named = 0;
    MutexLock lock(project_mutex);
    for (const _group& group : list_group) {
        MUST(group.periodic_mail == 0 || group.periodic_mail == 1);
        MUST(group.users.empty() && group.alarm_ids.empty() && group.mail.empty());
        if (!group.groupname.empty()) ++named;
    }
    // Each element makes one group or one complaint; two can be of one group.
    MUST(named + fuzz::count(fuzz::world.complained, "\n") <= std::max<size_t>(most, 1));
}
