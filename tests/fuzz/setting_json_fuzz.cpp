// setting.json: the project id, and the poll that carries it
#include "alarmd/base/json.h"
#include "alarmd/intake/history_poll.h"
#include "alarmd/settings/config.h"
#include "tests/fuzz/world.h"

namespace {

// Whether the id can be had; otherwise the process ends.
bool expectedId(const std::string& text, std::string& id) {
    Json::Value root;
    std::string errors;
    if (!parseJson(text, root, errors) || !(root.isObject() || root.isNull())) return false;
    const Json::Value& member = root["projectID"];
    if (member.isObject() || member.isArray()) return false;
    id = member.asString();
    return true;
}

}  // namespace

FUZZ_TARGET(setting_json) {
    std::string expected;
    const bool good = expectedId(std::string(input), expected);

    const fuzz::MemoryFile file(input);
    project_file_json = file.path();
    std::string id;
    MUST(fuzz::endsProcess([&] { id = readProjectIdJson(); }) == !good);
    MUST(id == expected);

    {
        MutexLock lock(settings_mutex);
        projectID = id;
    }
    const std::string request = historyRequest();
    MUST(request.starts_with("t=30&prj="));
    MUST(request.size() <= 999);
}
