#include "alarmd/project/alarm_definitions.h"

#include <algorithm>
#include <bitset>
#include <iterator>
#include <list>
#include <map>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <variant>

#include "alarmd/base/files.h"
#include "alarmd/project/csv_file.h"
#include "alarmd/project/group_number.h"
#include "alarmd/project/json_file.h"
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

// Definitions by key, the last of several with one key, and the ids that are added to the groups' lists.
struct Batch {
    std::map<int, _alarm_def> definitions;
    std::list<int> group_ids[kGroups];

    void add(int key, _alarm_def definition) {
        // Files are mostly sorted by id: the new entry then comes at the end.
        definitions.insert_or_assign(definitions.end(), key, std::move(definition));
    }
};

void clearGroupIds() {
    MutexLock lock(project_mutex);
    for (int group = 0; group < kNotifiedGroups; ++group) list_group[group].alarm_ids.clear();
}

// Moves the batch into the project data and leaves it empty.
void store(Batch& batch) REQUIRES(project_mutex) {
    while (!batch.definitions.empty()) {
        auto entry = batch.definitions.extract(batch.definitions.begin());
        const auto place = alarm_def_map.lower_bound(entry.key());
        if (place != alarm_def_map.end() && place->first == entry.key()) {
            place->second = std::move(entry.mapped());
        } else {
            alarm_def_map.insert(place, std::move(entry));
        }
    }
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
    batch.add(id, alarm_def);
}

void loadRows() {
    Batch batch;
    CsvFile file(cas_list);
    size_t rows = 0;
    file.skipLine();
    while (file.next()) {
        if (file.size() < kDefinitionColumns) continue;
        addRow(file, batch);
        if (++rows % kBatch == 0) {
            MutexLock lock(project_mutex);
            store(batch);
        }
    }
    MutexLock lock(project_mutex);
    store(batch);
    indexDefinitions();
}

// One object of the JSON file.
struct LoadedDefinition {
    _alarm_def record;
    std::bitset<kGroups> groups;
    Remark remark;  // what was ignored, if anything
};

void take(const Json::Value& value, std::string_view key, int& target) {
    target = numberFrom(value, key);
}
void take(const Json::Value& value, std::string_view key, bool& target) {
    target = flagFrom(value, key);
}
void take(const Json::Value& value, std::string_view key, std::string& target) {
    target = textFrom(value, key);
}

// One _translate a member, in the ascending byte order of the member names.
void take(const Json::Value& value, std::string_view key, std::vector<_translate>& target) {
    if (value.empty()) return;
    if (!value.isObject()) throw std::runtime_error("\"" + std::string(key) + "\": not an object");
    target.reserve(value.size());
    for (auto text = value.begin(); text != value.end(); ++text) {
        target.push_back({text.name(), textFrom(*text, key)});
    }
}

// An array of booleans, by group number.
void takeGroups(const Json::Value& value, LoadedDefinition& definition) {
    if (value.isNull()) return;
    if (!value.isArray()) {
        definition.remark = {ComplaintCode::kWrongType, "\"group\" is ignored: not an array"};
        return;
    }
    int group = 0;
    for (const Json::Value& flag : value) {
        const bool member = flagFrom(flag, "group");
        if (member && isGroup(group)) definition.groups.set(static_cast<size_t>(group));
        if (member && !isGroup(group) && definition.remark.text.empty())
            definition.remark = noSuchGroup(group);
        ++group;
    }
}

struct DefinitionField {
    std::string_view name;
    std::variant<int _alarm_def::*, bool _alarm_def::*, std::string _alarm_def::*,
                 std::vector<_translate> _alarm_def::*>
        target;
};

// In the ascending byte order of the names.
constexpr DefinitionField kFields[] = {
    {"area", &_alarm_def::area},         {"areaLangs", &_alarm_def::areaLangs},
    {"device", &_alarm_def::device},     {"deviceLangs", &_alarm_def::deviceLangs},
    {"email", &_alarm_def::email},       {"id", &_alarm_def::id},
    {"message", &_alarm_def::message},   {"messageLangs", &_alarm_def::messageLangs},
    {"severity", &_alarm_def::severity}, {"smsAck", &_alarm_def::smsack},
    {"smsAct", &_alarm_def::smsact},     {"smsDeact", &_alarm_def::smsdeact},
    {"tag", &_alarm_def::tag},
};
static_assert(std::is_sorted(std::begin(kFields), std::end(kFields),
                             [](const auto& a, const auto& b) { return a.name < b.name; }));

// Members and fields are in the same order, so one walk over both finds all; a search for each field would
// take about a tenth of the time that the parser takes.
LoadedDefinition definitionFrom(const JsonElement& element) {
    LoadedDefinition definition;
    const Json::Value& members = element.members();
    const DefinitionField* field = std::begin(kFields);
    for (auto member = members.begin(); member != members.end(); ++member) {
        const char* end = nullptr;
        const char* start = member.memberName(&end);
        const std::string_view name(start, static_cast<size_t>(end - start));
        while (field != std::end(kFields) && field->name < name) ++field;
        if (name == "group") takeGroups(*member, definition);
        if (field == std::end(kFields) || field->name != name) continue;
        std::visit([&](auto target) { take(*member, name, definition.record.*target); }, field->target);
    }
    return definition;
}

// Fills the batch and leaves the last object in the working record.
void convertDefinitions(const Json::Value& root, Batch& batch) {
    int last = 0;
    convertElements(cas_list_json, root, [&](const JsonElement& element, Remark& remark) {
        LoadedDefinition definition = definitionFrom(element);
        remark = std::move(definition.remark);
        last = definition.record.id;
        for (int group = 0; group < kGroups; ++group) {
            if (definition.groups[static_cast<size_t>(group)]) batch.group_ids[group].push_back(last);
        }
        batch.add(last, std::move(definition.record));
    });
    if (!batch.definitions.empty()) alarm_def = batch.definitions.at(last);
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
    Json::Value root;
    if (!readJsonArray(cas_list_json, "cas.json", root)) return;
    Batch batch;
    convertDefinitions(root, batch);
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
