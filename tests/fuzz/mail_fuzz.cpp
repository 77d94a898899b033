// Any texts and numbers in an alarm, its definition and its recipients: the mail that msmtp gets, and the
// SMS. Fields, in this order: state, times of activation, deactivation and acknowledge, the three values,
// severity, who acknowledged, message, area, device, language and text of a translation, the user's language,
// his mail address, his phone number, the sender's address, notifications off (1).
#include <algorithm>

#include "alarmd/mail/compose.h"
#include "alarmd/mail/mail_channel.h"
#include "alarmd/mail/mail_thread.h"
#include "tests/fuzz/world.h"

namespace {

constexpr int kAlarmId = 5;
constexpr size_t kLongestRow = 998;

_alarm_tag alarmFrom(fuzz::Fields& fields) {
    _alarm_tag alarm;
    alarm.id = kAlarmId;
    alarm.stat = static_cast<int>(fields.integer());
    alarm.atm[0] = fields.integer();
    alarm.dtm[0] = fields.integer();
    alarm.acktm[0] = fields.integer();
    alarm.av = fields.real();
    alarm.dv = fields.real();
    alarm.ackv = fields.real();
    alarm.sv = static_cast<int>(fields.integer());
    alarm.user = fields.text();
    return alarm;
}

_alarm_def definitionFrom(fuzz::Fields& fields) {
    _alarm_def definition;
    definition.id = kAlarmId;
    definition.message = fields.text();
    definition.area = fields.text();
    definition.device = fields.text();
    const std::string lang = fields.text();
    const std::string text = fields.text();
    definition.messageLangs = definition.areaLangs = definition.deviceLangs = {{lang, text}};
    return definition;
}

_user userFrom(fuzz::Fields& fields) {
    _user entry;
    entry.lang = fields.text();
    entry.mail = fields.text();
    entry.mobil = fields.text();
    return entry;
}

bool isStale(const _alarm_tag& alarm) {
    const TimeTriple& time = alarm.stat == kDeactivated ? alarm.dtm
                             : alarm.stat == kActivated ? alarm.atm
                                                        : alarm.acktm;
    return time[0] <= fuzz::world.nanoseconds / 1000000000 - ALARM_TIMEOUT;
}

std::string inHeader(std::string text) {
    std::erase_if(text, [](char c) { return c == '\r' || c == '\n'; });
    return text;
}

void checkHeader(const std::vector<std::string>& lines, const std::string& to, const std::string& about) {
    constexpr char kContentType[] = "Content-Type: multipart/mixed; boundary=\"";
    MUST(lines.size() > 11);
    MUST(lines[0] == "From: " + inHeader(mail_from));
    MUST(lines[1] == "To: " + inHeader(to.c_str()));
    MUST(lines[2] == "User-Agent: Korvato mailer");
    MUST(lines[3] == "MIME-Version: 1.0");
    MUST(lines[4] == "Subject: " + about);
    MUST(lines[5].starts_with(kContentType) && lines[5].ends_with("\""));
    const std::string boundary = lines[5].substr(sizeof kContentType - 1, 51);
    MUST(lines[5] == kContentType + boundary + "\"" && lines[6] == "--" + boundary);
    MUST(lines[7] == "Content-Type: text/html; charset=UTF-8" && lines[10].empty());
    MUST(lines[lines.size() - 3] == "--" + boundary + "--");
}

void checkMail(const fuzz::Mail& mail, const std::string& to, const std::string& about) {
    MUST(mail.client == binFolder + "/ext/msmtp/msmtp");
    MUST(mail.arguments ==
         (std::vector<std::string>{mail.client, "-C", msmtp_conf_file, "-a", "korvato", "-t"}));
    checkHeader(fuzz::parts(mail.message, '\n'), to, about);
}

// The alarm's row stands behind the row with the columns' names, and all behind it is whole however long it
// was.
void checkTable(const std::string& message) {
    constexpr std::string_view kBegin = "<table border=1>\n<TR><TD>MESSAGE</TD>";
    constexpr std::string_view kEndOfRow = "</TR>\n";
    constexpr std::string_view kEnd = "</table>\n</body>\n</html>\n\n--_";
    const size_t begin = message.find(css_string + std::string(kBegin));
    MUST(begin != std::string::npos);
    const size_t row = message.find(kEndOfRow, begin) + kEndOfRow.size();
    const size_t end = message.rfind(kEnd);
    MUST(end != std::string::npos && row <= end && end - row <= kLongestRow);
    MUST(message.compare(row, 8, "<TR><TD>") == 0);
    MUST(end - row == kLongestRow || message.compare(end - 6, 6, kEndOfRow) == 0);
}

}  // namespace

FUZZ_TARGET(mail) {
    fuzz::Fields fields(input);
    const _alarm_tag alarm = alarmFrom(fields);
    fuzz::defineAlarm(definitionFrom(fields));
    const _user recipient = userFrom(fields);
    fuzz::addUser(recipient);
    fuzz::addUser({2, "B", 0, "+420601000002", "b@plant.example", false, "cs"});
    mail_from = fields.text();
    binFolder = "/opt/korvato";
    disable_notification = fields.integer() == 1;

    const size_t expected = isStale(alarm) || disable_notification ? 0 : 2;
    fronta_mail.push(alarm);
    zpracuj_maily_by_users();
    MUST(fronta_mail.empty() && fuzz::world.mails.size() == expected);
    for (size_t i = 0; i < expected; ++i) {
        checkMail(fuzz::world.mails[i], i == 0 ? recipient.mail : "b@plant.example", "Online Alarming");
        checkTable(fuzz::world.mails[i].message);
    }

    fronta_sms.push(alarm);
    fuzz::sendWaitingSms();
    const size_t phones = recipient.mobil.empty() ? 1 : 2;
    MUST(fuzz::world.to_modem.size() == (expected == 0 ? 0 : 2 * phones));

    test_send = true;
    test_user = recipient.mail;
    fuzz::world.mails.clear();
    sendTestMail();
    MUST(fuzz::world.mails.size() == 1);
    checkMail(fuzz::world.mails[0], recipient.mail, "Testing email.");
}
