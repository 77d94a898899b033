#include "alarmd/notify/direct_road.h"

bool DirectRoad::submit(const Message& message) {
    const SendResult result = channel_.send(message);
    events_.publish(MessageSent{message, result});
    return result.outcome != Outcome::kStopped;
}
