#pragma once

#include <string>

#include "alarmd/notify/channel.h"
#include "alarmd/sms/driver.h"

// The modem as a way out of the daemon: sends each message by the driver, and prints it and its outcome. SMS
// thread only.
class SmsChannel final : public Channel {
  public:
    explicit SmsChannel(ModemDriver& driver) : driver_(driver) {}

    SendResult send(const Message& message) override;

  private:
    ModemDriver& driver_;
};

// Sends one text message through the daemon's modem and prints the outcome.
void sendSMS(std::string number, std::string text);
