#include "alarmd/intake/notification_queues.h"

#include <algorithm>
#include <ctime>

#include "alarmd/alarmd.h"
#include "alarmd/notify/event.h"
#include "alarmd/notify/stale_alarm.h"
#include "alarmd/project/alarm_definitions.h"
#include "knihovny/debugerror.h"

namespace {

// Holds thr_lock up for the length of a block.
class QueuesChange {
  public:
    QueuesChange() { thr_lock = true; }
    ~QueuesChange() { thr_lock = false; }
    QueuesChange(const QueuesChange&) = delete;
    QueuesChange& operator=(const QueuesChange&) = delete;
};

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

// The last entry of that id in wait_for_ack, or its end.
std::vector<_alarm_tag>::iterator lastWaiting(int id) {
    const auto found = std::find_if(wait_for_ack.rbegin(), wait_for_ack.rend(),
                                    [id](const _alarm_tag& waiting) { return waiting.id == id; });
    return found == wait_for_ack.rend() ? wait_for_ack.end() : std::prev(found.base());
}

void keepWaitForAck(int id, int stat, std::string& log) {
    if (!resend_enable) return;
    AppendLine(log, ":: Saving alarm into wait_for_ack...");
    const auto waiting = lastWaiting(id);
    const bool found = waiting != wait_for_ack.end();
    alarm_tag.last_notifiction = time(nullptr);
    alarm_tag.notificaion_no = 0;
    if (stat == kActivated && !found) wait_for_ack.push_back(alarm_tag);
    if ((stat == kDeactivated || stat == kAcknowledged) && found) wait_for_ack.erase(waiting);
}

// Looks at the entry at position i of wait_for_ack: resends it, drops it or leaves it.
void checkWaiting(size_t i, int64_t now, std::string& log) {
    _alarm_tag& waiting = wait_for_ack[i];
    const bool first_period = waiting.notificaion_no < resend_period1_quantity;
    resend_actual_timeout = first_period ? resend_period1_timeout : resend_period2_timeout;
    AppendLine(log, "| ", waiting.id, "\t|", waiting.last_notifiction, "\t|", waiting.notificaion_no, "\t|",
               resend_actual_timeout, "\t\t|");
    if (waiting.last_notifiction + resend_actual_timeout >= now) return;
    if (waiting.notificaion_no < resend_max_quantity) {
        waiting.last_notifiction = now;
        waiting.notificaion_no++;
        fronta_sms.push(waiting);
    }
    if (waiting.notificaion_no >= resend_max_quantity) {
        wait_for_ack.erase(wait_for_ack.begin() + static_cast<std::ptrdiff_t>(i));
    }
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
    if (notify.until_ack) keepWaitForAck(alarm_tag.id, stat, log);
}

void uloz_alarm(int stat) {
    std::string log;
    uloz_alarm(stat, log);
    Print(log);
}

void uloz_alarm_wait_ack(int id, int stat) {
    std::string log;
    keepWaitForAck(id, stat, log);
    Print(log);
}

void dropStaleSms() {
    if (vlakno_sms != 0) return;
    const auto stale = [](const _alarm_tag& alarm) { return isStale(eventTime(alarm)[0]); };
    for (const _alarm_tag& alarm : fronta_sms.removeIf(stale)) printStale(eventTime(alarm)[0]);
}

void checkResend(int64_t now) {
    constexpr char kRule[] = "-------------------------------------------------";
    last_resend = now;
    std::string log = "--> Check Re-Send Queue\n";
    if (!wait_for_ack.empty()) {
        QueuesChange change;
        AppendLine(log, kRule);
        AppendLine(log, "| Queue WAIT_FOR_ACK size: ", wait_for_ack.size());
        AppendLine(log, kRule);
        AppendLine(log, "| id\t| last notif\t|count\t|actual timeout\t|");
        AppendLine(log, kRule);
        // i moves on after a removal too: no entry is looked at out of its turn, and each walk takes one
        // pass.
        for (size_t i = 0; i < wait_for_ack.size(); i++) checkWaiting(i, now, log);
        AppendLine(log, kRule);
    }
    Print(log);
}
