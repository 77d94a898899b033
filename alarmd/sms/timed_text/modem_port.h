// The modem's serial channel and the reply that it collects byte by byte (result codes of ITU-T V.250).
#pragma once

#include <atomic>
#include <string>

#include "knihovny/comcontrol.h"
#include "knihovny/mutex.h"

// The modem's serial channel. Its handlers run on the channel's reading thread.
class modem final : public ComControl {
  public:
    ~modem() { StopReading(); }

    // Collects the reply, recognises its end ("OK", or the "ER" that begins an ERROR) and watches for the
    // prompt. Allocates nothing.
    void ZpracujByte(char* c) override;
    using ComControl::ZpracujByte;

    // Throttles the reading loop while the line is idle: 100 us.
    void OnInterval() override;
};

extern modem MyModem;

// What puts bytes on the modem's line, and returns how many it took. Set before there are other threads; the
// sending of MyModem by itself.
extern int (*write_to_modem)(const char* data, int length);

constexpr int kReplyBufferSize = 512;
constexpr int kReplyLimit = 250;  // beyond it the buffer is filled from its start again

// Reply state. Written by the reading thread and the SMS thread.
extern Mutex reply_mutex;
extern char rcv_msg[kReplyBufferSize] GUARDED_BY(reply_mutex);  // not terminated by the byte handler
extern int pocetpz GUARDED_BY(reply_mutex);                     // bytes stored since the last reset
extern std::atomic<int> receive;     // 1 after a reply that ended in OK, 0 after one with ER
extern std::atomic<int> rec_status;  // 1 once OK is seen

// Empties the reply buffer: zeros and index 0.
void clearReply() EXCLUDES(reply_mutex);

// Stores from index 0 again, the bytes stay.
void rewindReply() EXCLUDES(reply_mutex);

// The first reply that ended in OK since clearReply; without one, what is in the buffer up to its first zero.
std::string replyText() EXCLUDES(reply_mutex);

// False when a part of that reply was overwritten before its OK (behind an ER, or beyond kReplyLimit). It
// then begins wherever a text had its ER, and a header line behind that would pass for the message's own.
bool replyIsWhole() EXCLUDES(reply_mutex);

// Whether clearReply fell into a line that was coming in. What is left of that one stands where the reply
// begins, and a text can be made such that it looks like a message's reply.
bool replyBeganInLine() EXCLUDES(reply_mutex);
