// Incoming messages in the modem's store (text mode of 3GPP TS 27.005). SMS thread only.
#pragma once

#include <optional>
#include <string>

#include "alarmd/sms/driver.h"

constexpr int kReadPauseSeconds = 5;

extern int msg_cnt;         // index of the message that is read
extern std::string zprava;  // the last read's reply

// Asks for message msg_cnt: at most 2 s, and 4 s for what is owed to the modem. The next is due 5 s after the
// order (readsmstime). Returns whether a reply ended in OK.
bool askForMessage();

// Takes the reply apart and prints what it has. Of a reply without a sender, nothing is worth keeping: the
// store is cleared then.
std::optional<IncomingSms> takeMessage();

// Deletes all messages: at most 5 s.
void clearMessageStore();

// Takes in the message that is in the reply to the last read order, if there is one. Always returns 0.
int parsuj_sms();
