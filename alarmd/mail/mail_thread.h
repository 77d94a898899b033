#pragma once

#include <atomic>
#include <string>

#include "alarmd/notify/delivery_road.h"
#include "knihovny/thread3.h"

// Set for each alarm mail and read by nothing else: the text handed to send_mail as its ignored third
// argument, and a mark. Mail thread only.
extern std::string subject;
extern std::string test;

// What the mails are given to. Set before the mail thread starts; a DirectRoad to the mail client by itself.
extern DeliveryRoad* mail_road;

// The mail thread's body: after 2 s one pass every 3 s until konec is set. No pass starts while thr_lock is
// raised.
void vlakno_m();

// One pass: every queued alarm becomes one mail to each user of each group (0 to 9) that lists it. An alarm
// whose event is ALARM_TIMEOUT seconds old is dropped with a line. A stop request does not end the pass,
// however long that takes, unless a client then takes longer than client_stop_limit: the mails behind it are
// counted on standard error and not sent. Mail thread.
void zpracuj_maily_by_users();

class MyThread final : public Thread3 {
  public:
    ~MyThread() { Stop(); }
    void NastavUkonceni(std::atomic<bool>* flag) { ukonci = flag; }

  protected:
    void ExecuteThread() override { vlakno_m(); }

  private:
    std::atomic<bool>* ukonci = nullptr;
};
