#include "alarmd/mail/mail.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "alarmd/alarmd.h"
#include "alarmd/mail/client_process.h"
#include "alarmd/mail/style_sheet.h"
#include "knihovny/debugerror.h"

std::string css_string(kMailHead);

namespace {

constexpr int kBoundaryLength = 50;
constexpr char kTemplateFile[] = "./template_css.html";

bool client_hung = false;

// A header line ends where it should: an address cannot begin another one.
std::string oneLine(std::string_view text) {
    std::string line;
    line.reserve(text.size());
    for (const char c : text) {
        if (c != '\r' && c != '\n') line += c;
    }
    return line;
}

// The command as it would be typed: for the log only, no shell ever sees it.
std::string commandLine(const std::string& client, const std::string& message) {
    return "echo \"" + message + "\"|" + client + " -C " + msmtp_conf_file + " -a korvato -t";
}

void tellFailure(const std::string& client, const ClientResult& result) {
    char buffer[128];
    switch (result.kind) {
        case ClientResult::kExited:
            if (result.code != 0) PrintErrorLine("Mail client ", client, " ended with status ", result.code);
            break;
        case ClientResult::kSignalled:
            PrintErrorLine("Mail client ", client, " was killed by signal ", result.code);
            break;
        case ClientResult::kNotStarted:
            PrintErrorLine("Mail client ", client,
                           " cannot be started: ", strerror_r(result.code, buffer, sizeof buffer));
            break;
        case ClientResult::kStopped:
            PrintErrorLine("Mail client ", client, " took more than ", client_stop_limit,
                           " s during the stop and was ended");
            break;
    }
}

}  // namespace

std::string random_string() {
    static constexpr char kAlphabet[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    constexpr int kLetters = sizeof kAlphabet - 1;
    std::string text;
    text.reserve(kBoundaryLength);
    for (int i = 0; i < kBoundaryLength; ++i) text += kAlphabet[rand() % kLetters];
    return text;
}

// There is no empty line between the header and the first delimiter. The delimiter line is no header field,
// so it ends the header for every reader, and the part's own header follows it.
std::string composeMessage(std::string_view to, std::string_view body, std::string_view subject) {
    const std::string boundary = random_string();
    std::string message;
    message.reserve(body.size() + 1024);
    AppendLine(message, "From: ", oneLine(mail_from));
    AppendLine(message, "To: ", oneLine(to));
    AppendLine(message, "User-Agent: Korvato mailer");
    AppendLine(message, "MIME-Version: 1.0");
    AppendLine(message, "Subject: ", oneLine(subject));
    AppendLine(message, "Content-Type: multipart/mixed; boundary=\"_", boundary, "\"");
    AppendLine(message, "--_", boundary);
    AppendLine(message, "Content-Type: text/html; charset=UTF-8");
    AppendLine(message, "Content-Transfer-Encoding: quoted-printable");
    AppendLine(message, "Content-Disposition: inline");
    AppendLine(message);
    AppendLine(message, body);
    AppendLine(message, "--_", boundary, "--");
    return message;
}

std::string mailClientPath() {
    return binFolder + "/ext/msmtp/msmtp";
}

std::string getReadebleTime(int64_t t) {
    if (t < 1) return "-";
    const time_t seconds = t;
    tm local;
    if (localtime_r(&seconds, &local) == nullptr) return "-";
    char text[80];
    return {text, strftime(text, sizeof text, "%c", &local)};
}

void readCSSTemplate() {
    FILE* file = fopen(kTemplateFile, "r");
    std::string text;
    bool complete = false;
    if (file != nullptr) {
        char buffer[4096];
        size_t length;
        while ((length = fread(buffer, 1, sizeof buffer, file)) > 0) text.append(buffer, length);
        complete = ferror(file) == 0;
        fclose(file);
    }
    if (complete) {
        css_string = text;
    } else {
        PrintLine("Unable to open template file");
    }
}

void send_mail(const char* to, std::string body, const char* /*ignored*/, const char* subject) {
    client_hung = false;
    if (!use_msmtp) return;
    const std::string client = mailClientPath();
    std::string message = composeMessage(to, body, test_send ? subject : kAlarmSubject);
    std::string log;
    AppendLine(log, "Alarm email");
    AppendLine(log, "From: ", oneLine(mail_from));
    AppendLine(log, commandLine(client, message));
    Print(log);
    message += '\n';  // an echo adds one
    const ClientResult result =
        runClient(client, {client, "-C", msmtp_conf_file, "-a", "korvato", "-t"}, message);
    tellFailure(client, result);
    client_hung = result.kind == ClientResult::kStopped;
}

bool mailClientHung() {
    return client_hung;
}

void sendTestMail() {
    PrintLine("Posilam testovaci mail...");
    send_mail(test_user.c_str(),
              "<center><h1>Testing mail from Korvato.</h1><BR><a href='" KORVATO_TEST_MAIL_LINK
              "'>" KORVATO_TEST_MAIL_LINK "</a>",
              "test mail", "Testing email.");
}
