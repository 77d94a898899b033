// One exchange with the modem: an order goes out, its end is waited for, the reply is taken (replyText). The
// flags below are set here alone; so are receive and rec_status, but for what the byte handler sees. SMS
// thread only.
#pragma once

#include <cstddef>
#include <ctime>
#include <string>

#include "alarmd/sms/timed_text/modem_port.h"

extern int cekam;       // a reply is waited for
extern time_t timeout;  // when the last order was sent
extern int linitstr;    // byte count of the last order that was sent with its terminating zero

// From here on an end of a reply is that of the order which is sent next.
void awaitReply();

// The same, and sends the order: at most 3 s for the line to take it, a device that fails is logged.
// Returns how many bytes the line took.
size_t sendOrder(const std::string& order);

// The same; the terminating zero goes out too.
void sendOrderAndZero(const std::string& order);

// Whether an OK has come since awaitReply.
bool okHasCome();

// Waits for one: so many looks, one second apart. False when none of them saw it; the second behind the last
// look is waited all the same.
bool waitForOk(int looks);

// Waits, looking every 5 ms, until a reply ends in OK or more than the given seconds have passed since
// awaitReply (whole seconds). Returns whether one did. Bytes that come later are stored from the start again;
// replyText keeps a reply that ended in OK.
bool waitForReply(int seconds);
