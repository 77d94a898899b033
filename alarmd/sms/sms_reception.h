// Incoming SMS: one is read from the modem's store, kept as the last SMS, and executed as a command when it
// comes from a user who may control by SMS. Text mode of 3GPP TS 27.005. SMS thread only.
#pragma once

#include <string>

#include "alarmd/alarmd.h"

// One read cycle, at most 2 s and the 5 s of clearing the store. The next is due 5 s later (readsmstime).
void read_sms();

// Parses the modem's reply to the read command, clears the modem's message store and executes an authorised
// command. Always returns 0.
int parsuj_sms();

// Executes one command text of the user userID: "ACK:<alarm id>" (in any case of letters) goes to the server
// as an acknowledge request; other texts are ignored.
void execute_sms_command(std::string text, int userID, std::string from);

extern std::string zprava;  // the last read's reply
