#pragma once

#include "alarmd/alarmd.h"

// Holds thr_lock up for the length of a block: workers start no pass meanwhile. Main thread only.
class QueuesChange {
  public:
    QueuesChange() { thr_lock = true; }
    ~QueuesChange() { thr_lock = false; }
    QueuesChange(const QueuesChange&) = delete;
    QueuesChange& operator=(const QueuesChange&) = delete;
};
