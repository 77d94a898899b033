// Composition of a mail (MIME, RFC 2045; headers, RFC 5322).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "alarmd/alarmd.h"

// The head that every alarm mail begins with: html tag, style sheet, empty title, body tag. See
// style_sheet.h.
extern std::string css_string;

// 50 random characters of 0-9A-Za-z, from rand() unseeded: the same sequence in every process. One thread at
// a time.
std::string random_string();

// "-" for t (seconds since the epoch) below 1, else local time as "%c" gives it (POSIX locale: Sun Nov 15
// 12:05:51 2026). "-" too for a time whose year fits in no calendar. Any thread.
std::string getReadebleTime(int64_t t);

constexpr char kAlarmSubject[] = "Online Alarming";

// The text without its CR and LF: a header line ends where it should, and an address cannot begin another
// one.
std::string inOneLine(std::string_view text);

// The whole message with the HTML text body to the address or comma-separated addresses to, with a fresh
// boundary from random_string. CR and LF in the addresses and the subject are dropped. The mail client gets
// one more newline behind it.
std::string composeMessage(std::string_view to, std::string_view body, std::string_view subject);

// The HTML text of an alarm's mail with these texts of the alarm. Any thread.
std::string alarmMailBody(const _alarm_tag& alarm, const _langs& texts);

// Reads ./template_css.html into css_string, or prints "Unable to open template file". Not called by the
// daemon.
void readCSSTemplate();
