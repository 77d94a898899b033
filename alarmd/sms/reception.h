// Incoming SMS: one is taken from the modem, kept as the last SMS, and executed as a command when it comes
// from a user who may control by SMS. SMS thread only.
#pragma once

#include "alarmd/sms/driver.h"

// One read cycle.
void readSms(ModemDriver& driver);

// One read cycle of the daemon's modem.
void read_sms();

// Keeps a message that the driver gave as the last SMS, lets the driver forget it, and executes it when its
// sender may.
void takeIn(ModemDriver& driver, const IncomingSms& message);
