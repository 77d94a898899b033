// The answers to local requests: JSON text in, answer text out. Nothing here touches a socket, a queue or a
// flag, so any thread may call it. The text around the data is put together as it stands, no value is
// escaped: a quotation mark in an SMS makes an answer that is no JSON, and the clients know that.
#pragma once

#include <cstddef>
#include <string>

#include "alarmd/alarmd.h"
#include "alarmd/requests/modem_status.h"

// A longer request is not looked at.
constexpr size_t kLongestRequest = size_t{1024} * 1024;

// What the answers tell of.
struct RequestState {
    int modemTyp = 0;
    int sms_counter = 0;
    _status status;
    bool gps_enable = false;
    _gps_data gps;
    _last_sms last_sms;
};

// What is to be done once the answer is written.
enum class RequestAction { kNone, kSendSms, kDisableNotification, kEnableNotification };

struct Answer {
    std::string log;   // for standard output
    std::string body;  // for the client; empty when there is to be no answer
    RequestAction action = RequestAction::kNone;
    std::string number, text;   // kSendSms: the message
    bool protocol_run = false;  // the request named a protocol that there is: a pause follows
    bool gps_parsed = false;    // gps_parse holds new values
    _gps_data_parse gps_parse;
};

// The FastCGI responder's answer (protocols 50 to 56), without the line feed that stands for its header.
Answer answerFcgiRequest(const std::string& request, const RequestState& state);

// Its answer to a request that is longer than kLongestRequest.
Answer answerTooLongRequest();

// The TCP server's answer (protocols 50 and 54). modem_ready: the modem is initialised.
Answer answerTcpRequest(const std::string& request, const RequestState& state, bool modem_ready);

// Makes the answer to a request for an SMS, which finds no room in the queue, the refusal.
void refuseSms(Answer& answer);

// What a printf-like function makes of text as its format when text is also its one argument: "%%" gives "%",
// the first "%s" gives text. Any other "%" stays as it is.
std::string formatWithItself(const std::string& text);
