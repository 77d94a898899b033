// The project's JSON files, element by element.
#include <algorithm>
#include <functional>
#include <map>
#include <string_view>
#include <vector>

#include "alarmctl/check/check_contacts.h"
#include "alarmctl/check/check_json_text.h"
#include "alarmctl/check/check_project.h"
#include "alarmd/alarmd.h"
#include "alarmd/project/group_number.h"

namespace {

using Keys = std::vector<std::string_view>;

const Keys kGroupKeys = {"groupNo", "name", "reporting", "reportingMaxSeverity"};
const Keys kDefinitionKeys = {"area",   "areaLangs", "device",   "deviceLangs",  "email",
                              "group",  "id",        "message",  "messageLangs", "severity",
                              "smsAck", "smsAct",    "smsDeact", "tag"};
const Keys kUserKeys = {"id", "language", "level", "mail", "name", "smsControl", "tel"};
const Keys kSettingKeys = {"projectID"};

// The member as a number or a text, as the loaders convert it; theirs is to tell when it is none.
int numberIn(const Json::Value& element, const char* key) {
    const Json::Value& value = element[key];
    return value.isConvertibleTo(Json::intValue) ? value.asInt() : 0;
}

std::string textIn(const Json::Value& element, const char* key) {
    const Json::Value& value = element[key];
    return value.isConvertibleTo(Json::stringValue) ? value.asString() : "";
}

// Calls entry for each object of the array in path.
void checkArray(const std::string& path, const Keys& keys, Findings& findings,
                const std::function<void(const Json::Value& element, const Place& place)>& entry) {
    Json::Value root;
    if (!parseForCheck(path, Severity::kError, "nothing is taken from it", findings, root) || !root.isArray())
        return;
    UnreadKeys unread(keys);
    size_t number = 0;
    for (const Json::Value& element : root) {
        ++number;
        if (!element.isObject()) continue;
        const Place place{path, 0, number};
        unread.look(element, place);
        entry(element, place);
    }
    unread.tell(findings);
}

// Tells of a second element with the same number; the place of the last is kept.
class Duplicates {
  public:
    // The element that had the number before, 0 when there was none.
    size_t take(int number, size_t element) {
        const auto [first, fresh] = elements_.emplace(number, element);
        if (fresh) return 0;
        const size_t before = first->second;
        first->second = element;
        return before;
    }

  private:
    std::map<int, size_t> elements_;
};

void checkAddressAndNumber(const Json::Value& user_entry, const Place& place, Findings& findings) {
    const std::string mail = textIn(user_entry, "mail");
    const std::string number = textIn(user_entry, "tel");
    const std::string name = inQuotes(textIn(user_entry, "name"));
    if (mail.empty() && number.empty()) {
        findings.warning(place, "no-contact", name + " has neither address nor number: the user is dropped");
        return;
    }
    if (mail.empty()) {
        findings.note(place, "no-address",
                      name +
                          " has no address: mails to this user are made all the same, and the mail client "
                          "refuses them");
    } else if (const std::string fault = addressFault(mail); !fault.empty()) {
        findings.warning(place, "bad-address", inQuotes(mail) + " is no mail address: " + fault);
    }
    if (!number.empty() && !isInternationalNumber(number))
        findings.warning(place, "bad-number", numberRemark(number));
}

void checkGroupOf(const Json::Value& user_entry, const Place& place, Findings& findings) {
    const std::string name = inQuotes(textIn(user_entry, "name"));
    if (user_entry["level"].isNull()) {
        findings.warning(place, "missing-key", "\"level\" is missing: " + name + " belongs to group 0");
        return;
    }
    const int group = numberIn(user_entry, "level");
    if (isGroup(group) && group >= kNotifiedGroups)
        findings.note(place, "silent-group",
                      name + " is in group " + std::to_string(group) + ", which is never notified");
}

}  // namespace

void checkGroupsJson(Findings& findings) {
    Duplicates seen;
    checkArray(group_list_json, kGroupKeys, findings, [&](const Json::Value& element, const Place& place) {
        if (element["groupNo"].isNull())
            findings.warning(place, "missing-key", "\"groupNo\" is missing: taken for group 0");
        const int number = numberIn(element, "groupNo");
        if (const size_t before = seen.take(number, place.element); before > 0)
            findings.warning(place, "duplicate-group",
                             "group " + std::to_string(number) + " is element " + std::to_string(before) +
                                 " already: the last one counts");
    });
}

void checkDefinitionsJson(Findings& findings, AlarmPlaces& places) {
    places.file = cas_list_json;
    Duplicates seen;
    checkArray(cas_list_json, kDefinitionKeys, findings, [&](const Json::Value& element, const Place& place) {
        if (element["id"].isNull())
            findings.warning(place, "missing-key", "\"id\" is missing: the definition is stored for alarm 0");
        const int id = numberIn(element, "id");
        places.numbers[id] = place.element;
        if (const size_t before = seen.take(id, place.element); before > 0)
            findings.warning(place, "duplicate-alarm",
                             "alarm " + std::to_string(id) + " is defined by element " +
                                 std::to_string(before) +
                                 " already: the last definition counts, in the groups of both");
        if (id < 0)
            findings.warning(place, "negative-id",
                             "alarm " + std::to_string(id) + ": the texts of an id below 0 are not found");
    });
}

void checkProjectIdJson(Findings& findings) {
    Json::Value root;
    // A file that is no JSON ends the daemon, which the loader itself tells.
    if (!parseForCheck(project_file_json, root) || (!root.isObject() && !root.isNull())) return;
    findings.lookedAt(project_file_json);
    UnreadKeys unread(kSettingKeys);
    unread.look(root, {project_file_json});
    unread.tell(findings);
    if (textIn(root, "projectID").empty())
        findings.warning({project_file_json}, "no-project-id",
                         "\"projectID\" is missing or empty: the polls name no project");
}

void checkUsersJson(Findings& findings) {
    struct First {
        size_t element;
        std::string name;
    };
    std::map<int, First> seen;
    checkArray(acc_list_json, kUserKeys, findings, [&](const Json::Value& element, const Place& place) {
        checkAddressAndNumber(element, place, findings);
        checkGroupOf(element, place, findings);
        const int id = numberIn(element, "id");
        const std::string name = textIn(element, "name");
        const auto [first, fresh] = seen.emplace(id, First{place.element, name});
        // A user of several groups has an entry for each.
        if (!fresh && first->second.name != name)
            findings.warning(place, "duplicate-user",
                             "user " + std::to_string(id) + " is " + inQuotes(first->second.name) +
                                 " in element " + std::to_string(first->second.element) +
                                 ": acknowledgements of both go to the server under one id");
        const Json::Value& control = element["smsControl"];
        if (control.isConvertibleTo(Json::booleanValue) && control.asBool() && textIn(element, "tel").empty())
            findings.warning(place, "control-without-number",
                             inQuotes(name) + " may acknowledge by SMS but has no number to do it from");
    });
}
