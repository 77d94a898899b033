// The server's local TCP port: takes requests without any terminator, and pushes text to whoever is
// connected.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <string>
#include <thread>

#include "knihovny/descriptor.h"
#include "knihovny/mutex.h"
#include "sim/server/local_port.h"

namespace sim {

// An acknowledge request "t=11&prj=%s&id=%s&userID=%d&ackText=ACK_SMS".
struct AckRequest {
    std::string raw;  // as it came
    bool understood = false;
    std::string project, id, user;  // texts as they stand in the request; set when it was understood
};

// Cuts the first complete acknowledge request off the front of received and sets request, or returns false.
// What stands before it is handed out first, as a request that is not understood. Line ends, zero bytes and
// the byte 3 between requests are dropped.
bool cutAckRequest(std::string& received, AckRequest& request);

// The handlers are called on the port's own thread.
class TcpPort {
  public:
    enum class Mode {
        kNormal,
        kAway,   // connections are refused, those that stood have been closed
        kDeaf,   // connections are accepted, nothing is read
        kReset,  // each connection is reset when it comes, those that stood have been reset
    };

    struct Handlers {
        std::function<void(const AckRequest&)> request;
        std::function<void(const char* what)> client;  // "connected", "closed"
    };

    // Throws std::runtime_error when the port cannot be had.
    TcpPort(int port, Handlers handlers);
    ~TcpPort();
    TcpPort(const TcpPort&) = delete;
    TcpPort& operator=(const TcpPort&) = delete;

    int port() const { return keeper_.port(); }

    // The mode is in force on return. For one controlling thread, not for a handler.
    void setMode(Mode mode) EXCLUDES(mutex_);

    // Sends bytes to every client that is connected and returns how many those are. Any thread.
    size_t push(const std::string& bytes) EXCLUDES(mutex_);

    // Bytes that each client is sent when it connects, from now on. Any thread.
    void greet(const std::string& bytes) EXCLUDES(mutex_);

    // How many connections were accepted. Any thread.
    uint64_t connections() const { return connections_; }

  private:
    // A request that stays incomplete for this long is handed out as it is.
    static constexpr int64_t kQuietMilliseconds = 300;

    // Used by the port's thread, and by the controlling thread while that one does not run.
    struct Client {
        uint64_t number = 0;
        Descriptor socket;
        std::string received;
        int64_t last_received = 0;  // milliseconds on the steady clock
        bool closed = false;
    };

    void start();
    void stop();
    void run();
    void pollOnce() EXCLUDES(mutex_);
    void acceptClient() EXCLUDES(mutex_);
    void receive(Client& client);
    void send(const Client& client) EXCLUDES(mutex_);
    void handOut(Client& client);
    void dropClient(std::list<Client>::iterator client) EXCLUDES(mutex_);
    void wake() const;
    bool hasUnsent(uint64_t client) EXCLUDES(mutex_);

    const Handlers handlers_;
    PortKeeper keeper_;
    Descriptor wake_;
    std::atomic<uint64_t> connections_{0};
    std::atomic<bool> end_{false};

    // Used by the port's thread, and by the controlling thread while that one does not run.
    Mode mode_ = Mode::kAway;
    Descriptor listener_;
    std::list<Client> clients_;

    Mutex mutex_;
    std::string greeting_ GUARDED_BY(mutex_);
    std::map<uint64_t, std::string> unsent_ GUARDED_BY(mutex_);  // by client number, one for each client

    std::thread thread_;
};

}  // namespace sim
