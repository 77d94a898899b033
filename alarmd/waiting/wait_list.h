// The list of alarms that wait for an acknowledge, wait_for_ack. Main thread only.
#pragma once

#include <cstdint>
#include <string>

// Adds the alarm in alarm_tag to wait_for_ack on an activation, removes it on deactivation or acknowledge,
// and dates alarm_tag as notified now. Does nothing unless resend_enable is set. Prints what it did; the
// second form appends that to log.
void uloz_alarm_wait_ack(int id, int stat);
void uloz_alarm_wait_ack(int id, int stat, std::string& log);

// One walk over wait_for_ack at the time now (seconds): sets last_resend, resends or drops entries whose
// pause has passed. Raises thr_lock while it changes the queue. The walk looks at each position once, so the
// entry that moves into the place of a dropped one waits for the next walk.
void checkResend(int64_t now);
