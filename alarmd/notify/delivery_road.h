// What a composed message is given to. One for each channel; called by the channel's worker only, but for
// unsent.
#pragma once

#include <cstdint>

#include "alarmd/notify/message.h"

class DeliveryRoad {
  public:
    virtual ~DeliveryRoad() = default;

    // Takes a message. False when the daemon stops and the channel did not keep up with that: what is given
    // to it next would not go out.
    virtual bool submit(const Message& message) = 0;

    // Sends what is due at the time now (seconds since the epoch). Once a pass.
    virtual void pump(int64_t now) = 0;

    // The messages that were taken and have not gone out. Of use when the worker has ended.
    virtual int unsent() const = 0;
};
