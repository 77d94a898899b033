// A way out of the daemon: the mail client, the modem.
#pragma once

#include "alarmd/notify/message.h"

// Sends one message and says what became of it. Called by its worker's thread only.
class Channel {
  public:
    virtual ~Channel() = default;
    virtual SendResult send(const Message& message) = 0;
};
