#include "alarmd/waiting/wait_list.h"

#include <algorithm>
#include <ctime>

#include "alarmd/alarmd.h"
#include "alarmd/base/queues_change.h"
#include "alarmd/waiting/resend_policy.h"
#include "knihovny/clock.h"
#include "knihovny/debugerror.h"

namespace {

// The last entry of that id in wait_for_ack, or its end.
std::vector<_alarm_tag>::iterator lastWaiting(int id) {
    const auto found = std::find_if(wait_for_ack.rbegin(), wait_for_ack.rend(),
                                    [id](const _alarm_tag& waiting) { return waiting.id == id; });
    return found == wait_for_ack.rend() ? wait_for_ack.end() : std::prev(found.base());
}

// Looks at the entry at position i of wait_for_ack: resends it, drops it or leaves it.
void checkWaiting(size_t i, int64_t now, std::string& log) {
    _alarm_tag& waiting = wait_for_ack[i];
    const ResendPolicy policy{resend_period1_timeout, resend_period1_quantity, resend_period2_timeout,
                              resend_max_quantity};
    const ResendStep step = resendStep(policy, waiting.last_notifiction, waiting.notificaion_no, now);
    resend_actual_timeout = step.pause;
    AppendLine(log, "| ", waiting.id, "\t|", waiting.last_notifiction, "\t|", waiting.notificaion_no, "\t|",
               resend_actual_timeout, "\t\t|");
    if (step.resend) {
        waiting.last_notifiction = now;
        waiting.notificaion_no++;
        fronta_sms.push(waiting);
    }
    if (step.drop) wait_for_ack.erase(wait_for_ack.begin() + static_cast<std::ptrdiff_t>(i));
}

}  // namespace

void uloz_alarm_wait_ack(int id, int stat, std::string& log) {
    if (!resend_enable) return;
    AppendLine(log, ":: Saving alarm into wait_for_ack...");
    const auto waiting = lastWaiting(id);
    const bool found = waiting != wait_for_ack.end();
    alarm_tag.last_notifiction = Now();
    alarm_tag.notificaion_no = 0;
    if (stat == kActivated && !found) wait_for_ack.push_back(alarm_tag);
    if ((stat == kDeactivated || stat == kAcknowledged) && found) wait_for_ack.erase(waiting);
}

void uloz_alarm_wait_ack(int id, int stat) {
    std::string log;
    uloz_alarm_wait_ack(id, stat, log);
    Print(log);
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
