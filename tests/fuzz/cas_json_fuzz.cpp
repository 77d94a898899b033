// cas.json
#include "alarmd/base/json.h"
#include "alarmd/project/alarm_definitions.h"
#include "tests/fuzz/world.h"

FUZZ_TARGET(cas_json) {
    const fuzz::MemoryFile file(input);
    cas_list_json = file.path();
    readAlarmDefJson();

    Json::Value root;
    std::string errors;
    const std::string text(input);
    const size_t most = parseJson(text, root, errors) && root.isArray() ? root.size() : 0;
    size_t definitions = 0;
    {
        MutexLock lock(project_mutex);
        definitions = alarm_def_map.size();
        for (const auto& [key, definition] : alarm_def_map) MUST(definition.id == key);
        for (const _group& group : list_group) MUST(group.alarm_ids.size() <= most);
    }
    MUST(definitions <= most);
    MUST(most == 0 || definitions > 0 || fuzz::count(fuzz::world.complained, "\n") == most);
    fuzz::checkDefinitions();

    dbglev = 1;
    printAlarmDefJson();
}
