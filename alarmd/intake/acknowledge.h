// What the daemon asks the server to acknowledge. What comes of it shows in the alarm history.
#pragma once

#include <string>

// What sends a request to the server's local port. Set before there are other threads; the sending of tcps by
// itself.
extern int (*write_to_server)(const char* data, int length);

// The request in which the user userID acknowledges the alarm, at most 999 bytes. alarm_id: as the SMS has
// it, without a zero byte. The project id ends at its first zero byte. Any thread.
std::string acknowledgeRequest(const std::string& alarm_id, int userID);

// Prints that the alarm is to be acknowledged, and sends the request to the server's local port. SMS thread.
void sendAcknowledge(const std::string& alarm_id, int userID);
