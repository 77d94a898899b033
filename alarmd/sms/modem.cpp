#include "alarmd/sms/modem.h"

#include <cstdio>
#include <cstring>
#include <string_view>

#include "knihovny/debugerror.h"
#include "knihovny/generalfce.h"

modem MyModem;

Mutex reply_mutex;
char rcv_msg[kReplyBufferSize];
int pocetpz = 0;
std::atomic<int> receive{0};
std::atomic<int> rec_status{0};

int cekam = 0;
time_t timeout = 0;
int linitstr = 0;
int msg_cnt = 0;
time_t readsmstime = 0;

std::atomic<int> modemTyp{0};

std::string owed_bytes;

namespace {

constexpr long kIdleNanoseconds = 100000;
constexpr long kLookNanoseconds = 5000000;
constexpr int kAcknowledgeLooks = 4;
constexpr int kReadPauseSeconds = 5;
constexpr char kEscape = '\x1b';

// The reply as it stood when the first OK since clearReply came: what arrives behind it goes over the start
// of rcv_msg, perhaps before the SMS thread has looked. A later OK changes nothing, or a message with an OK
// and a header line in its text could pass for one from another sender.
char complete_reply[kReplyBufferSize] GUARDED_BY(reply_mutex);
bool complete GUARDED_BY(reply_mutex) = false;

// Bytes went over the reply's start since clearReply, behind an ER or for want of room: now, and when the
// reply was complete.
bool overwritten GUARDED_BY(reply_mutex) = false;
bool complete_overwritten GUARDED_BY(reply_mutex) = false;

// The CR LF that closes an OK belongs to that reply: it is not stored over the reply's start.
bool closing_line_end GUARDED_BY(reply_mutex) = false;

// The line that is coming in, from its begin as far as it takes to know what it is; then full.
char line[sizeof "+CMS ERROR:"] GUARDED_BY(reply_mutex);
size_t line_length GUARDED_BY(reply_mutex) = 0;

PromptAnswer prompt_answer GUARDED_BY(reply_mutex) = PromptAnswer::kNone;
bool prompt_given GUARDED_BY(reply_mutex) = false;  // at any time since the line was sent

bool text_kept_back = false;  // SMS thread only

bool lineIs(std::string_view text) REQUIRES(reply_mutex) {
    return text == std::string_view(line, line_length);
}

// An "ER" anywhere, as it ends a reply, will not do here: an echo or an unasked line may have one, and a text
// that is kept back for it would leave the modem waiting.
void watchLine(char c) REQUIRES(reply_mutex) {
    if (c == '\r' || c == '\n') {
        if (lineIs("ERROR")) prompt_answer = PromptAnswer::kError;
        line_length = 0;
    } else if (line_length < sizeof line) {
        line[line_length++] = c;
        if (lineIs("> ")) {
            prompt_answer = PromptAnswer::kPrompt;
            prompt_given = true;
        }
        if (lineIs("+CMS ERROR:") || lineIs("+CME ERROR:")) prompt_answer = PromptAnswer::kError;
    }
}

bool endsWith(char first, char second) REQUIRES(reply_mutex) {
    return pocetpz >= 2 && rcv_msg[pocetpz - 2] == first && rcv_msg[pocetpz - 1] == second;
}

void completeReply() REQUIRES(reply_mutex) {
    if (!complete) {
        complete = true;
        memcpy(complete_reply, rcv_msg, sizeof complete_reply);
        complete_overwritten = overwritten;
    }
    pocetpz = 0;
    closing_line_end = true;
    rec_status = 1;
    receive = 1;  // last: whoever sees it finds the reply
}

bool promptGiven() {
    MutexLock lock(reply_mutex);
    return prompt_given;
}

// Also before the error that kept the text back: that one may have been for something else.
void notePrompt() {
    if (!text_kept_back || !promptGiven()) return;
    text_kept_back = false;
    owed_bytes += kEscape;
}

struct ModemModel {
    const char* name;
    const char* message;
    int code;
    bool first_message_at_1;
};

constexpr ModemModel kModels[] = {
    {"EM820W", "Stary 3G modem(1)\n", 1, false}, {"MU709s-2", "Novy 3G modem(2)\n", 2, false},
    {"ME909u-521", "LTE(3)\n", 3, false},        {"ME909u-523", "LTE(3) USA\n", 3, false},
    {"EM7565", "LTE(4) SIERRA\n", 3, false},  // type 3, though its message counts it among the fourth
    {"4105", "LTE(3) TELID (4105)\n", 3, false}, {"SIM7906E", "LTE(3) SIMCOM SIM7906E\n", 3, false},
    {"ME909s-120", "LTE(4) Huawei\n", 4, true},  {"ME906s-158", "LTE(4) Huawei\n", 4, true},
};

// Sends one command and waits for its OK: up to four looks, one second apart.
bool sendAcknowledged(const std::string& command) {
    rec_status = 0;
    MyModem.SendBinary(command.data(), static_cast<int>(command.size()));
    for (int look = 0; look < kAcknowledgeLooks; ++look) {
        if (rec_status == 1) return true;
        MySleep(1, 0);
    }
    return false;
}

// The PIN goes out whether the SIM card asks for one or not, with two carriage returns; its answer is not
// counted.
void sendPin(const std::string& pin_code) {
    const std::string command = "AT+CPIN=\"" + pin_code + "\"\r\r";
    PrintLine("PIN seted => Sending: ", command);
    rec_status = 0;
    MyModem.SendBinary(command.data(), static_cast<int>(command.size()));
}

// The second line of the reply without its carriage return: the first is the empty line, or the echo, before
// it.
std::string modelName(const std::string& reply) {
    const std::vector<std::string> lines = txt2vector(reply, "\n");
    if (lines.size() < 2) return "";
    return lines[1].substr(0, lines[1].size() - 1);
}

}  // namespace

