#pragma once

#include <atomic>

#include "knihovny/thread3.h"

// The mail thread's body: after 2 s one pass every 3 s until konec is set.
void vlakno_m();

// One pass: every queued alarm becomes one mail to each user of each group (0 to 9) that lists it. Mail thread.
void zpracuj_maily_by_users();

class MyThread final : public Thread3 {
  public:
    void NastavUkonceni(std::atomic<bool>* flag) { ukonci = flag; }

  protected:
    void ExecuteThread() override { vlakno_m(); }

  private:
    std::atomic<bool>* ukonci = nullptr;
};
