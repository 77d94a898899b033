#pragma once

#include <atomic>

#include "knihovny/thread3.h"

// The SMS thread's body: opens and initialises the modem, then every 2 s drains the queues and reads the
// incoming SMS, until konec is set. The only thread that talks to the modem.
void vlakno_s();

// What the last Connect of the modem channel gave. SMS thread only.
extern bool ret_connect;

// Called on the SMS thread when the modem has been initialised, unless null. Set by main before the thread
// starts.
extern void (*modem_ready)();

class MyThread2 final : public Thread3 {
  public:
    ~MyThread2() { Stop(); }

    void NastavUkonceni(std::atomic<bool>* flag) { ukonci = flag; }

  protected:
    void ExecuteThread() override { vlakno_s(); }

  private:
    std::atomic<bool>* ukonci = nullptr;
};
