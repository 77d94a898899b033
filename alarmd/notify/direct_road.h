#pragma once

#include "alarmd/notify/channel.h"
#include "alarmd/notify/daemon_events.h"
#include "alarmd/notify/delivery_road.h"

// Sends each message when it is submitted, once, and keeps nothing: one that fails is lost.
class DirectRoad final : public DeliveryRoad {
  public:
    DirectRoad(Channel& channel, DaemonEvents& events) : channel_(channel), events_(events) {}

    bool submit(const Message& message) override;
    void pump(int64_t /*now*/) override {}
    int unsent() const override { return 0; }

  private:
    Channel& channel_;
    DaemonEvents& events_;
};
