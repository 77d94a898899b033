#include "alarmd/mail/mail_thread.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "alarmd/alarmd.h"
#include "alarmd/mail/compose.h"
#include "alarmd/mail/mail_channel.h"
#include "alarmd/notify/direct_road.h"
#include "alarmd/notify/event.h"
#include "alarmd/notify/recipients.h"
#include "alarmd/notify/stale_alarm.h"
#include "alarmd/project/texts.h"
#include "knihovny/clock.h"
#include "knihovny/debugerror.h"

std::string subject;
std::string test;

namespace {

MailChannel mail_channel;
DirectRoad direct_road(mail_channel, daemon_events);

constexpr unsigned kStartPauseSeconds = 2;
constexpr unsigned kPassPauseSeconds = 3;
struct Recipient {
    int group;
    const _user& user;
};

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

// False when no more mails should be tried, because a client hung at a stop request.
bool deliver(const _alarm_tag& alarm, const Recipient& recipient, std::string body) {
    if (testing_email != 0) return true;
    if (disable_notification) {
        PrintLine("Notification DISABLED !!!!");
        return true;
    }
    PrintLine(color_mail, "-> Odesilam mail - group: ", recipient.group, " email: ", recipient.user.mail,
              color_off);
    const bool goes_on = mail_road->submit({ChannelKind::kMail, eventOf(alarm), recipient.group,
                                            recipient.user.id, recipient.user.mail, std::move(body)});
    PrintLine("-> Odeslan");
    return goes_on;
}

bool makeMail(const _alarm_tag& alarm, const Recipient& recipient) {
    const std::string lang = languageOf(recipient.user);
    const _langs texts = getTextForLangs(alarm.id, lang);
    printRecipient(alarm, recipient, lang, texts);
    subject = "\"Alarming-immediately\"";
    test = '0';
    return deliver(alarm, recipient, alarmMailBody(alarm, texts));
}

// Makes the alarm's mails. Returns how many were given up, because a client hung in this pass.
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
            } else {
                hung = !makeMail(alarm, {group.group, member});
            }
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

DeliveryRoad* mail_road = &direct_road;

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
    mail_road->pump(Now());
    if (given_up > 0) PrintErrorLine("Stop requested, mails not sent: ", given_up);
}
