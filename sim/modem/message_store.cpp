#include "sim/modem/message_store.h"

#include <utility>

namespace sim {

const char* stateWord(StoredMessage::State state) {
    static constexpr const char* kWords[] = {"REC UNREAD", "REC READ", "STO UNSENT", "STO SENT"};
    return kWords[state];
}

void MessageStore::renumber(int first) {
    std::map<int, StoredMessage> messages = std::exchange(messages_, {});
    first_ = first;
    for (auto& entry : messages) add(std::move(entry.second));
}

int MessageStore::add(StoredMessage message) {
    int index = first_;
    while (messages_.contains(index)) ++index;
    messages_.emplace(index, std::move(message));
    return index;
}

StoredMessage* MessageStore::find(int index) {
    const auto place = messages_.find(index);
    return place == messages_.end() ? nullptr : &place->second;
}

void MessageStore::removeAll(int flag) {
    using State = StoredMessage::State;
    std::erase_if(messages_, [flag](const auto& entry) {
        switch (entry.second.state) {
            case State::kRead:
                return flag >= 1;
            case State::kSent:
                return flag >= 2;
            case State::kUnsent:
                return flag >= 3;
            default:
                return flag >= 4;
        }
    });
}

}  // namespace sim
