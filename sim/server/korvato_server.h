// The simulated Korvato server: alarm history over HTTPS, and the local TCP port that takes acknowledgements.
//
//   EventLog log(printEvent);
//   KorvatoServer server({.project = "7"}, log);
//   server.change({.id = 12, .state = AlarmChange::kActivated, .value = 1.5});
//   ... a client polls https://127.0.0.1:<server.httpsPort()>/r.fcgi ...
//   server.behave({.mode = Behaviour::kAway});
//
// Events it tells: "alarm", "poll", "ack request", "server", "tcp", "tcp client"; see sim/README.md.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "knihovny/mutex.h"
#include "sim/server/alarm_history.h"
#include "sim/server/https_listener.h"
#include "sim/server/local_port.h"
#include "sim/server/tcp_port.h"
#include "sim/support/event_log.h"

namespace sim {

// How the HTTPS side behaves.
struct Behaviour {
    enum Mode {
        kNormal,
        kSlow,      // the answer comes after `seconds`
        kHang,      // requests are taken and never answered
        kCut,       // the connection is closed after half of the answer's body
        kStatus,    // `status` with an HTML page instead of an answer
        kRaw,       // `body` instead of an answer, with `status`
        kRedirect,  // a redirection to the same place
        kReset,     // the connection is reset instead of an answer
        kDeaf,      // TCP connections are accepted, and nothing more happens on them
        kAway,      // connections are refused, those that stood are closed
    };
    Mode mode = kNormal;
    double seconds = 0;
    int status = 200;
    std::string body;
    std::string content_type = "application/json";
    int times = 0;  // after so many requests normal again; 0: until told otherwise. Not for kDeaf and kAway
};

// The word of a mode ("normal", "away", ...) in both directions. behaviourMode returns false for an unknown
// word.
const char* modeWord(Behaviour::Mode mode);
bool behaviourMode(const std::string& word, Behaviour::Mode& mode);
const char* modeWord(TcpPort::Mode mode);
bool tcpMode(const std::string& word, TcpPort::Mode& mode);

// A request as it came to the HTTPS side.
struct PollRecord {
    int64_t time = 0;  // microseconds since the epoch
    double at = 0;     // seconds since the log began
    std::string method, path, body;
    uint64_t connection = 0;  // number of its connection, from 1
    std::string mode;         // the server's mode then
    int64_t entries = -1;     // entries answered; -1 when no (whole) history was answered
};

// An acknowledge request as it came to the TCP port.
struct AckRecord {
    int64_t time = 0;
    double at = 0;
    AckRequest request;
    bool done = false;   // the alarm was active and is acknowledged in the history
    std::string reason;  // why it was not
};

// The records as JSON, see sim/README.md.
Json::Value pollJson(const PollRecord& poll);
Json::Value ackJson(const AckRecord& ack);

class KorvatoServer {
  public:
    struct Options {
        int https_port = 0;  // 0: any free one
        int tcp_port = 0;
        std::string project = "1";
    };

    // Both ports serve from here on. Throws std::runtime_error when a port cannot be had. log outlives the
    // server.
    KorvatoServer(const Options& options, const EventLog& log);
    ~KorvatoServer();

    int httpsPort() const { return https_keeper_.port(); }
    int tcpPort() const { return tcp_.port(); }

    AlarmHistory& history() { return history_; }

    // Adds a change to the history and tells it. Any thread.
    void change(const AlarmChange& change);

    // In force on return. kAway closes the TCP port too, kNormal opens it again. For one controlling thread.
    void behave(const Behaviour& behaviour) EXCLUDES(mutex_);
    void behaveTcp(TcpPort::Mode mode);

    TcpPort& tcp() { return tcp_; }

    // What came so far, oldest first, at most the last 100,000; the count is of all. Any thread.
    std::vector<PollRecord> polls() const EXCLUDES(mutex_);
    uint64_t pollCount() const EXCLUDES(mutex_);
    std::vector<AckRecord> acks() const EXCLUDES(mutex_);
    uint64_t httpsConnections() const EXCLUDES(mutex_);
    void forgetRequests() EXCLUDES(mutex_);

  private:
    static constexpr size_t kMostRecords = 100000;

    void serve(const HttpsListener& listener, const httplib::Request& request, httplib::Response& response)
        EXCLUDES(mutex_);
    int64_t answer(const Behaviour& behaviour, const httplib::Request& request,
                   httplib::Response& response) const;
    Behaviour takeBehaviour() EXCLUDES(mutex_);
    void record(const httplib::Request& request, const Behaviour& behaviour, int64_t entries)
        EXCLUDES(mutex_);
    void acknowledge(const AckRequest& request) EXCLUDES(mutex_);
    std::string refusal(const AckRequest& request, int& id) const;
    void listenHttps(bool on) EXCLUDES(mutex_);

    const EventLog& log_;
    const Certificate certificate_;
    AlarmHistory history_;
    PortKeeper https_keeper_;
    bool tcp_away_ = false;  // by behave; controlling thread
    bool deaf_ = false;      // controlling thread

    mutable Mutex mutex_;
    Behaviour behaviour_ GUARDED_BY(mutex_);
    std::deque<PollRecord> polls_ GUARDED_BY(mutex_);
    uint64_t poll_count_ GUARDED_BY(mutex_) = 0;
    std::deque<AckRecord> acks_ GUARDED_BY(mutex_);
    uint64_t earlier_connections_ GUARDED_BY(mutex_) = 0;      // of listeners that are gone
    std::unique_ptr<HttpsListener> https_ GUARDED_BY(mutex_);  // exchanged by the controlling thread

    TcpPort tcp_;  // its handlers use the members above
};

}  // namespace sim
