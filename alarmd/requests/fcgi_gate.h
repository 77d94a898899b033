// The listening side of the FastCGI responder: many clients at once, from which whole requests come out one
// by one.
#pragma once

#include <poll.h>

#include <chrono>
#include <cstddef>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "alarmd/requests/fcgi_request_reader.h"
#include "knihovny/descriptor.h"

// Where the responder takes its requests from, one by one.
class RequestSource {
  public:
    virtual ~RequestSource() = default;

    // Waits, without limit, for the next request. REQUIRES: the one before has been answered.
    virtual FcgiRequest next() = 0;

    // Sends the records to the client of the last request.
    virtual void answer(std::string records) = 0;
};

// Clients that are slow, silent or do not keep to the protocol stay in here: the responder sees only requests
// that are complete, and its answers are sent without waiting for their readers. A client has 10 s to begin a
// request, 10 s for the rest of it and 10 s to take the answer; nothing else that it sends gives it more
// time.
//
// It has places for 128 clients. When all are taken, who comes gets the place of one that has no request
// begun: of the kept connection whose last answer is the oldest, and when there is none, of who has been
// there for the longest time without ever beginning one. Who has begun a request stays until its limit; while
// all have, others wait to be accepted. For one thread.
class FcgiGate final : public RequestSource {
  public:
    // Requests with a body above longest_body bytes come without it, and their connection is not kept.
    explicit FcgiGate(size_t longest_body) : longest_body_(longest_body) {}
    FcgiGate(const FcgiGate&) = delete;
    FcgiGate& operator=(const FcgiGate&) = delete;

    // Listens on 127.0.0.1; port 0 lets the system choose one. Returns 0 or an error number.
    int listenOn(int tcp_port);

    // The port that is listened on, 0 while there is none.
    int listeningPort() const { return listening_port_; }

    // REQUIRES: listenOn has succeeded.
    FcgiRequest next() override;

    // Ends the connection too, unless that is to be kept.
    void answer(std::string records) override;

  private:
    using Clock = std::chrono::steady_clock;

    enum class Phase { kRequest, kAnswer, kLeaving };

    struct Client {
        Client(int descriptor, size_t longest_body) : socket(descriptor), reader(longest_body) {}
        const Descriptor socket;
        FcgiRequestReader reader;
        std::string unread;  // what came behind a complete request
        std::string answer;  // what is left to send of it
        bool keep = false;   // the connection, behind the answer
        Phase phase = Phase::kRequest;
        Clock::time_point deadline;
    };

    void waitForWork();
    void fillPollList(Clock::time_point now);
    int millisecondsToWait(Clock::time_point now) const;
    void acceptClients();
    bool accepting(Clock::time_point now) const;
    bool full() const;
    std::list<Client>::const_iterator longestIdle() const;
    static bool isIdle(const Client& client);
    static bool isComplete(const Client& client);
    // These return false when the client is to be dropped.
    static bool step(Client& client);
    static bool receive(Client& client);
    static bool takeBytes(Client& client, std::string_view bytes);
    static bool sendAnswer(Client& client);
    static bool endAnswer(Client& client);

    const size_t longest_body_;
    std::optional<Descriptor> listening_;
    int listening_port_ = 0;
    std::list<Client> clients_;   // whose request is being answered is in front
    std::vector<pollfd> polled_;  // the listening socket and the clients, in their order
    Clock::time_point accept_from_;
};
