#include "alarmd/mail/mail_thread.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "alarmd/alarmd.h"
#include "alarmd/mail/mail.h"
#include "alarmd/notify/event.h"
#include "alarmd/notify/recipients.h"
#include "alarmd/notify/stale_alarm.h"
#include "alarmd/project/texts.h"
#include "knihovny/debugerror.h"

std::string subject;
std::string test;

namespace {

constexpr unsigned kStartPauseSeconds = 2;
constexpr unsigned kPassPauseSeconds = 3;
constexpr size_t kRowBuffer = 999;  // bytes with the zero; a longer row is cut

constexpr char kTableHead[] =
    "<table border=1>\n"
    "<TR><TD>MESSAGE</TD><TD>STATUS</TD><TD>SEV</TD><TD>AREA</TD><TD>DEVICE</TD><TD>ACT TIME</TD><TD>DEACT "
    "TIME</TD>"
    "<TD>ACK TIME</TD><TD>ACT VAL</TD><TD>DEACT VAL</TD><TD>ACK VAL</TD><TD>USER</TD></TR>\n";
constexpr char kTail[] =
    "</table>\n"
    "</body>\n"
    "</html>\n";

struct Recipient {
    int group;
    const _user& user;
};

std::string dashIfEmpty(const std::string& text) {
    return text.empty() ? "-" : text;
}

// An empty device stays empty; only the single blank that stands for "no device" in the project files gives a
// dash.
std::string dashIfBlank(const std::string& text) {
    return text == " " ? "-" : text;
}

std::string tableRow(const _alarm_tag& alarm, const char* status, const _langs& texts) {
    char row[kRowBuffer];
    const int length = snprintf(
        row, sizeof row,
        "<TR><TD>%s</TD><TD>%s</TD><TD>%d</TD><TD>%s</TD><TD>%s</TD><TD>%s</TD><TD>%s</TD>"
        "<TD>%s</TD><TD>%.2f</TD><TD>%.2f</TD><TD>%.2f</TD><TD>%s</TD></TR>\n",
        dashIfEmpty(texts.messageLangs).c_str(), status, alarm.sv, dashIfEmpty(texts.areaLangs).c_str(),
        dashIfBlank(texts.deviceLangs).c_str(), getReadebleTime(alarm.atm[0]).c_str(),
        getReadebleTime(alarm.dtm[0]).c_str(), getReadebleTime(alarm.acktm[0]).c_str(), alarm.av, alarm.dv,
        alarm.ackv, dashIfEmpty(alarm.user).c_str());
    if (length < 0) return "";
    return {row, std::min(static_cast<size_t>(length), sizeof row - 1)};
}

void printRecipient(const _alarm_tag& alarm, const Recipient& recipient, const std::string& lang,
                    const _langs& texts) {
    std::string lines;
    AppendLine(lines, color_mail, "(MAIL FOR USER) GROUP: ", recipient.group, " - FOUND alarm ID: ", alarm.id,
               color_off);
    AppendLine(lines, "-> Language: ", lang);
    AppendLine(lines, "-> Mail: ", recipient.user.mail);
    AppendLine(lines, "-> Device lang: ", texts.deviceLangs);
    AppendLine(lines, "-> Area lang: ", texts.areaLangs);
    AppendLine(lines, "-> Message lang: ", texts.messageLangs);
    Print(lines);
}

void deliver(const Recipient& recipient, std::string body) {
    if (testing_email != 0) return;
    if (disable_notification) {
        PrintLine("Notification DISABLED !!!!");
        return;
    }
    PrintLine(color_mail, "-> Odesilam mail - group: ", recipient.group, " email: ", recipient.user.mail,
              color_off);
    send_mail(recipient.user.mail.c_str(), std::move(body), subject.c_str(), "");
    PrintLine("-> Odeslan");
}

void makeMail(const _alarm_tag& alarm, const Recipient& recipient) {
    const std::string lang = languageOf(recipient.user);
    const _langs texts = getTextForLangs(alarm.id, lang);
    printRecipient(alarm, recipient, lang, texts);
    subject = "\"Alarming-immediately\"";
    test = '0';
    deliver(recipient, alarmMailBody(alarm, texts));
}

// Makes the alarm's mails. Returns how many were given up, because a client hung at a stop request in this
// pass.
int handleAlarm(const _alarm_tag& alarm, bool& hung) {
    const int64_t event_time = eventTime(alarm)[0];
    if (isStale(event_time)) {
        printStale(event_time);
        return 0;
    }
    int given_up = 0;
    for (const NotifiedGroup& group : recipientsOf(alarm.id)) {
        for (const _user& member : group.users) {
            if (hung) {
                ++given_up;
                continue;
            }
            makeMail(alarm, {group.group, member});
            hung = mailClientHung();
        }
    }
    return given_up;
}

void printPassHeader() {
    char line[96];
    const int length = snprintf(line, sizeof line, "%c[%d;%d;%dm-->%s (queue:%d) %c[%d;%d;%dm\n", 27, 0, 0,
                                31, "Thread mail", fronta_mail.size(), 27, 0, 0, 37);
    Print({line, static_cast<size_t>(length)});
}

}  // namespace

std::string alarmMailBody(const _alarm_tag& alarm, const _langs& texts) {
    return css_string + kTableHead + tableRow(alarm, ruleOf(alarm.stat).mail_word, texts) + kTail;
}

void vlakno_m() {
    sleep(kStartPauseSeconds);
    vlakno_mail = 1;
    while (!konec) {
        if (!thr_lock) {
            printPassHeader();
            zpracuj_maily_by_users();
        }
        sleep(kPassPauseSeconds);
    }
    PrintLine("Koncim Vlakno mail.........");
    vlakno_mail = 0;
}

void zpracuj_maily_by_users() {
    _alarm_tag alarm;
    bool hung = false;
    int given_up = 0;
    while (fronta_mail.take(alarm)) given_up += handleAlarm(alarm, hung);
    if (given_up > 0) PrintErrorLine("Stop requested, mails not sent: ", given_up);
}
