#include "alarmd/mail/compose.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string_view>

#include "alarmd/alarmd.h"
#include "alarmd/mail/style_sheet.h"
#include "alarmd/notify/event.h"
#include "knihovny/debugerror.h"

std::string css_string(kMailHead);

namespace {

constexpr int kBoundaryLength = 50;
constexpr char kTemplateFile[] = "./template_css.html";

constexpr size_t kRowBuffer = 999;  // bytes with the zero; a longer row is cut

constexpr char kTableHead[] =
    "<table border=1>\n"
    "<TR><TD>MESSAGE</TD><TD>STATUS</TD><TD>SEV</TD><TD>AREA</TD><TD>DEVICE</TD><TD>ACT TIME</TD><TD>DEACT "
    "TIME</TD>"
    "<TD>ACK TIME</TD><TD>ACT VAL</TD><TD>DEACT VAL</TD><TD>ACK VAL</TD><TD>USER</TD></TR>\n";
constexpr char kTail[] =
    "</table>\n"
    "</body>\n"
    "</html>\n";

std::string dashIfEmpty(const std::string& text) {
    return text.empty() ? "-" : text;
}

// An empty device stays empty; only the single blank that stands for "no device" in the project files gives a
// dash.
std::string dashIfBlank(const std::string& text) {
    return text == " " ? "-" : text;
}

std::string tableRow(const _alarm_tag& alarm, const char* status, const _langs& texts) {
    char row[kRowBuffer];
    const int length = snprintf(
        row, sizeof row,
        "<TR><TD>%s</TD><TD>%s</TD><TD>%d</TD><TD>%s</TD><TD>%s</TD><TD>%s</TD><TD>%s</TD>"
        "<TD>%s</TD><TD>%.2f</TD><TD>%.2f</TD><TD>%.2f</TD><TD>%s</TD></TR>\n",
        dashIfEmpty(texts.messageLangs).c_str(), status, alarm.sv, dashIfEmpty(texts.areaLangs).c_str(),
        dashIfBlank(texts.deviceLangs).c_str(), getReadebleTime(alarm.atm[0]).c_str(),
        getReadebleTime(alarm.dtm[0]).c_str(), getReadebleTime(alarm.acktm[0]).c_str(), alarm.av, alarm.dv,
        alarm.ackv, dashIfEmpty(alarm.user).c_str());
    if (length < 0) return "";
    return {row, std::min(static_cast<size_t>(length), sizeof row - 1)};
}

}  // namespace

std::string inOneLine(std::string_view text) {
    std::string line;
    line.reserve(text.size());
    for (const char c : text) {
        if (c != '\r' && c != '\n') line += c;
    }
    return line;
}

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
    AppendLine(message, "From: ", inOneLine(mail_from));
    AppendLine(message, "To: ", inOneLine(to));
    AppendLine(message, "User-Agent: Korvato mailer");
    AppendLine(message, "MIME-Version: 1.0");
    AppendLine(message, "Subject: ", inOneLine(subject));
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

std::string alarmMailBody(const _alarm_tag& alarm, const _langs& texts) {
    return css_string + kTableHead + tableRow(alarm, ruleOf(alarm.stat).mail_word, texts) + kTail;
}
