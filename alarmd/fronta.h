#pragma once

#include <queue>
#include <utility>

#include "knihovny/mutex.h"

// A first-in-first-out queue between threads. It locks for the length of one operation only, so a producer
// can push while a consumer works on what it took. Any thread.
template <class T>
class Fronta {
  public:
    void push(const T& item) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        queue_.push(item);
    }

    // Moves the front entry into item. False when there is none.
    bool take(T& item) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        if (queue_.empty()) return false;
        item = std::move(queue_.front());
        queue_.pop();
        return true;
    }

    // Drops all entries.
    void clear() EXCLUDES(mutex_) {
        std::queue<T> dropped;
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
    std::queue<T> queue_ GUARDED_BY(mutex_);
};
