#include "alarmd/notify/daemon_events.h"

#include <utility>

DaemonEvents daemon_events;

void DaemonEvents::subscribe(Listener listener) {
    listeners_.push_back(std::move(listener));
}

void DaemonEvents::publish(const DaemonEvent& event) noexcept {
    for (const Listener& listener : listeners_) {
        try {
            listener(event);
        } catch (...) {
            // Whoever looks on holds up no alarm.
        }
    }
}
