// The SMS thread: opens the modem, tells of alarms and requested texts within a per-minute limit, and reads
// what comes in. The only thread that talks to the modem.
#pragma once

#include <atomic>
#include <cstdint>

#include "alarmd/notify/delivery_road.h"
#include "alarmd/sms/driver.h"
#include "knihovny/thread3.h"

// The thread's body: opens and initialises the modem, then every 2 s drains the queues and reads the incoming
// SMS, until konec is set. What goes out goes by sms_road.
void runSmsThread(ModemDriver& driver);

// The same with the daemon's modem.
void vlakno_s();

// One drain of fronta_sms and fronta_sms_raw: each alarm that is queued by then goes before the next raw
// message, and of these only as many go as were queued when the drain began. The limit smspeermin is looked
// at once a drain: one that begins under it sends all of them. Ends early when konec is set. SMS thread.
void zpracuj_sms();

// How many alarms and free texts are not sent, or not to everybody. Of use when the SMS thread has ended.
int unsentSms();

// Where zpracuj_sms gives its messages: by default it sends each at once through the daemon's modem. Changed
// only before the thread starts.
extern DeliveryRoad* sms_road;

// SMS thread only.
extern bool ret_connect;        // what the last opening of the modem gave
extern int64_t time_sms_count;  // start of the present counting minute, seconds; 0 before the first drain
extern int sms_count;           // messages counted in it

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
