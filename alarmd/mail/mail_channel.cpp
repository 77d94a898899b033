#include "alarmd/mail/mail_channel.h"

#include <sysexits.h>

#include <cstring>

#include "alarmd/alarmd.h"
#include "alarmd/mail/compose.h"
#include "knihovny/debugerror.h"

ClientRunner run_mail_client = runClient;

namespace {

// The command as it would be typed: for the log only, no shell ever sees it.
std::string commandLine(const std::string& client, const std::string& message) {
    return "echo \"" + message + "\"|" + client + " -C " + msmtp_conf_file + " -a korvato -t";
}

std::string errorText(int error) {
    char buffer[128];
    return strerror_r(error, buffer, sizeof buffer);
}

SendResult exited(int status) {
    if (status == 0) return {Outcome::kSent, ""};
    const bool for_good = status == EX_DATAERR || status == EX_NOUSER;
    return {for_good ? Outcome::kRefused : Outcome::kTryAgain, "ended with status " + std::to_string(status)};
}

}  // namespace

std::string mailClientPath() {
    return binFolder + "/ext/msmtp/msmtp";
}

SendResult resultOf(const ClientResult& client) {
    switch (client.kind) {
        case ClientResult::kExited:
            return exited(client.code);
        case ClientResult::kSignalled:
            return {Outcome::kUnknown, "was killed by signal " + std::to_string(client.code)};
        case ClientResult::kNotStarted:
            return {Outcome::kTryAgain, "cannot be started: " + errorText(client.code)};
        case ClientResult::kStopped:
            break;
    }
    return {Outcome::kStopped,
            "took more than " + std::to_string(client_stop_limit) + " s during the stop and was ended"};
}

SendResult sendMail(const std::string& to, const std::string& body, const std::string& subject) {
    if (!use_msmtp) return {Outcome::kRefused, "mails are switched off"};
    const std::string client = mailClientPath();
    std::string message = composeMessage(to.c_str(), body, subject);
    std::string log;
    AppendLine(log, "Alarm email");
    AppendLine(log, "From: ", inOneLine(mail_from));
    AppendLine(log, commandLine(client, message));
    Print(log);
    message += '\n';  // an echo adds one
    SendResult result =
        resultOf(run_mail_client(client, {client, "-C", msmtp_conf_file, "-a", "korvato", "-t"}, message));
    if (result.outcome != Outcome::kSent) PrintErrorLine("Mail client ", client, " ", result.detail);
    return result;
}

void send_mail(const char* to, std::string body, const char* /*ignored*/, const char* subject) {
    sendMail(to, body, test_send ? subject : kAlarmSubject);
}

void sendTestMail() {
    PrintLine("Posilam testovaci mail...");
    send_mail(test_user.c_str(),
              "<center><h1>Testing mail from Korvato.</h1><BR><a href='" KORVATO_TEST_MAIL_LINK
              "'>" KORVATO_TEST_MAIL_LINK "</a>",
              "test mail", "Testing email.");
}

SendResult MailChannel::send(const Message& message) {
    return sendMail(message.to, message.body, kAlarmSubject);
}
