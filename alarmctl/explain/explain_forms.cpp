#include "alarmctl/explain/explain_forms.h"

#include <vector>

#include "alarmctl/daemon/daemon_answers.h"
#include "alarmctl/text/sms_length.h"
#include "alarmctl/text/wording.h"
#include "alarmd/mail/compose.h"
#include "alarmd/notify/event.h"
#include "alarmd/project/texts.h"

namespace {

std::string clean(const std::string& text) {
    return printable(wellFormed(text));
}

std::string yesNo(bool value) {
    return value ? "on" : "off";
}

using Row = std::vector<std::string>;

// Rows with aligned columns, two blanks in front.
std::string table(const std::vector<Row>& rows) {
    std::vector<size_t> widths;
    for (const Row& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], charactersOf(row[i]).size());
    }
    std::string text;
    for (const Row& row : rows) {
        std::string line = " ";
        for (size_t i = 0; i < row.size(); ++i)
            line += " " + row[i] + std::string(widths[i] - charactersOf(row[i]).size() + 1, ' ');
        text += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
    }
    return text;
}

std::string groupCell(int number) {
    const std::string name = clean(groupName(number));
    return "group " + std::to_string(number) + (name.empty() ? "" : " " + name);
}

std::string alarmLines(const Explanation& explanation) {
    const _alarm_def& definition = explanation.definition;
    std::string text = "Alarm " + std::to_string(explanation.alarm.id) + ", " +
                       ruleOf(explanation.alarm.stat).name + ": " + clean(inQuotes(definition.message)) +
                       "\n";
    std::string groups;
    for (const int number : explanation.groups) groups += (groups.empty() ? "" : ", ") + groupCell(number);
    text += table({{"severity", std::to_string(definition.severity)},
                   {"tag", clean(definition.tag)},
                   {"area", clean(definition.area)},
                   {"device", clean(definition.device)},
                   {"flags", "mail " + yesNo(definition.email) + ", SMS on activation " +
                                 yesNo(definition.smsact) + ", deactivation " + yesNo(definition.smsdeact) +
                                 ", acknowledge " + yesNo(definition.smsack)},
                   {"groups", groups.empty() ? "none" : groups}});
    return text;
}

std::string mailLines(const Explanation& explanation) {
    if (explanation.mails.empty()) return "\nNobody gets a mail: " + clean(explanation.no_mail) + ".\n";
    std::vector<Row> rows;
    for (const Delivery& mail : explanation.mails) {
        const bool address = !mail.user.mail.empty();
        rows.push_back({groupCell(mail.group), clean(mail.user.name), languageOf(mail.user),
                        address ? clean(mail.user.mail) : "no address: the mail client refuses it"});
    }
    return "\n" + counted(explanation.mails.size(), "mail") + "\n" + table(rows);
}

std::string foreignList(const SmsLength& length) {
    Naming naming;
    for (const char32_t character : length.foreign)
        naming.add(printable(utf8Of(character)) + " (" + codePointName(character) + ")");
    return naming.names();
}

std::string lengthText(const SmsLength& length) {
    const SmsCapacity capacity = length.gsm ? kGsmCapacity : kUcs2Capacity;
    const std::string most = length.messages > 1 ? std::to_string(capacity.part) + " in each"
                                                 : "of " + std::to_string(capacity.single);
    std::string text = std::to_string(length.messages) + " SMS, " + std::to_string(length.units) +
                       (length.gsm ? " septets " : " UCS-2 units ") + most;
    if (!length.gsm) text += ", for the GSM 7-bit alphabet lacks " + foreignList(length);
    return text;
}

