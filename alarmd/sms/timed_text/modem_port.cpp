#include "alarmd/sms/timed_text/modem_port.h"

#include <cstdio>
#include <cstring>

#include "alarmd/sms/timed_text/prompt.h"
#include "knihovny/generalfce.h"

modem MyModem;
int (*write_to_modem)(const char* data, int length) = [](const char* data, int length) {
    return MyModem.SendBinary(data, length);
};

Mutex reply_mutex;
char rcv_msg[kReplyBufferSize];
int pocetpz = 0;
std::atomic<int> receive{0};
std::atomic<int> rec_status{0};

namespace {

constexpr long kIdleNanoseconds = 100000;

// The reply as it stood when the first OK since clearReply came: what arrives behind it goes over the start
// of rcv_msg, perhaps before the SMS thread has looked. A later OK changes nothing, or a message with an OK
// and a header line in its text could pass for one from another sender.
char complete_reply[kReplyBufferSize] GUARDED_BY(reply_mutex);
bool complete GUARDED_BY(reply_mutex) = false;

// Bytes went over the reply's start since clearReply, behind an ER or for want of room: now, and when the
// reply was complete.
bool overwritten GUARDED_BY(reply_mutex) = false;
bool complete_overwritten GUARDED_BY(reply_mutex) = false;

bool begun_in_line GUARDED_BY(reply_mutex) = false;  // when the reply was cleared

bool closing_line_end GUARDED_BY(reply_mutex) = false;  // may come next

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

// The CR LF that closes an OK belongs to that reply: it is not stored over the reply's start.
bool closesReply(char c) REQUIRES(reply_mutex) {
    if (!closing_line_end) return false;
    if (c == '\r') return true;
    closing_line_end = false;
    return c == '\n';
}

void storeReplyByte(char c) REQUIRES(reply_mutex) {
    rcv_msg[pocetpz++] = c;
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

}  // namespace

void modem::ZpracujByte(char* c) {
    {
        MutexLock lock(reply_mutex);
        watchPrompt(*c);
        if (closesReply(*c)) return;
        storeReplyByte(*c);
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
    begun_in_line = lineHasBegun();
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

bool replyBeganInLine() {
    MutexLock lock(reply_mutex);
    return begun_in_line;
}
