// The SMS store of a SIM card.
#pragma once

#include <map>
#include <string>

namespace sim {

struct StoredMessage {
    enum State { kUnread, kRead, kUnsent, kSent };
    State state = kUnread;
    std::string number = {};
    std::string name = {};   // the sender's name in the phone book; empty: none
    std::string stamp = {};  // service centre time stamp, "yy/MM/dd,hh:mm:ss+zz" (zz: quarters of an hour)
    std::string text = {};
};

// The text-mode word of a state, such as "REC UNREAD" (3GPP TS 27.005, section 3.1).
const char* stateWord(StoredMessage::State state);

// Places numbered from first to first + capacity - 1. For one thread.
class MessageStore {
  public:
    MessageStore(int first, int capacity) : first_(first), capacity_(capacity) {}

    bool valid(int index) const { return index >= first_ && index < first_ + capacity_; }
    bool full() const { return static_cast<int>(messages_.size()) >= capacity_; }
    int capacity() const { return capacity_; }

    // Moves all messages to places counted from first.
    void renumber(int first);

    // Puts a message into the first free place and returns its index. REQUIRES: not full.
    int add(StoredMessage message);

    // Null for a place that is empty or not there.
    StoredMessage* find(int index);

    void remove(int index) { messages_.erase(index); }

    // Deletes by the flag of +CMGD: 1 all read, 2 read and sent, 3 read, sent and unsent, 4 all.
    void removeAll(int flag);

    const std::map<int, StoredMessage>& messages() const { return messages_; }

  private:
    int first_;
    const int capacity_;
    std::map<int, StoredMessage> messages_;
};

}  // namespace sim
