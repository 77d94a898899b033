#include "alarmd/project/users.h"

#include <list>
#include <string>
#include <utility>
#include <vector>

#include "alarmd/alarmd.h"
#include "alarmd/base/complaint.h"
#include "alarmd/base/files.h"
#include "alarmd/project/csv_file.h"
#include "alarmd/project/group_number.h"
#include "alarmd/project/json_file.h"
#include "alarmd/project/texts.h"
#include "knihovny/debugerror.h"

namespace {

constexpr size_t kBatch = 1000;  // lines that are stored at once

enum UserColumn { kGroup = 2, kMail = 3, kMobil = 4, kUserColumns = 5 };

// Recipients in file order, by group.
struct Batch {
    std::list<std::string> mail[kGroups];
    std::list<std::string> mobil[kGroups];
    std::vector<_user> users;
};

void resetRecipients() {
    MutexLock lock(project_mutex);
    for (int g = 0; g < kNotifiedGroups; ++g) {
        _group& group = list_group[g];
        group.mail.clear();
        group.mail_list.clear();
        group.use_mail = 0;
        group.mobil.clear();
        group.mobil_list.clear();
        group.use_mobil = 0;
        group.count = 0;
    }
}

// Moves the batch into the project data and leaves it empty.
void store(Batch& batch) {
    MutexLock lock(project_mutex);
    for (int g = 0; g < kGroups; ++g) {
        _group& group = list_group[g];
        group.mail.splice(group.mail.end(), batch.mail[g]);
        group.mobil.splice(group.mobil.end(), batch.mobil[g]);
    }
    for (_user& entry : batch.users) {
        list_group[entry.group].users.push_back(entry);
        user_list.push_back(std::move(entry));
    }
    batch.users.clear();
}

void addRow(const CsvFile& file, Batch& batch) {
    constexpr std::string_view kNobody = " ";
    const int group = leadingNumber(file[kGroup]);
    if (!isGroup(group)) file.complainOfLine(noSuchGroup(group));
    if (isGroup(group) && file[kMail] != kNobody) batch.mail[group].emplace_back(file[kMail]);
    if (file.size() < kUserColumns) {
        store(batch);
        complainAndEnd({ComplaintCode::kFourColumns, acc_list,
                        "4 columns, the 5th one (phone number) is missing", file.lineNumber()});
    }
    if (isGroup(group) && file[kMobil] != kNobody) batch.mobil[group].emplace_back(file[kMobil]);
}

void loadRows() {
    Batch batch;
    CsvFile file(acc_list);
    size_t rows = 0;
    while (file.next()) {
        if (file.size() <= kMail) continue;
        addRow(file, batch);
        if (++rows % kBatch == 0) store(batch);
    }
    store(batch);
}

_user userFrom(const JsonElement& element) {
    _user entry;
    entry.group = element.number("level");
    entry.id = element.number("id");
    entry.mail = element.text("mail");
    entry.mobil = element.text("tel");
    entry.name = element.text("name");
    entry.lang = element.text("language");
    entry.sms_control = element.flag("smsControl");
    return entry;
}

void addUser(_user entry, Batch& batch, Remark& remark) {
    if (entry.mobil.empty() && entry.mail.empty()) return;
    if (!isGroup(entry.group)) {
        remark = noSuchGroup(entry.group);
        return;
    }
    if (!entry.mobil.empty()) batch.mobil[entry.group].push_back(entry.mobil);
    if (!entry.mail.empty()) batch.mail[entry.group].push_back(entry.mail);
    batch.users.push_back(std::move(entry));
}

// What a kept user leaves behind in the working record.
void leaveWorkingRecord(const _user& last) {
    user = last;
    user.name.clear();
    user.mobil.clear();
    user.group = 0;
    user.sms_control = false;
}

void loadElements() {
    Json::Value root;
    if (!readJsonArray(acc_list_json, "users.json", root)) return;
    Batch batch;
    convertElements(acc_list_json, root, [&](const JsonElement& element, Remark& remark) {
        addUser(userFrom(element), batch, remark);
    });
    if (!batch.users.empty()) leaveWorkingRecord(batch.users.back());
    store(batch);
}

// Joins items to "a,b" and returns whether there is anything in it, as 1 or 0.
int joinInto(std::string& joined, const std::list<std::string>& items) {
    for (const std::string& item : items) joined += item + ",";
    if (joined.size() <= 1) return 0;
    joined.pop_back();
    return 1;
}

void appendRecipients(std::string& text, _group& group) {
    for (const std::string& address : group.mail) AppendLine(text, "------------> ", address);
    group.use_mail = joinInto(group.mail_list, group.mail);
    if (group.use_mail != 0) AppendLine(text, "Mail list: ", group.mail_list);
    text += "Alarm list: ";
    for (const int id : group.alarm_ids) {
        text += ' ';
        AppendPart(text, id);
    }
    text += '\n';
    group.use_mobil = joinInto(group.mobil_list, group.mobil);
    if (group.use_mobil != 0) AppendLine(text, "Mobil list: ", group.mobil_list);
}

void appendGroup(std::string& text, int number, bool with_users) REQUIRES(project_mutex) {
    _group& group = list_group[number];
    group.group_id = number;
    text += "..............\n";
    AppendLine(text, "Group: ", number, "(", group.groupname, ")");
    appendRecipients(text, group);
    AppendLine(text, "Use_mail: ", group.use_mail);
    AppendLine(text, "Use_mobil: ", group.use_mobil);
    AppendLine(text, "Max_severity: ", group.max_severity);
    AppendLine(text, "Reporting: ", group.periodic_mail);
    if (!with_users) return;
    text += "-> User struct list: \n";
    for (const _user& entry : group.users) {
        AppendLine(text, "-> Name: ", entry.name, "\tMail: ", entry.mail, "\tMobil: ", entry.mobil,
                   "\tLanguage: ", languageOf(entry));
    }
}

// Completes the derived fields of groups 0 to 9 and prints them.
void summariseGroups(bool with_users) {
    std::string text;
    {
        MutexLock lock(project_mutex);
        for (int group = 0; group < kNotifiedGroups; ++group) appendGroup(text, group, with_users);
    }
    Print(text + "-----------------------------------------\n");
}

void printUsers() {
    std::string text = "=> List user_list struct\n##################\n";
    {
        MutexLock lock(project_mutex);
        for (const _user& entry : user_list) {
            AppendLine(text, "ID: ", entry.id);
            AppendLine(text, "Name: ", entry.name);
            AppendLine(text, "Mobil: ", entry.mobil);
            AppendLine(text, "Group: ", entry.group);
            AppendLine(text, "SMS_Control: ", entry.sms_control);
            AppendLine(text, "Language: ", languageOf(entry));
            AppendLine(text, "##################");
        }
    }
    Print(text);
}

}  // namespace

void readUser() {
    resetRecipients();
    PrintLine("Nacitam list.acc");
    if (fileExists(acc_list)) {
        PrintLine("-->Prse file list.acc");
        loadRows();
    } else {
        PrintLine("File list.acc not exist!");
    }
    summariseGroups(false);
}

void readUserJson() {
    PrintLine("Nacitam user.json");
    resetRecipients();
    loadElements();
    if (dbglev > 0) printUsers();
    PrintLine("=> List list_group struct");
    summariseGroups(true);
}
