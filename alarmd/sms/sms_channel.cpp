#include "alarmd/sms/sms_channel.h"

#include <utility>

#include "alarmd/alarmd.h"
#include "knihovny/debugerror.h"

namespace {

// Nobody waited for an OK that has a detail, and no line tells of it.
void printOutcome(const SendResult& result) {
    if (result.outcome != Outcome::kSent) {
        PrintLine(color_modem, "--------------:::::::: SMS SEND FAIL !!!! ::::::::------------", color_off);
    } else if (result.detail.empty()) {
        PrintLine(color_modem, "--------------:::::::: SMS SEND OK !!!! ::::::::------------", color_off);
    }
}

}  // namespace

SendResult SmsChannel::send(const Message& message) {
    PrintLine("Sending ....", "Number: ", message.to, "; Text: ", message.body);
    SendResult result = driver_.send(message.to, message.body);
    printOutcome(result);
    return result;
}

void sendSMS(std::string number, std::string text) {
    SmsChannel(modemDriver()).send({ChannelKind::kSms, {}, 0, 0, std::move(number), std::move(text)});
}
