// The FastCGI responder on 127.0.0.1, port 11032: a request is a POST whose body is a JSON object with the
// protocol number "t" (50 to 56), the answer a JSON text behind a bare line feed.
#pragma once

#include <atomic>

#include "alarmd/requests/fcgi_gate.h"
#include "knihovny/thread3.h"

constexpr int kFcgiPort = 11032;

// The FastCGI thread's body. While the port is taken it tries again every second. Ends with the first request
// that comes after konec was set; that one gets an empty answer. One at a time in a process.
void fcgi_run();

// Its loop, and what it prints when it ends. REQUIRES: FCGX_Init was called.
void serveRequests(RequestSource& requests);

// Never to be destroyed in the daemon: its thread waits for one more request before it ends, and the process
// does not wait for that.
class MyThreadFCGI final : public Thread3 {
  public:
    ~MyThreadFCGI() { Stop(); }

    void NastavUkonceni(std::atomic<bool>* flag) { ukonci = flag; }

  protected:
    void ExecuteThread() override { fcgi_run(); }

  private:
    std::atomic<bool>* ukonci = nullptr;
};