std::string smsLines(const Explanation& explanation) {
    if (explanation.messages.empty()) return "\nNobody gets an SMS: " + clean(explanation.no_sms) + ".\n";
    std::vector<Row> rows;
    for (const Delivery& message : explanation.messages) {
        rows.push_back({groupCell(message.group), clean(message.user.name), languageOf(message.user),
                        clean(message.user.mobil), "text " + std::to_string(message.text + 1)});
    }
    std::string text = "\n" + counted(explanation.messages.size(), "message") + " by SMS\n" + table(rows);
    for (size_t i = 0; i < explanation.texts.size(); ++i) {
        text += "  text " + std::to_string(i + 1) + ": " + clean(explanation.texts[i]) + "\n    " +
                lengthText(smsLength(explanation.texts[i])) + "\n";
    }
    return text;
}

// What tells a mail from another: its header and what stands in its row.
std::string shownMailLines(const Explanation& explanation) {
    if (explanation.mails.empty()) return "";
    const Delivery& mail = shownMail(explanation);
    const _langs texts = getTextForLangs(explanation.alarm.id, mail.language);
    return "\nThe mail to " + clean(mail.user.name) + " (whole: --mail, for a browser: --html FILE)\n" +
           table({{"From", clean(mail_from)},
                  {"To", clean(mail.user.mail)},
                  {"Subject", kAlarmSubject},
                  {"message", clean(texts.messageLangs)},
                  {"area", clean(texts.areaLangs)},
                  {"device", clean(texts.deviceLangs)}});
}

Json::Value deliveryJson(const Delivery& delivery) {
    Json::Value json;
    json["group"] = delivery.group;
    json["groupName"] = wellFormed(groupName(delivery.group));
    json["id"] = delivery.user.id;
    json["name"] = wellFormed(delivery.user.name);
    json["language"] = wellFormed(languageOf(delivery.user));
    return json;
}

Json::Value textJson(const std::string& text) {
    const SmsLength length = smsLength(text);
    Json::Value json;
    json["text"] = wellFormed(text);
    json["alphabet"] = length.gsm ? "GSM 7-bit" : "UCS-2";
    json["units"] = Json::UInt64(length.units);
    json["messages"] = Json::UInt64(length.messages);
    json["foreign"] = Json::Value(Json::arrayValue);
    for (const char32_t character : length.foreign) json["foreign"].append(utf8Of(character));
    return json;
}

Json::Value mailsJson(const Explanation& explanation) {
    Json::Value json(Json::arrayValue);
    for (const Delivery& mail : explanation.mails) {
        Json::Value entry = deliveryJson(mail);
        entry["address"] = wellFormed(mail.user.mail);
        json.append(std::move(entry));
    }
    return json;
}

Json::Value messagesJson(const Explanation& explanation) {
    Json::Value json(Json::arrayValue);
    for (const Delivery& message : explanation.messages) {
        Json::Value entry = deliveryJson(message);
        entry["number"] = wellFormed(message.user.mobil);
        entry["text"] = Json::UInt64(message.text);
        json.append(std::move(entry));
    }
    return json;
}

}  // namespace

std::string explanationText(const Explanation& explanation) {
    return alarmLines(explanation) + mailLines(explanation) + smsLines(explanation) +
           shownMailLines(explanation);
}

Json::Value explanationJson(const Explanation& explanation) {
    Json::Value json;
    json["alarm"] = explanation.alarm.id;
    json["state"] = ruleOf(explanation.alarm.stat).name;
    json["severity"] = explanation.definition.severity;
    json["groups"] = Json::Value(Json::arrayValue);
    for (const int number : explanation.groups) json["groups"].append(number);
    json["mails"] = mailsJson(explanation);
    json["sms"] = messagesJson(explanation);
    json["texts"] = Json::Value(Json::arrayValue);
    for (const std::string& text : explanation.texts) json["texts"].append(textJson(text));
    if (!explanation.no_mail.empty()) json["noMail"] = wellFormed(explanation.no_mail);
    if (!explanation.no_sms.empty()) json["noSms"] = wellFormed(explanation.no_sms);
    json["mail"] = Json::Value();
    if (!explanation.mails.empty()) {
        const Delivery& mail = shownMail(explanation);
        json["mail"]["to"] = wellFormed(mail.user.mail);
        json["mail"]["message"] = wellFormed(mailMessage(explanation, mail));
    }
    return json;
}
