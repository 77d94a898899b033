#include "alarmctl/explain/explain.h"

#include <algorithm>

#include "alarmd/base/files.h"
#include "alarmd/mail/compose.h"
#include "alarmd/notify/event.h"
#include "alarmd/notify/recipients.h"
#include "alarmd/project/texts.h"
#include "alarmd/sms/compose.h"

namespace {

// An alarm that is deactivated or acknowledged was activated before.
_alarm_tag sampleAlarm(const Question& question, const _alarm_def& definition, int64_t now) {
    _alarm_tag alarm;
    alarm.id = question.id;
    alarm.stat = question.state;
    alarm.sv = definition.severity;
    alarm.atm[0] = now;
    (alarm.*ruleOf(question.state).moment)[0] = now;
    return alarm;
}

bool isAskedFor(const _user& user_entry, const std::string& wanted) {
    return wanted.empty() || user_entry.name == wanted || user_entry.mail == wanted ||
           user_entry.mobil == wanted || std::to_string(user_entry.id) == wanted;
}

void lookUpDefinition(const Question& question, Explanation& result) {
    MutexLock lock(project_mutex);
    const auto found = alarm_def_map.find(question.id);
    result.known = found != alarm_def_map.end();
    if (!result.known) return;
    result.definition = found->second;
    for (int number = 0; number < kGroups; ++number) {
        const std::list<int>& ids = list_group[number].alarm_ids;
        if (std::find(ids.begin(), ids.end(), question.id) != ids.end()) result.groups.push_back(number);
    }
    result.user_found = question.user.empty() ||
                        std::any_of(user_list.begin(), user_list.end(),
                                    [&](const _user& entry) { return isAskedFor(entry, question.user); });
}

// "group 1" or "groups 1, 3"; notified: without those that are never notified.
std::string groupList(const std::vector<int>& groups, bool notified) {
    std::string numbers;
    size_t count = 0;
    for (const int number : groups) {
        if (notified && number >= kNotifiedGroups) continue;
        numbers += (count++ > 0 ? ", " : "") + std::to_string(number);
    }
    return (count == 1 ? "group " : "groups ") + numbers;
}

// Why nobody is there to be told, whatever the flags are; empty when somebody is. reached: users of notified
// groups of the alarm, before the choice of one.
std::string whyNobody(const Explanation& explanation, const Question& question, size_t reached,
                      size_t chosen) {
    if (explanation.groups.empty()) return "the alarm is in no group";
    if (explanation.groups.front() >= kNotifiedGroups)
        return "the alarm is in " + groupList(explanation.groups, false) + " only, which is never notified";
    if (reached == 0) {
        const bool csv = !fileExists(acc_list_json) && fileExists(acc_list);
        return csv ? "the users are in list.acc, and only those of users.json are told of alarms"
                   : "there are no users in " + groupList(explanation.groups, true);
    }
    if (chosen == 0) return question.user + " is not in " + groupList(explanation.groups, true);
    return "";
}

size_t textIndex(const std::string& text, std::vector<std::string>& texts) {
    const auto found = std::find(texts.begin(), texts.end(), text);
    const size_t index = static_cast<size_t>(found - texts.begin());
    if (found == texts.end()) texts.push_back(text);
    return index;
}

void addSms(int group, const _user& recipient, Explanation& result) {
    if (recipient.mobil.empty()) return;
    const std::string message = getTextForLangs(result.alarm.id, recipient.lang).messageLangs;
    const size_t text = textIndex(alarmSmsText(result.alarm, message), result.texts);
    result.messages.push_back({group, recipient, recipient.lang, text});
}

}  // namespace

std::string groupName(int number) {
    MutexLock lock(project_mutex);
    return list_group[number].groupname;
}

Explanation explain(const Question& question, int64_t now) {
    Explanation result;
    lookUpDefinition(question, result);
    if (!result.known) return result;
    result.alarm = sampleAlarm(question, result.definition, now);
    const bool by_sms = wantsSms(result.definition, question.state);
    size_t reached = 0, chosen = 0;
    for (const NotifiedGroup& group : recipientsOf(question.id)) {
        reached += group.users.size();
        for (const _user& recipient : group.users) {
            if (!isAskedFor(recipient, question.user)) continue;
            ++chosen;
            if (result.definition.email)
                result.mails.push_back({group.group, recipient, languageOf(recipient)});
            if (by_sms) addSms(group.group, recipient, result);
        }
    }
    const std::string nobody = whyNobody(result, question, reached, chosen);
    if (result.mails.empty())
        result.no_mail = result.definition.email ? nobody : "the definition's e-mail flag (email) is off";
    if (result.messages.empty()) {
        result.no_sms = by_sms ? nobody
                               : std::string("the definition's flag for ") +
                                     ruleOf(question.state).sms_flag_name + " is off";
        if (result.no_sms.empty()) result.no_sms = "nobody there has a number";
    }
    return result;
}

std::string mailBody(const Explanation& explanation, const Delivery& mail) {
    return alarmMailBody(explanation.alarm, getTextForLangs(explanation.alarm.id, mail.language));
}

std::string mailMessage(const Explanation& explanation, const Delivery& mail) {
    return composeMessage(mail.user.mail, mailBody(explanation, mail), kAlarmSubject);
}

const Delivery& shownMail(const Explanation& explanation) {
    const auto found = std::find_if(explanation.mails.begin(), explanation.mails.end(),
                                    [](const Delivery& mail) { return !mail.user.mail.empty(); });
    return found == explanation.mails.end() ? explanation.mails.front() : *found;
}
