#include "alarmd/intake/notification_queues.h"

#include "alarmd/alarmd.h"
#include "alarmd/base/queues_change.h"
#include "alarmd/notify/daemon_events.h"
#include "alarmd/notify/event.h"
#include "alarmd/notify/stale_alarm.h"
#include "alarmd/project/alarm_definitions.h"
#include "alarmd/waiting/wait_list.h"
#include "knihovny/debugerror.h"

namespace {

// What an alarm's definition says about its notification.
struct Notify {
    bool mail;
    bool sms;        // on this state
    bool until_ack;  // its end or its acknowledge is reported by SMS
};

Notify notifyOf(int id, int stat) {
    MutexLock lock(project_mutex);
    const _alarm_def& definition = definitionFor(id);
    return {definition.email, wantsSms(definition, stat),
            wantsSms(definition, kAcknowledged) || wantsSms(definition, kDeactivated)};
}

}  // namespace

void uloz_alarm(int stat, std::string& log) {
    QueuesChange change;
    AppendLine(log, ":: Check alarm (sms,email) if configured for queue...");
    const Notify notify = notifyOf(alarm_tag.id, stat);
    if (notify.mail) {
        fronta_mail.push(alarm_tag);
        AppendLine(log, "::-> Saving MAIL into fronta_mail");
    }
    if (notify.sms) {
        fronta_sms.push(alarm_tag);
        AppendLine(log, "::-> Saving SMS ", ruleOf(stat).queue_word, " into fronta_sms");
    }
    // SMS on activation alone keep nothing waiting.
    if (notify.until_ack) uloz_alarm_wait_ack(alarm_tag.id, stat, log);
    daemon_events.publish(AlarmTaken{eventOf(alarm_tag)});
}

void uloz_alarm(int stat) {
    std::string log;
    uloz_alarm(stat, log);
    Print(log);
}

void dropStaleSms() {
    if (vlakno_sms != 0) return;
    const auto stale = [](const _alarm_tag& alarm) { return isStale(eventTime(alarm)[0]); };
    for (const _alarm_tag& alarm : fronta_sms.removeIf(stale)) printStale(eventTime(alarm)[0]);
}

bool alarmQueuesRanEmpty() {
    static bool alarms_waited = false;
    const bool alarms_wait = !fronta_mail.empty() || !fronta_sms.empty();
    const bool ran_empty = alarms_waited && !alarms_wait;
    alarms_waited = alarms_wait;
    return ran_empty;
}
