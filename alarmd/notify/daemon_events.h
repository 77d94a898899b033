// What happens in the daemon, for those who only look on: the road of an alarm does not know them.
#pragma once

#include <functional>
#include <string>
#include <variant>
#include <vector>

#include "alarmd/notify/message.h"

// A poll of the alarm history has ended.
struct HistoryPolled {
    bool answered = false;
    std::string detail;  // for people: why there is no answer
};

// A change of an alarm was taken: it is queued for those who hear of it.
struct AlarmTaken {
    EventKey event;
};

// A message was given to its channel. Valid during the call.
struct MessageSent {
    const Message& message;
    const SendResult& result;
};

using DaemonEvent = std::variant<HistoryPolled, AlarmTaken, MessageSent>;

class DaemonEvents {
  public:
    using Listener = std::function<void(const DaemonEvent& event)>;

    // Before other threads start. The listener is called on the thread where the event happens, on several
    // at once. It waits for nothing, and what it throws is dropped.
    void subscribe(Listener listener);

    // Any thread.
    void publish(const DaemonEvent& event) noexcept;

  private:
    std::vector<Listener> listeners_;
};

extern DaemonEvents daemon_events;
