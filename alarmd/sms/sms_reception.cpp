#include "alarmd/sms/sms_reception.h"

#include <algorithm>
#include <cctype>
#include <ctime>
#include <string_view>

#include "alarmd/intake/acknowledge.h"
#include "alarmd/sms/modem.h"
#include "knihovny/debugerror.h"
#include "knihovny/generalfce.h"

std::string zprava;

namespace {

constexpr int kReadPauseSeconds = 5;
constexpr int kReadReplySeconds = 1;
constexpr int kClearReplySeconds = 4;

void removeLineEnds(std::string& text) {
    std::erase(text, '\r');
    std::erase(text, '\n');
}

// One message out of a reply: empty line, header line, text line, empty line, OK.
struct IncomingSms {
    std::string from;
    std::string text;
    bool has_sender = false;
    bool whole_sender = false;  // from is all that the network gave, not the part before a comma in it
};

// A sender may be a word that its network lets it choose, with commas and quotation marks.
bool inQuotationMarks(const std::string& field) {
    return field.size() >= 2 && field.front() == '"' && field.back() == '"' &&
           std::count(field.begin(), field.end(), '"') == 2;
}

// A reply of which only a part came, or to which something is added, has lines of the text in other places.
bool hasItsShape(const std::vector<std::string>& lines) {
    std::string first = lines[0];
    std::erase(first, '\r');
    const bool echo = first.ends_with("AT+CMGR=" + std::to_string(msg_cnt));
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

IncomingSms parseReply(const std::string& reply) {
    IncomingSms message;
    const std::vector<std::string> lines = txt2vector(reply, "\n");
    if (lines.size() <= 2) return message;
    message.text = lines[2];
    PrintLine("\tText: ", message.text);

    const std::vector<std::string> header = txt2vector(lines[1], ",");
    // What stands in the sender's place of a broken reply may be of the text's making.
    if (header.size() <= 1 || !replyIsWhole()) return message;
    message.from = header[1];
    message.whole_sender = hasItsShape(lines) && isWholeSender(message.from, lines[1]);
    std::erase(message.from, '"');
    message.has_sender = true;
    PrintLine("\tFrom: ", message.from);
    return message;
}

void storeLastSms(const IncomingSms& message) {
    _last_sms received{time(nullptr), message.from, message.text};
    removeLineEnds(received.text);
    MutexLock lock(last_sms_mutex);
    last_sms = std::move(received);
}

void clearMessageStore() {
    constexpr char kDeleteAll[] = "AT+CMGD=0,4\r";
    cekam = 0;
    receive = 0;
    timeout = time(nullptr);
    MyModem.SendBinary(kDeleteAll, sizeof kDeleteAll - 1);
    Print("\tClearing all SMS..... \n");
    waitForReply(kClearReplySeconds);
}

// The first user with the sender's number who may control by SMS. A user without a number has no phone.
bool authorise(const IncomingSms& message, int& userID) {
    if (!message.whole_sender || message.from.empty()) return false;
    MutexLock lock(project_mutex);
    const auto found = std::find_if(user_list.begin(), user_list.end(), [&](const _user& candidate) {
        return candidate.mobil == message.from && candidate.sms_control;
    });
    if (found == user_list.end()) return false;
    userID = found->id;
    return true;
}

}  // namespace

void read_sms() {
    PrintLine("\t-->Thread sms: Cteni SMS");
    const bool line_is_free = freeLine();
    clearReply();
    readsmstime = time(nullptr) + kReadPauseSeconds;

    // The tab is skipped by the modem and sets the command off from what noise may stand before it on the
    // line.
    const std::string command = "\tAT+CMGR=" + std::to_string(msg_cnt) + "\r";
    PrintLine("\tAT Command: ", command, "\n\tAT Command size : ", command.size(),
              "\n\tCtu SMS cislo: ", msg_cnt);
    timeout = time(nullptr);
    receive = 0;
    if (line_is_free) MyModem.SendBinary(command.data(), static_cast<int>(command.size()));
    waitForReply(kReadReplySeconds);
    rewindReply();
    if (receive == 1) parsuj_sms();
    cekam = 0;
    receive = 0;
    Print("\n");
}

int parsuj_sms() {
    zprava = replyText();
    const IncomingSms message = parseReply(zprava);
    if (message.has_sender) storeLastSms(message);
    if (zprava.empty()) return 0;
    clearMessageStore();
    if (!message.has_sender) return 0;

    int userID = 0;
    if (!authorise(message, userID)) {
        Print("UNAUTHORIZED USER !!!\n\n");
        return 0;
    }
    Print("AUTHORIZED USER !!!\n\n");
    if (message.text.empty()) {
        Print("COMAND EMPTY !!!\n\n");
        return 0;
    }
    execute_sms_command(message.text, userID, message.from);
    return 0;
}

void execute_sms_command(std::string text, int userID, std::string /*from*/) {
    removeLineEnds(text);
    text = StringToUpper(text);
    PrintLine("Execute command: ", text);
    const std::vector<std::string> pieces = txt2vector(text, ":");
    if (pieces.size() < 2 || pieces[0] != "ACK") return;
    if (pieces.size() == 2) {
        sendAcknowledge(pieces[1], userID);
    } else {
        PrintLine("Aalarm ID not found");
    }
}
