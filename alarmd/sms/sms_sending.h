// Sending of SMS: alarms and free texts, within a per-minute limit. SMS thread only, where nothing else is
// said.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "alarmd/alarmd.h"

// The text of an alarm's SMS, 999 bytes at most. message: the alarm's message text in the recipient's
// language, which ends at its first zero byte. Any thread.
std::string alarmSmsText(const _alarm_tag& alarm, const std::string& message);

// One drain of fronta_sms and fronta_sms_raw: each alarm that is queued by then goes before the next raw
// message, and of these only as many go as were queued when the drain began. The limit smspeermin is looked
// at once a drain: one that begins under it sends all of them. Ends early when konec is set.
void zpracuj_sms();

// How many alarms and free texts are not sent, or not to everybody. Of use when the SMS thread has ended.
int unsentSms();

// Sends one text message through the modem and prints the outcome: about 2 s for the prompt, then at most 5 s
// for the OK. No text goes out when the modem has answered the number with an error by then, or when the line
// did not take all of the number within 3 s. A text that the line does not take in 3 s is followed by ESC, as
// soon as it takes that. Characters that would end the number or the text early on the line (quotation marks
// and control characters in the number, Ctrl-Z and ESC in the text) are left out.
void sendSMS(std::string number, std::string text);

extern int64_t time_sms_count;  // start of the present counting minute, seconds; 0 before the first drain
extern int sms_count;           // messages counted in it

// Messages whose text was handed to the modem since start. Read by the request threads.
extern std::atomic<int> sms_counter;
