#pragma once

#include <string>

// Executes one command text of the user userID: "ACK:<alarm id>" (in any case of letters) goes to the server
// as an acknowledge request; other texts are ignored. SMS thread.
void execute_sms_command(std::string text, int userID, std::string from);
