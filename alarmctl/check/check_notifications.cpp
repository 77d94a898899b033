#include "alarmctl/check/check_notifications.h"

#include <algorithm>
#include <bitset>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "alarmd/alarmd.h"
#include "alarmd/base/files.h"
#include "alarmd/project/alarm_definitions.h"

namespace {

using Groups = std::bitset<kGroups>;

// Who is in a group.
struct Audience {
    bool users = false, addresses = false, numbers = false;
    std::set<std::string> languages;
};

// What was loaded, arranged for the questions asked of it. The definitions are moved here.
struct Project {
    std::map<int, _alarm_def> definitions;
    std::map<int, Groups> groups_of;  // by alarm
    Audience audiences[kGroups];
    size_t users = 0;
};

Project arrange() {
    Project project;
    MutexLock lock(project_mutex);
    project.users = user_list.size();
    for (size_t g = 0; g < kGroups; ++g) {
        for (const int id : list_group[g].alarm_ids) project.groups_of[id].set(g);
        Audience& audience = project.audiences[g];
        for (const _user& member : list_group[g].users) {
            audience.users = true;
            audience.addresses = audience.addresses || !member.mail.empty();
            audience.numbers = audience.numbers || !member.mobil.empty();
            audience.languages.insert(member.lang);
        }
    }
    project.definitions.swap(alarm_def_map);
    clearDefinitions();
    return project;
}

bool wantsSms(const _alarm_def& definition) {
    return definition.smsact || definition.smsdeact || definition.smsack;
}

bool wantsAnything(const _alarm_def& definition) {
    return definition.email || wantsSms(definition);
}

bool isNotified(const Groups& groups) {
    for (size_t g = 0; g < kNotifiedGroups; ++g) {
        if (groups[g]) return true;
    }
    return false;
}

std::string groupList(const Groups& groups) {
    std::string text;
    for (size_t g = 0; g < kGroups; ++g) {
        if (groups[g]) text += (text.empty() ? "" : ", ") + std::to_string(g);
    }
    return (groups.count() == 1 ? "group " : "groups ") + text;
}

// Looks at one alarm after the other.
class AlarmCheck {
  public:
    AlarmCheck(const Project& project, const AlarmPlaces& places, Findings& findings)
        : project_(project), places_(places), findings_(findings) {}

    void look(int id, const _alarm_def& definition) {
        const auto found = project_.groups_of.find(id);
        const Groups groups = found == project_.groups_of.end() ? Groups() : found->second;
        if (!wantsAnything(definition)) {
            (groups.any() ? without_flags_ : unused_).add(std::to_string(id));
            return;
        }
        const bool reached = checkGroups(id, groups) && checkAudience(id, definition, groups);
        if (reached && !places_.lines) checkTexts(id, definition, groups);
    }

    void tell() const {
        tellNaming(without_flags_, "in groups", "has no flag, so nobody is told of it",
                   "have no flag, so nobody is told of them", "no-flags");
        tellNaming(unused_, "", "has neither flag nor group, so nobody is told of it",
                   "have neither flags nor groups, so nobody is told of them", "unused");
        for (const auto& [language, alarms] : missing_) {
            findings_.note({places_.file}, "missing-language",
                           counted(alarms.count(), "alarm") + " " + (alarms.count() == 1 ? "lacks" : "lack") +
                               " a text in language " + inQuotes(language) +
                               ", whose users get the default text: " + alarms.names());
        }
    }

  private:
    void tellNaming(const Naming& alarms, const char* where, const char* one, const char* more,
                    const char* code) const {
        if (alarms.count() == 0) return;
        const std::string place = *where == '\0' ? "" : std::string(" ") + where;
        findings_.note({places_.file}, code,
                       counted(alarms.count(), "alarm") + place + " " + (alarms.count() == 1 ? one : more) +
                           ": " + alarms.names());
    }

    void warn(int id, const char* code, const std::string& text) {
        findings_.warning(places_.of(id), code, "alarm " + std::to_string(id) + " " + text);
    }

