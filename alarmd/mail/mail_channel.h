// Delivery of mails through the client msmtp.
#pragma once

#include <string>
#include <vector>

#include "alarmd/mail/client_process.h"
#include "alarmd/notify/channel.h"

// What runs the mail client. Set before there are other threads; runClient by itself.
using ClientRunner = ClientResult (*)(const std::string& path, const std::vector<std::string>& arguments,
                                      const std::string& input);
extern ClientRunner run_mail_client;

// The mail client: binFolder/ext/msmtp/msmtp.
std::string mailClientPath();

// Composes one mail with the HTML text body to the address or comma-separated addresses to, prints it and the
// client's command line and hands it to the client on its standard input; returns when the client has ended.
// An address ends at its first zero byte. A client that is missing or fails is logged in one line on standard
// error. Does nothing when use_msmtp is false. Mail thread; main thread for the test mail.
SendResult sendMail(const std::string& to, const std::string& body, const std::string& subject);

// The same. The subject is kAlarmSubject; subject counts only for the test mail. ignored is not read.
void send_mail(const char* to, std::string body, const char* ignored, const char* subject);

// Composes and sends the test mail to test_user. Main thread, before any other thread starts.
void sendTestMail();

// What the end of the client means for its mail, with words that go behind the client's name. Exit status:
// sysexits.h.
SendResult resultOf(const ClientResult& client);

// The mails of alarms.
class MailChannel final : public Channel {
  public:
    SendResult send(const Message& message) override;
};
