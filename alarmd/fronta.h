#pragma once

#include <algorithm>
#include <cstddef>
#include <deque>
#include <iterator>
#include <optional>
#include <utility>
#include <vector>

#include "knihovny/mutex.h"

// A first-in-first-out queue between threads. It locks for the length of one operation only, so a producer
// can push while a consumer works on what it took. Any thread.
template <class T>
class Fronta {
  public:
    void push(const T& item) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        queue_.push_back(item);
    }

    // Moves the front entry into item. False when there is none.
    bool take(T& item) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        if (queue_.empty()) return false;
        item = std::move(queue_.front());
        queue_.pop_front();
        return true;
    }

    // Removes the entries for which wanted(entry) is true and returns them; both they and those that stay
    // keep their order. wanted is called under the queue's lock: REQUIRES: it neither waits nor uses this
    // queue.
    template <class Predicate>
    std::vector<T> removeIf(Predicate wanted) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        const auto removed = std::stable_partition(queue_.begin(), queue_.end(),
                                                   [&](const T& entry) { return !wanted(entry); });
        std::vector<T> entries(std::make_move_iterator(removed), std::make_move_iterator(queue_.end()));
        queue_.erase(removed, queue_.end());
        return entries;
    }

    // Drops all entries.
    void clear() EXCLUDES(mutex_) {
        std::deque<T> dropped;
        MutexLock lock(mutex_);
        queue_.swap(dropped);
    }

    int size() const EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return static_cast<int>(queue_.size());
    }

    bool empty() const { return size() == 0; }

  private:
    mutable Mutex mutex_;
    std::deque<T> queue_ GUARDED_BY(mutex_);
};

// A Fronta with a bound on its entries and on their bytes. Who has to promise that an entry finds room takes
// a place for it first, and pushes it later: places that are taken count like entries. Any thread.
template <class T>
class BoundedFronta {
  public:
    // bytesOf gives the bytes of an entry that count.
    BoundedFronta(size_t most_entries, size_t most_bytes, size_t (*bytesOf)(const T&))
        : most_entries_(most_entries), most_bytes_(most_bytes), bytesOf_(bytesOf) {}

    // A place for one entry, which it holds until it is pushed. Given back when it ends without that.
    // REQUIRES: the queue outlives it. For one thread.
    class Place {
      public:
        Place(Place&& other) noexcept
            : queue_(std::exchange(other.queue_, nullptr)), item_(std::move(other.item_)) {}
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;
        ~Place() {
            if (queue_ != nullptr) queue_->giveBack(queue_->bytesOf_(item_));
        }

        // Puts the entry at the end of the queue. Does nothing at a second call.
        void push() {
            if (queue_ != nullptr) std::exchange(queue_, nullptr)->queue_.push(item_);
        }

      private:
        friend class BoundedFronta;
        Place(BoundedFronta* queue, T item) : queue_(queue), item_(std::move(item)) {}

        BoundedFronta* queue_;
        T item_;
    };

    // A place for item, or none while there is no room for it.
    std::optional<Place> place(T item) EXCLUDES(mutex_) {
        const size_t bytes = bytesOf_(item);
        MutexLock lock(mutex_);
        if (entries_ >= most_entries_ || bytes > most_bytes_ - bytes_) return std::nullopt;
        ++entries_;
        bytes_ += bytes;
        return Place(this, std::move(item));
    }

    // False, and nothing is queued, when there is no room for item.
    bool push(T item) EXCLUDES(mutex_) {
        std::optional<Place> taken = place(std::move(item));
        if (taken) taken->push();
        return taken.has_value();
    }

    // Moves the front entry into item, and its place is free. False when there is none.
    bool take(T& item) EXCLUDES(mutex_) {
        if (!queue_.take(item)) return false;
        giveBack(bytesOf_(item));
        return true;
    }

    // Drops all entries; places that are taken for others stay.
    void clear() EXCLUDES(mutex_) {
        T item;
        while (take(item)) {
        }
    }

    // The entries, without those that are still to be pushed.
    int size() const { return queue_.size(); }
    bool empty() const { return queue_.empty(); }

  private:
    void giveBack(size_t bytes) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        --entries_;
        bytes_ -= bytes;
    }

    const size_t most_entries_;
    const size_t most_bytes_;
    size_t (*const bytesOf_)(const T&);
    Fronta<T> queue_;  // never touched under mutex_, so that no lock is taken under another
    Mutex mutex_;
    size_t entries_ GUARDED_BY(mutex_) = 0;  // those in queue_ and the places that are taken
    size_t bytes_ GUARDED_BY(mutex_) = 0;
};
