#include "alarmd/sms/timed_text/message_store.h"

#include <algorithm>
#include <cctype>
#include <string_view>
#include <vector>

#include "alarmd/sms/reception.h"
#include "alarmd/sms/timed_text/exchange.h"
#include "alarmd/sms/timed_text/owed_bytes.h"
#include "knihovny/clock.h"
#include "knihovny/debugerror.h"
#include "knihovny/generalfce.h"

int msg_cnt = 0;
std::string zprava;

namespace {

constexpr int kReadReplySeconds = 1;
constexpr int kClearReplySeconds = 4;

// A sender may be a word that its network lets it choose, with commas and quotation marks.
bool inQuotationMarks(const std::string& field) {
    return field.size() >= 2 && field.front() == '"' && field.back() == '"' &&
           std::count(field.begin(), field.end(), '"') == 2;
}

// A reply of which only a part came, or to which something is added, has lines of the text in other places.
bool hasItsShape(const std::vector<std::string>& lines) {
    std::string first = lines[0];
    std::erase(first, '\r');
    std::erase(first, '\t');
    const bool echo = first == "AT+CMGR=" + std::to_string(msg_cnt);
    return (first.empty() || echo) && lines[1].starts_with("+CMGR:");
}

// Takes a text in quotation marks from the front. False when there is none.
bool takeQuoted(std::string_view& rest) {
    const size_t end = rest.starts_with('"') ? rest.find('"', 1) : std::string_view::npos;
    if (end == std::string_view::npos) return false;
    rest.remove_prefix(end + 1);
    return true;
}

// Behind the sender come a name in quotation marks or nothing, the time, and perhaps numbers. A sender with
// quotation marks and commas of its own moves them out of their places.
bool isFollowedByItsTime(std::string_view rest) {
    if (rest.ends_with('\r')) rest.remove_suffix(1);
    const auto marks = std::count(rest.begin(), rest.end(), '"');
    if (marks == 0) return true;
    if (marks % 2 != 0 || !rest.starts_with(',')) return false;
    rest.remove_prefix(1);
    if (takeQuoted(rest) && rest.empty()) return true;
    if (!rest.starts_with(',')) return false;
    rest.remove_prefix(1);
    if (!takeQuoted(rest)) return false;
    return rest.empty() ||
           (rest.size() > 1 && rest[0] == ',' && isdigit(static_cast<unsigned char>(rest[1])));
}

bool isWholeSender(const std::string& sender, const std::string& header) {
    const size_t at = header.find("," + sender);
    return inQuotationMarks(sender) &&
           isFollowedByItsTime(std::string_view(header).substr(at + 1 + sender.size()));
}

// One message out of a reply: empty line, header line, text line, empty line, OK.
std::optional<IncomingSms> parseReply(const std::string& reply) {
    const std::vector<std::string> lines = txt2vector(reply, "\n");
    if (lines.size() <= 2) return std::nullopt;
    IncomingSms message;
    message.text = lines[2];
    PrintLine("\tText: ", message.text);

    const std::vector<std::string> header = txt2vector(lines[1], ",");
    // What stands in the sender's place of a broken reply may be of the text's making.
    if (header.size() <= 1 || !replyIsWhole()) return std::nullopt;
    message.from = header[1];
    message.whole_sender = hasItsShape(lines) && isWholeSender(message.from, lines[1]);
    std::erase(message.from, '"');
    PrintLine("\tFrom: ", message.from);
    return message;
}

}  // namespace

bool askForMessage() {
    const bool line_is_free = freeLine();
    clearReply();
    readsmstime = Now() + kReadPauseSeconds;

    // The tab is skipped by the modem and sets the command off from what noise may stand before it on the
    // line.
    const std::string command = "\tAT+CMGR=" + std::to_string(msg_cnt) + "\r";
    PrintLine("\tAT Command: ", command, "\n\tAT Command size : ", command.size(),
              "\n\tCtu SMS cislo: ", msg_cnt);
    if (line_is_free) {
        sendOrder(command);
    } else {
        awaitReply();
    }
    // The message is read again next time.
    return waitForReply(kReadReplySeconds) && !replyBeganInLine();
}

std::optional<IncomingSms> takeMessage() {
    zprava = replyText();
    std::optional<IncomingSms> message = parseReply(zprava);
    if (!message && !zprava.empty()) clearMessageStore();
    return message;
}

void clearMessageStore() {
    sendOrder("AT+CMGD=0,4\r");
    Print("\tClearing all SMS..... \n");
    waitForReply(kClearReplySeconds);
}

int parsuj_sms() {
    if (const std::optional<IncomingSms> message = takeMessage()) takeIn(modemDriver(), *message);
    return 0;
}
