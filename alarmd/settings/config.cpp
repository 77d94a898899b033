#include "alarmd/settings/config.h"

#include <map>

#include "alarmd/alarmd.h"
#include "alarmd/base/complaint.h"
#include "alarmd/base/files.h"
#include "alarmd/base/json.h"
#include "alarmd/project/alarm_definitions.h"
#include "alarmd/project/csv_file.h"
#include "alarmd/project/groups.h"
#include "alarmd/project/users.h"
#include "alarmd/settings/setting_table.h"
#include "knihovny/debugerror.h"
#include "knihovny/generalfce.h"

namespace {

using KeyValues = std::map<std::string, std::string>;

// Adds what the file says to the values.
KeyValues readKeyValues(const std::string& path, KeyValues values = {}) {
    values["config"] = path;
    ParamNacti(path, values, [&](size_t line, const std::string& reason) {
        complain({line > 0 ? ComplaintCode::kLineTooLong : ComplaintCode::kUnreadable, path, reason, line});
    });
    return values;
}

void takeKeys(KeyFile file, const KeyValues& values) {
    for (const ConfigKey& key : configKeys()) {
        if (key.file != file) continue;
        const auto value = values.find(std::string(key.name));
        *key.target = value == values.end() ? "" : value->second;
    }
}

void deriveProjectPaths() {
    project_file = pFolder + "/setting.txt";
    project_file_json = pFolder + "/setting.json";
    acc_list = pFolder + "/list.acc";
    acc_list_json = pFolder + "/users.json";
    group_list = pFolder + "/groups.csv";
    group_list_json = pFolder + "/groups.json";
    cas_list = pFolder + "/cas.csv";
    cas_list_json = pFolder + "/cas.json";
}

void loadGroups() {
    if (fileExists(group_list_json)) {
        readGroupJson();
    } else if (fileExists(group_list)) {
        readGroup();
    }
}

void loadDefinitions(bool print_definitions) {
    if (fileExists(cas_list_json)) {
        readAlarmDefJson();
        if (print_definitions) printAlarmDefJson();
    } else if (fileExists(cas_list)) {
        readAlarmDef();
    }
}

void setProjectId(std::string id) {
    MutexLock lock(settings_mutex);
    projectID.swap(id);
}

void loadProjectId() {
    if (fileExists(project_file_json)) {
        setProjectId(readProjectIdJson());
    } else if (fileExists(project_file)) {
        setProjectId(std::string(1, static_cast<char>(readProjectId())));
    }
}

void loadUsers() {
    if (fileExists(acc_list_json)) {
        readUserJson();
    } else if (fileExists(acc_list)) {
        readUser();
    }
}

// The parser's messages in one line.
std::string oneLine(const std::string& messages) {
    std::string line;
    bool gap = false;
    for (const char c : messages) {
        const bool blank = c == ' ' || c == '\n' || c == '*';
        if (!blank && gap && !line.empty()) line += ' ';
        if (!blank) line += c;
        gap = blank;
    }
    return line;
}

[[noreturn]] void endAtProjectFile(const std::string& reason, size_t line = 0) {
    complainAndEnd({ComplaintCode::kMalformedSetting, project_file_json, reason, line});
}

// The document in project_file_json; ends the process when there is none.
Json::Value parseProjectFile() {
    std::string text;
    std::string errors;
    Json::Value root;
    const bool read = readWholeFile(project_file_json, text);
    if (!parseJson(text, root, errors)) {
        const size_t line = read ? faultLine(errors) : 0;
        complain({ComplaintCode::kNotJson, project_file_json, "Failed to JSON parse setting.json\n" + errors,
                  line});
        endAtProjectFile(read ? oneLine(errors) : "cannot be read", line);
    }
    return root;
}

}  // namespace

void readConfigFiles() {
    PrintLine("Reading korvato.conf ");
    takeKeys(KeyFile::kMain, readKeyValues(conf_file));
    deriveProjectPaths();

    PrintLine("Reading msmtp.conf ");
    takeKeys(KeyFile::kMailClient, readKeyValues(msmtp_conf_file));

    // No key is taken from this file, but the log says when it cannot be opened.
    PrintLine("Reading sms.conf ");
    readKeyValues(sms_conf_file);
}

void loadProjectFiles(bool print_definitions) {
    loadGroups();
    loadDefinitions(print_definitions);
    loadProjectId();
    loadUsers();
}

std::string readProjectIdJson() {
    PrintLine("Nacitam setting.json");
    const Json::Value root = parseProjectFile();
    if (!root.isObject() && !root.isNull()) endAtProjectFile("the document is not an object");
    const Json::Value& member = root["projectID"];
    if (!member.isConvertibleTo(Json::stringValue))
        endAtProjectFile("\"projectID\" is no text and no number");
    std::string id = member.asString();
    PrintLine("Project ID: ", id);
    return id;
}

int readProjectId() {
    PrintLine("Nacitam setting.txt");
    KeyValues values = readKeyValues(pFolder + "/setting.txt", {{"projectID", "0"}});
    const int id = leadingNumber(values["projectID"]);
    PrintLine("Project ID: ", id);
    return id;
}
