// Which queues a new alarm goes into, and the list of alarms that wait for an acknowledge. Main thread only.
#pragma once

#include <cstdint>
#include <string>

// Queues the alarm now in alarm_tag for mail and SMS, by its definition's flags and the state stat, and keeps
// wait_for_ack for a definition with SMS on deactivation or acknowledge. An alarm without a definition gets
// an empty one and is not queued. Raises thr_lock while it works. Prints what it did; the second form appends
// that to log.
void uloz_alarm(int stat);
void uloz_alarm(int stat, std::string& log);

// Adds the alarm in alarm_tag to wait_for_ack on an activation, removes it on deactivation or acknowledge,
// and dates alarm_tag as notified now. Does nothing unless resend_enable is set. Prints what it did.
void uloz_alarm_wait_ack(int id, int stat);

// While no SMS thread works on fronta_sms (no port, no modem, the thread ended), drops the alarms in it that
// are ALARM_TIMEOUT seconds old or older, and prints for each what the SMS thread would: the queue of a plant
// without a modem does not grow for ever. Does nothing while that thread works.
void dropStaleSms();

// One walk over wait_for_ack at the time now (seconds): sets last_resend, resends or drops entries whose
// pause has passed. Raises thr_lock while it changes the queue. The walk looks at each position once, so the
// entry that moves into the place of a dropped one waits for the next walk.
void checkResend(int64_t now);
