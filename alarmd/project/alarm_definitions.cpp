#include "alarmd/project/alarm_definitions.h"

#include <bitset>
#include <list>
#include <stdexcept>
#include <utility>

#include "alarmd/project/csv_file.h"
#include "alarmd/project/json_file.h"
#include "alarmd/project/project_file.h"
#include "knihovny/debugerror.h"

namespace {

// A CSV file goes into the map in portions: a reader waits for one of them at most, and the memory for what
// is read and not yet stored is bounded.
constexpr size_t kBatch = 1000;

enum DefinitionColumn {
    kSeverity = 0,
    kArea = 1,
    kMessage = 2,
    kDevice = 3,
    kTag = 4,
    kEmail = 12,
    kSmsAct = 13,
    kSmsDeact = 14,
    kSmsAck = 15,
    kFirstGroup = 16,
    kId = 26,
    kDefinitionColumns = 27
};

// Definitions in file order, each with its key, and the ids that they add to the groups' lists.
struct Batch {
    std::vector<std::pair<int, _alarm_def>> definitions;
    std::list<int> group_ids[kGroups];
};

void clearGroupIds() {
    MutexLock lock(project_mutex);
    for (int group = 0; group < kNotifiedGroups; ++group) list_group[group].alarm_ids.clear();
}

// Moves the batch into the project data and leaves it empty.
void store(Batch& batch) REQUIRES(project_mutex) {
    for (auto& [key, definition] : batch.definitions) {
        // Files are mostly sorted by id: the new entry then comes at the end.
        alarm_def_map.insert_or_assign(alarm_def_map.end(), key, std::move(definition));
    }
    batch.definitions.clear();
    for (int group = 0; group < kGroups; ++group) {
        std::list<int>& ids = list_group[group].alarm_ids;
        ids.splice(ids.end(), batch.group_ids[group]);
    }
    definitionsChanged();
}

// Fills the working record; its id and translations stay what they were.
void fillFromColumns(const CsvFile& file) {
    alarm_def.severity = leadingNumber(file[kSeverity]);
    alarm_def.area = file[kArea];
    alarm_def.message = file[kMessage];
    alarm_def.device = file[kDevice];
    alarm_def.tag = file[kTag];
    alarm_def.email = file[kEmail] == kYes;
    alarm_def.smsact = file[kSmsAct] == kYes;
    alarm_def.smsdeact = file[kSmsDeact] == kYes;
    alarm_def.smsack = file[kSmsAck] == kYes;
}

void addRow(const CsvFile& file, Batch& batch) {
    const int id = leadingNumber(file[kId]);
    for (int group = 0; group < kNotifiedGroups; ++group) {
        if (file[kFirstGroup + static_cast<size_t>(group)] == kYes) batch.group_ids[group].push_back(id);
    }
    fillFromColumns(file);
    batch.definitions.emplace_back(id, alarm_def);
}

void loadRows() {
    Batch batch;
    CsvFile file(cas_list);
    file.skipLine();
    while (file.next()) {
        if (file.size() < kDefinitionColumns) continue;
        addRow(file, batch);
        if (batch.definitions.size() == kBatch) {
            MutexLock lock(project_mutex);
            store(batch);
        }
    }
    MutexLock lock(project_mutex);
    store(batch);
    indexDefinitions();
}

// One _translate a member, in the ascending byte order of the member names.
std::vector<_translate> translations(const JsonElement& element, const char* key) {
    const Json::Value& texts = element.member(key);
    std::vector<_translate> result;
    if (texts.empty()) return result;
    if (!texts.isObject()) throw std::runtime_error(std::string("\"") + key + "\": not an object");
    result.reserve(texts.size());
    for (auto text = texts.begin(); text != texts.end(); ++text) {
        if (!text->isConvertibleTo(Json::stringValue)) {
            throw std::runtime_error(std::string("\"") + key + "\": the text for \"" + text.name() +
                                     "\" is no text");
        }
        result.push_back({text.name(), text->asString()});
    }
    return result;
}

// The groups of a definition: an array of booleans, by group number.
std::bitset<kGroups> memberships(const JsonElement& element, std::string& remark) {
    const Json::Value& flags = element.member("group");
    std::bitset<kGroups> groups;
    if (flags.empty()) return groups;
    if (!flags.isArray()) throw std::runtime_error("\"group\": not an array");
    int group = 0;
    for (const Json::Value& flag : flags) {
        if (!flag.isConvertibleTo(Json::booleanValue))
            throw std::runtime_error("\"group\": not all are booleans");
        if (flag.asBool()) {
            if (isGroup(group)) {
                groups.set(static_cast<size_t>(group));
            } else if (remark.empty()) {
                remark = noSuchGroup(group);
            }
        }
        ++group;
    }
    return groups;
}

_alarm_def definitionFrom(const JsonElement& element) {
    _alarm_def definition;
    definition.id = element.number("id");
    definition.areaLangs = translations(element, "areaLangs");
    definition.deviceLangs = translations(element, "deviceLangs");
    definition.messageLangs = translations(element, "messageLangs");
    definition.severity = element.number("severity");
    definition.area = element.text("area");
    definition.message = element.text("message");
    definition.device = element.text("device");
    definition.tag = element.text("tag");
    definition.email = element.flag("email");
    definition.smsact = element.flag("smsAct");
    definition.smsdeact = element.flag("smsDeact");
    definition.smsack = element.flag("smsAck");
    return definition;
}

bool readJsonBatch(Batch& batch) {
    Json::Value root;
    if (!readJsonArray(cas_list_json, "cas.json", root)) return false;
    batch.definitions.reserve(root.size());
    convertElements(cas_list_json, root, [&](const JsonElement& element, std::string& remark) {
        _alarm_def definition = definitionFrom(element);
        const auto groups = memberships(element, remark);
        for (int group = 0; group < kGroups; ++group) {
            if (groups[static_cast<size_t>(group)]) batch.group_ids[group].push_back(definition.id);
        }
        const int id = definition.id;
        batch.definitions.emplace_back(id, std::move(definition));
    });
    return true;
}

void appendTranslations(std::string& text, const std::vector<_translate>& translations, const char* label) {
    for (const _translate& translation : translations) {
        AppendLine(text, "-> ", translation.lang, label, translation.text);
    }
}

void appendDefinition(std::string& text, const _alarm_def& definition) {
    AppendLine(text, "Alarm ID: ", definition.id, "\t Tag alarm: ", definition.tag);
    AppendLine(text, "-> Default [message]: \t", definition.message);
    AppendLine(text, "-> Default [area]: \t", definition.area);
    AppendLine(text, "-> Default [device]: \t", definition.device);
    appendTranslations(text, definition.messageLangs, " [message]\t");
    appendTranslations(text, definition.areaLangs, " [area]\t");
    appendTranslations(text, definition.deviceLangs, " [area]\t");
}

}  // namespace

void readAlarmDef() {
    PrintLine("Nacitam cas.csv");
    clearGroupIds();
    if (!fileExists(cas_list)) {
        PrintLine("File cas.csv not exist!");
        return;
    }
    PrintLine("Prse file cas.csv");
    loadRows();
}

void readAlarmDefJson() {
    PrintLine("Nacitam cas.json");
    Batch batch;
    if (!readJsonBatch(batch)) return;
    if (!batch.definitions.empty()) alarm_def = batch.definitions.back().second;
    MutexLock lock(project_mutex);
    store(batch);
    indexDefinitions();
}

void printAlarmDefJson() {
    if (dbglev <= 0) return;
    std::string text = "--------ALARM TAG DEFINITION----------\n";
    {
        MutexLock lock(project_mutex);
        fillDefinitionGaps();
        for (auto entry = alarm_def_map.lower_bound(0); entry != alarm_def_map.end(); ++entry) {
            if (entry->second.id >= 1) appendDefinition(text, entry->second);
        }
    }
    Print(text + "--------------------------------------\n");
}
