// Composition of a mail (MIME, RFC 2045; headers, RFC 5322) and its delivery through msmtp.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

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

// The whole message with the HTML text body to the address or comma-separated addresses to, with a fresh
// boundary from random_string. CR and LF in the addresses and the subject are dropped. The mail client gets
// one more newline behind it.
std::string composeMessage(std::string_view to, std::string_view body, std::string_view subject);

// The mail client: binFolder/ext/msmtp/msmtp.
std::string mailClientPath();

// Reads ./template_css.html into css_string, or prints "Unable to open template file". Not called by the
// daemon.
void readCSSTemplate();

// Composes one mail with the HTML text body to the address or comma-separated addresses to, prints it and the
// client's command line and hands it to binFolder/ext/msmtp/msmtp on its standard input; returns when the
// client has ended. CR and LF in the addresses and the subject are dropped. The subject is "Online Alarming";
// subject counts only for the test mail. ignored is not read. Does nothing when use_msmtp is false. A client
// that is missing or fails is told in one line on standard error. Mail thread; main thread for the test mail.
void send_mail(const char* to, std::string body, const char* ignored, const char* subject);

// True when the client of the last send_mail took longer than a stop request leaves it and had to be ended:
// no further mail should be tried. Thread of send_mail.
bool mailClientHung();

// Composes and sends the test mail to test_user. Main thread, before any other thread starts.
void sendTestMail();
