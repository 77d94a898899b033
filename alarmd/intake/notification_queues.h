// Which queues a new alarm goes into. Main thread only.
#pragma once

#include <cstdint>
#include <string>

// Queues the alarm now in alarm_tag for mail and SMS, by its definition's flags and the state stat, and keeps
// wait_for_ack for a definition with SMS on deactivation or acknowledge. An alarm without a definition gets
// an empty one and is not queued. Raises thr_lock while it works. Prints what it did; the second form appends
// that to log.
void uloz_alarm(int stat);
void uloz_alarm(int stat, std::string& log);

// While no SMS thread works on fronta_sms (no port, no modem, the thread ended), drops the alarms in it that
// are ALARM_TIMEOUT seconds old or older, and prints for each what the SMS thread would: the queue of a plant
// without a modem does not grow for ever. Does nothing while that thread works.
void dropStaleSms();

// True when alarms waited in fronta_mail or fronta_sms at the last call and none do now.
bool alarmQueuesRanEmpty();
