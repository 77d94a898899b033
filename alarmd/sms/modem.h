// The GSM/LTE modem on its AT command port: replies, initialisation, identification (3GPP TS 27.007,
// TS 27.005; result codes of ITU-T V.250).
#pragma once

#include <atomic>
#include <ctime>
#include <string>

#include "alarmd/alarmd.h"
#include "knihovny/comcontrol.h"

// The modem's serial channel. Its handlers run on the channel's reading thread.
class modem final : public ComControl {
  public:
    ~modem() { StopReading(); }

    // Collects the reply and recognises its end: "OK", or the "ER" that begins an ERROR. Allocates nothing.
    void ZpracujByte(char* c) override;
    using ComControl::ZpracujByte;

    // Throttles the reading loop while the line is idle: 100 us.
    void OnInterval() override;
};

extern modem MyModem;

constexpr int kReplyBufferSize = 512;
constexpr int kReplyLimit = 250;  // beyond it the buffer is filled from its start again

// Reply state. Written by the reading thread and the SMS thread.
extern Mutex reply_mutex;
extern char rcv_msg[kReplyBufferSize] GUARDED_BY(reply_mutex);  // not terminated by the byte handler
extern int pocetpz GUARDED_BY(reply_mutex);                     // bytes stored since the last reset
extern std::atomic<int> receive;     // 1 after a reply that ended in OK, 0 after one with ER
extern std::atomic<int> rec_status;  // 1 once OK is seen

// SMS thread only.
extern int cekam;           // a reply is waited for
extern time_t timeout;      // when the last awaited command was sent
extern int linitstr;        // byte count of the last command that was sent with its terminating zero
extern int msg_cnt;         // index of the message that is read
extern time_t readsmstime;  // earliest time of the next read

extern std::atomic<int> modemTyp;  // told by the requests; nothing stores the identified type, so it stays 0

// Empties the reply buffer: zeros and index 0.
void clearReply() EXCLUDES(reply_mutex);

// Stores from index 0 again, the bytes stay.
void rewindReply() EXCLUDES(reply_mutex);

// The first reply that ended in OK since clearReply; without one, what is in the buffer up to its first zero.
std::string replyText() EXCLUDES(reply_mutex);

// False when a part of that reply was overwritten before its OK (behind an ER, or beyond kReplyLimit). It
// then begins wherever a text had its ER, and a header line behind that would pass for the message's own.
bool replyIsWhole() EXCLUDES(reply_mutex);

// What the modem made of the command line that begins a message: its last word since the line was sent.
enum class PromptAnswer {
    kNone,    // neither of these
    kPrompt,  // a line that begins with "> ": it waits for the text
    kError,   // a final result ERROR, +CMS ERROR or +CME ERROR, a line of its own: it waits for a command
};

// From here on what the modem says is an answer to the line that is sent next. What remains of a line that
// has already begun is none. SMS thread.
void awaitPrompt() EXCLUDES(reply_mutex);
PromptAnswer promptAnswer() EXCLUDES(reply_mutex);

// What ends a text or a command line that did not go out to its end. It goes out before anything else, which
// the modem would take for the rest. Empty when all is well. SMS thread only.
extern std::string owed_bytes;

// No text follows the last awaitPrompt: should the prompt still come, ESC is owed. SMS thread.
void keepTextBack();

// Sends what is owed, as far as the line takes it within 3 s. A device that fails is told in the log. SMS
// thread.
void payOwedBytes();

// The same, but without a wait and a line in the log. SMS thread.
void offerOwedBytes() EXCLUDES(reply_mutex);

// Pays what is owed, and if anything was, waits a second for the modem's answer to it. False when the line
// does not take it: nothing else may be sent then. SMS thread.
bool freeLine() EXCLUDES(reply_mutex);

// Waits, looking every 5 ms, until a reply ends in OK or more than the given seconds have passed since
// `timeout` (whole seconds). SMS thread.
void waitForReply(int seconds);

// Initialises the modem: PIN, unsolicited reports off, text mode, service centre. Returns how many of the
// last three were acknowledged; above 1 is a success. Takes up to 15 s. SMS thread.
int nastavModem();

// Asks for the model and returns its type code, 0 for an unknown one. SMS thread. Not part of the start-up.
int getModemType();
