#include "sim/server/korvato_server.h"

#include <httplib.h>

#include <charconv>
#include <utility>

namespace sim {
namespace {

struct ModeWord {
    Behaviour::Mode mode;
    const char* word;
};
constexpr ModeWord kModeWords[] = {
    {Behaviour::kNormal, "normal"}, {Behaviour::kNormal, "back"},       {Behaviour::kSlow, "slow"},
    {Behaviour::kHang, "hang"},     {Behaviour::kCut, "cut"},           {Behaviour::kStatus, "status"},
    {Behaviour::kRaw, "raw"},       {Behaviour::kRedirect, "redirect"}, {Behaviour::kReset, "reset"},
    {Behaviour::kDeaf, "deaf"},     {Behaviour::kAway, "away"},
};

struct TcpModeWord {
    TcpPort::Mode mode;
    const char* word;
};
constexpr TcpModeWord kTcpModeWords[] = {
    {TcpPort::Mode::kNormal, "normal"}, {TcpPort::Mode::kNormal, "back"}, {TcpPort::Mode::kAway, "away"},
    {TcpPort::Mode::kDeaf, "deaf"},     {TcpPort::Mode::kReset, "reset"},
};

constexpr const char* kPath = "/r.fcgi";

std::string htmlPage(int status) {
    const std::string title = "Error " + std::to_string(status);
    return "<html>\n<head><title>" + title + "</title></head>\n<body>\n<h1>" + title +
           "</h1>\n</body>\n</html>\n";
}

// Promises the whole body and ends after its first half.
void answerHalf(httplib::Response& response, const std::string& body) {
    const std::string half = body.substr(0, body.size() / 2);
    response.set_content_provider(body.size(), "application/json",
                                  [half](size_t, size_t, httplib::DataSink& sink) {
                                      sink.write(half.data(), half.size());
                                      return false;
                                  });
}

std::string stateText(int state) {
    switch (state) {
        case AlarmChange::kDeactivated:
            return "deactivated";
        case AlarmChange::kActivated:
            return "activated";
        case AlarmChange::kAcknowledged:
            return "acknowledged";
        default:
            return "state " + std::to_string(state);
    }
}

}  // namespace

const char* modeWord(Behaviour::Mode mode) {
    for (const ModeWord& entry : kModeWords) {
        if (entry.mode == mode) return entry.word;
    }
    return "";
}

bool behaviourMode(const std::string& word, Behaviour::Mode& mode) {
    for (const ModeWord& entry : kModeWords) {
        if (word != entry.word) continue;
        mode = entry.mode;
        return true;
    }
    return false;
}

const char* modeWord(TcpPort::Mode mode) {
    for (const TcpModeWord& entry : kTcpModeWords) {
        if (entry.mode == mode) return entry.word;
    }
    return "";
}

bool tcpMode(const std::string& word, TcpPort::Mode& mode) {
    for (const TcpModeWord& entry : kTcpModeWords) {
        if (word != entry.word) continue;
        mode = entry.mode;
        return true;
    }
    return false;
}

KorvatoServer::KorvatoServer(const Options& options, const EventLog& log)
    : log_(log),
      history_(options.project),
      https_keeper_(options.https_port),
      tcp_(options.tcp_port, {.request = [this](const AckRequest& request) { acknowledge(request); },
                              .client =
                                  [this](const char* what) {
                                      Json::Value members;
                                      members["what"] = what;
                                      log_.tell("tcp client", std::string("tcp client ") + what, members);
                                  }}) {
    listenHttps(true);
}

KorvatoServer::~KorvatoServer() {
    listenHttps(false);
}

// The listener's handlers take the mutex, so it is made and destroyed outside of it.
void KorvatoServer::listenHttps(bool on) {
    std::unique_ptr<HttpsListener> listener;
    if (on) {
        auto handler = [this](const HttpsListener& own, const httplib::Request& request,
                              httplib::Response& response) { serve(own, request, response); };
        listener = std::make_unique<HttpsListener>(certificate_, httpsPort(), handler);
    }
    MutexLock lock(mutex_);
    std::swap(https_, listener);
    if (listener) earlier_connections_ += listener->connections();
}

void KorvatoServer::behave(const Behaviour& behaviour) {
    bool listening = false;
    {
        MutexLock lock(mutex_);
        behaviour_ = behaviour;
        listening = https_ != nullptr;
    }
    const bool listen = behaviour.mode != Behaviour::kAway && behaviour.mode != Behaviour::kDeaf;
    if (listening && !listen) listenHttps(false);
    if (deaf_ != (behaviour.mode == Behaviour::kDeaf)) https_keeper_.acceptIntoTheVoid(deaf_ = !deaf_);
    if (!listening && listen) listenHttps(true);
    if (behaviour.mode == Behaviour::kAway && !tcp_away_) tcp_.setMode(TcpPort::Mode::kAway);
    if (behaviour.mode != Behaviour::kAway && tcp_away_) tcp_.setMode(TcpPort::Mode::kNormal);
    tcp_away_ = behaviour.mode == Behaviour::kAway;
    Json::Value members;
    members["server"] = modeWord(behaviour.mode);
    log_.tell("server", std::string("server ") + modeWord(behaviour.mode), members);
}

void KorvatoServer::behaveTcp(TcpPort::Mode mode) {
    tcp_.setMode(mode);
    tcp_away_ = false;
    Json::Value members;
    members["tcp"] = modeWord(mode);
    log_.tell("tcp", std::string("tcp port ") + modeWord(mode), members);
}

void KorvatoServer::change(const AlarmChange& change) {
    const int64_t moment = history_.add(change);
    Json::Value members;
    members["alarm"] = change.id;
    members["state"] = stateText(change.state);
    members["stat"] = change.state;
    members["value"] = change.value;
    members["moment"] = momentJson(moment);
    std::string text = "server alarm " + std::to_string(change.id) + " " + stateText(change.state);
    if (!change.user.empty()) {
        members["user"] = change.user;
        text += " by " + change.user;
    }
    log_.tell("alarm", text, members);
}

// ---------------------------------------------------------------------------------------------------------------
// HTTPS

Behaviour KorvatoServer::takeBehaviour() {
    MutexLock lock(mutex_);
    Behaviour taken = behaviour_;
    if (behaviour_.times > 0 && --behaviour_.times == 0) behaviour_ = Behaviour();
    return taken;
}

void KorvatoServer::serve(const HttpsListener& listener, const httplib::Request& request,
                          httplib::Response& response) {
    const Behaviour behaviour = takeBehaviour();
    const int64_t entries = answer(behaviour, request, response);
    record(request, behaviour, entries);
    if (behaviour.mode == Behaviour::kSlow) {
        listener.pause(request, behaviour.seconds);
    } else if (behaviour.mode == Behaviour::kHang) {
        listener.pause(request, 1e9);
    } else if (behaviour.mode == Behaviour::kReset) {
        HttpsListener::reset(request);
    }
}

// Fills in the response and returns how many entries of the history it holds, -1 when it is no history.
int64_t KorvatoServer::answer(const Behaviour& behaviour, const httplib::Request& request,
                              httplib::Response& response) const {
    if (request.path != kPath) {
        response.status = 404;
        response.set_content(htmlPage(404), "text/html");
        return -1;
    }
    switch (behaviour.mode) {
        case Behaviour::kStatus:
            response.status = behaviour.status;
            response.set_content(behaviour.body.empty() ? htmlPage(behaviour.status) : behaviour.body,
                                 "text/html");
            return -1;
        case Behaviour::kRaw:
            response.status = behaviour.status;
            response.set_content(behaviour.body, behaviour.content_type);
            return -1;
        case Behaviour::kRedirect:
            response.set_redirect(kPath);
            return -1;
        default:
            break;
    }
    const auto asked = parseHistoryRequest(request.body);
    if (request.method != "POST" || !asked) {
        response.status = 400;
        response.set_content("{\"err\":\"not a history request\"}", "application/json");
        return -1;
    }
    size_t entries = 0;
    const std::string body = history_.answer(*asked, &entries);
    if (behaviour.mode == Behaviour::kCut) {
        answerHalf(response, body);
        return -1;
    }
    response.set_content(body, "application/json");
    const bool answered = behaviour.mode != Behaviour::kHang && behaviour.mode != Behaviour::kReset;
    return answered ? static_cast<int64_t>(entries) : -1;
}

void KorvatoServer::record(const httplib::Request& request, const Behaviour& behaviour, int64_t entries) {
    PollRecord poll{realMicroseconds(),       log_.elapsed(), request.method, request.path, request.body, 0,
                    modeWord(behaviour.mode), entries};
    {
        MutexLock lock(mutex_);
        poll.connection = earlier_connections_ + HttpsListener::connectionNumber(request);
    }
    std::string text = "poll ";
    if (poll.method != "POST" || poll.path != kPath) text += poll.method + " " + printable(poll.path) + " ";
    text += printable(poll.body) + " -> ";
    if (behaviour.mode != Behaviour::kNormal || entries < 0) text += poll.mode + (entries < 0 ? "" : ", ");
    if (entries >= 0) text += std::to_string(entries) + (entries == 1 ? " entry" : " entries");
    const Json::Value members = pollJson(poll);
    {
        MutexLock lock(mutex_);
        ++poll_count_;
        polls_.push_back(std::move(poll));
        if (polls_.size() > kMostRecords) polls_.pop_front();
    }
    log_.tell("poll", text, members);
}

std::vector<PollRecord> KorvatoServer::polls() const {
    MutexLock lock(mutex_);
    return {polls_.begin(), polls_.end()};
}

uint64_t KorvatoServer::pollCount() const {
    MutexLock lock(mutex_);
    return poll_count_;
}

uint64_t KorvatoServer::httpsConnections() const {
    MutexLock lock(mutex_);
    return earlier_connections_ + (https_ ? https_->connections() : 0);
}

void KorvatoServer::forgetRequests() {
    MutexLock lock(mutex_);
    polls_.clear();
    poll_count_ = 0;
    acks_.clear();
}

Json::Value pollJson(const PollRecord& poll) {
    Json::Value json;
    json["at"] = roundToMicroseconds(poll.at);
    json["time"] = momentJson(poll.time);
    json["method"] = poll.method;
    json["path"] = poll.path;
    json["body"] = poll.body;
    json["connection"] = Json::UInt64{poll.connection};
    json["mode"] = poll.mode;
    json["entries"] = Json::Int64{poll.entries};
    return json;
}

// ---------------------------------------------------------------------------------------------------------------
// Acknowledge requests

// Why a request is not carried out; empty when it is.
std::string KorvatoServer::refusal(const AckRequest& request, int& id) const {
    if (!request.understood) return "not understood";
    if (request.project != history_.project()) return "another project";
    const char* end = request.id.data() + request.id.size();
    const auto parsed = std::from_chars(request.id.data(), end, id);
    if (parsed.ec != std::errc() || parsed.ptr != end) return "no alarm id";
    if (!history_.active(id)) return "the alarm is not active";
    return {};
}

void KorvatoServer::acknowledge(const AckRequest& request) {
    int id = 0;
    const std::string reason = refusal(request, id);
    AckRecord ack{realMicroseconds(), log_.elapsed(), request, reason.empty(), reason};
    std::string text = "ack request ";
    text += request.understood ? "alarm " + printable(request.id) + " user " + printable(request.user)
                               : printable(request.raw);
    if (!ack.done) text += " (" + reason + ")";
    const Json::Value members = ackJson(ack);
    {
        MutexLock lock(mutex_);
        acks_.push_back(std::move(ack));
        if (acks_.size() > kMostRecords) acks_.pop_front();
    }
    log_.tell("ack request", text, members);
    if (reason.empty()) {
        AlarmChange acknowledged;
        acknowledged.id = id;
        acknowledged.state = AlarmChange::kAcknowledged;
        acknowledged.user = request.user;
        change(acknowledged);
    }
}

std::vector<AckRecord> KorvatoServer::acks() const {
    MutexLock lock(mutex_);
    return {acks_.begin(), acks_.end()};
}

Json::Value ackJson(const AckRecord& ack) {
    Json::Value json;
    json["at"] = roundToMicroseconds(ack.at);
    json["time"] = momentJson(ack.time);
    json["raw"] = ack.request.raw;
    json["understood"] = ack.request.understood;
    json["project"] = ack.request.project;
    json["id"] = ack.request.id;
    json["user"] = ack.request.user;
    json["done"] = ack.done;
    json["reason"] = ack.reason;
    return json;
}

}  // namespace sim