    bool checkGroups(int id, const Groups& groups) {
        const bool notified = isNotified(groups);
        if (groups.none()) {
            warn(id, "no-group", "has flags but is in no group: nobody is told of it");
        } else if (!notified) {
            warn(id, "silent-group", "is in " + groupList(groups) + " only, which is never notified");
        }
        return notified;
    }

    // True when somebody gets something.
    bool checkAudience(int id, const _alarm_def& definition, const Groups& groups) {
        bool addresses = false, numbers = false;
        for (size_t g = 0; g < kNotifiedGroups; ++g) {
            addresses = addresses || (groups[g] && project_.audiences[g].addresses);
            numbers = numbers || (groups[g] && project_.audiences[g].numbers);
        }
        if (project_.users == 0) return false;  // told once, for all alarms
        if (definition.email && !addresses)
            warn(id, "mail-to-nobody",
                 "is to be mailed, but nobody in " + groupList(groups) + " has an address");
        if (wantsSms(definition) && !numbers)
            warn(id, "sms-to-nobody",
                 "is to be sent by SMS, but nobody in " + groupList(groups) + " has a number");
        return (definition.email && addresses) || (wantsSms(definition) && numbers);
    }

    void checkTexts(int id, const _alarm_def& definition, const Groups& groups) {
        std::set<std::string> languages;
        for (size_t g = 0; g < kNotifiedGroups; ++g) {
            if (groups[g])
                languages.insert(project_.audiences[g].languages.begin(),
                                 project_.audiences[g].languages.end());
        }
        for (const std::string& language : languages) checkLanguage(id, definition, language);
    }

    void checkLanguage(int id, const _alarm_def& definition, const std::string& language) {
        const std::string lacking = lackingIn(definition, language);
        if (!language.empty() && !lacking.empty())
            missing_[language].add(std::to_string(id) + " (" + lacking + ")");
        if (definition.message.empty() && !has(definition.messageLangs, language))
            warn(id, "empty-text",
                 "has no message text" +
                     (language.empty() ? std::string() : " in language " + inQuotes(language)) +
                     " and no default: mails show \"-\", SMS are without it");
    }

    static bool has(const std::vector<_translate>& texts, const std::string& language) {
        return std::any_of(texts.begin(), texts.end(), [&](const _translate& text) {
            return text.lang == language && !text.text.empty();
        });
    }

    // The names of the texts that are there and not in this language.
    static std::string lackingIn(const _alarm_def& definition, const std::string& language) {
        struct Text {
            const char* name;
            const std::string& text;
            const std::vector<_translate>& translations;
        };
        const Text texts[] = {{"message", definition.message, definition.messageLangs},
                              {"area", definition.area, definition.areaLangs},
                              {"device", definition.device, definition.deviceLangs}};
        std::string lacking;
        for (const Text& text : texts) {
            const bool there = text.text.find_first_not_of(' ') != std::string::npos;
            if (there && !has(text.translations, language))
                lacking += (lacking.empty() ? "" : ", ") + std::string(text.name);
        }
        return lacking;
    }

    const Project& project_;
    const AlarmPlaces& places_;
    Findings& findings_;
    Naming without_flags_, unused_;
    std::map<std::string, Naming> missing_;
};

Loaded checkGroupsInUse(const Project& project, Findings& findings) {
    Loaded loaded{project.definitions.size(), project.users, 0};
    Groups with_alarms;
    for (const auto& [id, groups] : project.groups_of) with_alarms |= groups;
    for (size_t g = 0; g < kNotifiedGroups; ++g) {
        if (project.audiences[g].users && with_alarms[g]) ++loaded.groups;
        if (project.audiences[g].users && !with_alarms[g])
            findings.note({fileExists(acc_list_json) ? acc_list_json : acc_list}, "group-without-alarms",
                          "group " + std::to_string(g) + " has users and no alarm: they get nothing by it");
    }
    return loaded;
}

}  // namespace

Loaded checkNotifications(const AlarmPlaces& places, Findings& findings) {
    const Project project = arrange();
    AlarmCheck check(project, places, findings);
    for (const auto& [id, definition] : project.definitions) check.look(id, definition);
    check.tell();
    return checkGroupsInUse(project, findings);
}