void modem::ZpracujByte(char* c) {
    {
        MutexLock lock(reply_mutex);
        watchLine(*c);
        if (closing_line_end) {
            if (*c == '\r') return;
            closing_line_end = false;
            if (*c == '\n') return;
        }
        rcv_msg[pocetpz++] = *c;
        if (endsWith('O', 'K')) {
            completeReply();
        } else if (endsWith('E', 'R')) {
            receive = 0;
            pocetpz = 0;
            overwritten = true;
        } else if (pocetpz > kReplyLimit) {
            pocetpz = 0;
            overwritten = true;
        }
    }
    fflush(stdout);
}

void modem::OnInterval() {
    MySleep(0, kIdleNanoseconds);
}

void clearReply() {
    MutexLock lock(reply_mutex);
    memset(rcv_msg, 0, sizeof rcv_msg);
    complete = false;
    pocetpz = 0;
    overwritten = false;
    complete_overwritten = false;
}

void rewindReply() {
    MutexLock lock(reply_mutex);
    pocetpz = 0;
}

std::string replyText() {
    MutexLock lock(reply_mutex);
    const char* text = complete ? complete_reply : rcv_msg;
    return std::string(text, strnlen(text, kReplyBufferSize));
}

bool replyIsWhole() {
    MutexLock lock(reply_mutex);
    return !complete_overwritten;
}

void awaitPrompt() {
    text_kept_back = false;
    MutexLock lock(reply_mutex);
    if (line_length > 0) line_length = sizeof line;
    prompt_answer = PromptAnswer::kNone;
    prompt_given = false;
}

PromptAnswer promptAnswer() {
    MutexLock lock(reply_mutex);
    return prompt_answer;
}

void keepTextBack() {
    text_kept_back = true;
}

void payOwedBytes() {
    const int taken = MyModem.SendBinary(owed_bytes.data(), static_cast<int>(owed_bytes.size()));
    owed_bytes.erase(0, static_cast<size_t>(taken));
}

void offerOwedBytes() {
    notePrompt();
    while (!owed_bytes.empty() && MyModem.TrySendByte(owed_bytes.front())) owed_bytes.erase(0, 1);
}

bool freeLine() {
    notePrompt();
    if (owed_bytes.empty()) return true;
    payOwedBytes();
    if (!owed_bytes.empty()) return false;
    MySleep(1, kLookNanoseconds);
    return true;
}

void waitForReply(int seconds) {
    // The time of day may be set back in between; the second limit keeps the wait from lasting until then.
    const time_t latest = MonotonicTime().tv_sec + seconds + 1;
    while (receive == 0 && time(nullptr) <= timeout + seconds && MonotonicTime().tv_sec <= latest) {
        MySleep(0, kLookNanoseconds);
    }
}

int nastavModem() {
    std::string pin_code, service_centre;
    {
        MutexLock lock(settings_mutex);
        pin_code = pin;
        service_centre = smsc;
    }
    int acknowledged = 0;
    sendPin(pin_code);
    MySleep(3, 0);
    for (const std::string& command :
         {std::string("AT^CURC=0\r"), std::string("AT+CMGF=1\r"), "AT+CSCA=\"" + service_centre + "\"\r"}) {
        if (sendAcknowledged(command)) ++acknowledged;
    }
    PrintLine("Aktivace: ", acknowledged);
    return acknowledged;
}

int getModemType() {
    constexpr char kEchoOff[] = "ate0\r";  // its terminating zero is sent along
    linitstr = sizeof kEchoOff;
    MyModem.SendBinary(kEchoOff, linitstr);
    MySleep(1, 0);
    clearReply();
    readsmstime = time(nullptr) + kReadPauseSeconds;

    constexpr char kModelQuery[] = "AT+CGMM\r";
    timeout = time(nullptr);
    receive = 0;
    cekam = 1;
    MyModem.SendBinary(kModelQuery, sizeof kModelQuery - 1);
    waitForReply(1);
    rewindReply();

    const std::string model = modelName(replyText());
    Print("Modem Typ: >>" + model + "<<\n");
    for (const ModemModel& known : kModels) {
        if (model != known.name) continue;
        if (known.first_message_at_1) msg_cnt = 1;
        Print(known.message);
        return known.code;
    }
    PrintLine("Unknown Modem Type !!!!");
    return 0;
}
