#include "sim/server/tcp_port.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <utility>
#include <vector>

namespace sim {
namespace {

constexpr std::string_view kBetweenRequests("\r\n\0\3", 4);
constexpr std::string_view kRequestBegin = "t=11&prj=";
constexpr std::string_view kRequestEnd = "&ackText=ACK_SMS";

void dropFront(std::string& received) {
    const size_t begin = received.find_first_not_of(kBetweenRequests);
    received.erase(0, std::min(begin, received.size()));
}

// A request from kRequestBegin to kRequestEnd. The id is any text of a message, so only its neighbours mark
// it out.
AckRequest parseAckRequest(const std::string& raw) {
    AckRequest request{raw, false, {}, {}, {}};
    const std::string inner =
        raw.substr(kRequestBegin.size(), raw.size() - kRequestBegin.size() - kRequestEnd.size());
    const size_t id = inner.find("&id=");
    const size_t user = inner.rfind("&userID=");
    if (id == std::string::npos || user == std::string::npos || user < id + 4) return request;
    request.project = inner.substr(0, id);
    request.id = inner.substr(id + 4, user - id - 4);
    request.user = inner.substr(user + 8);
    request.understood = true;
    return request;
}

int64_t steadyMilliseconds() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

bool cutAckRequest(std::string& received, AckRequest& request) {
    dropFront(received);
    const size_t begin = received.find(kRequestBegin);
    if (begin == std::string::npos) return false;
    const size_t end = received.find(kRequestEnd, begin);
    if (end == std::string::npos) return false;
    if (begin > 0) {
        request = AckRequest{received.substr(0, begin), false, {}, {}, {}};
        received.erase(0, begin);
        return true;
    }
    request = parseAckRequest(received.substr(0, end + kRequestEnd.size()));
    received.erase(0, end + kRequestEnd.size());
    dropFront(received);
    return true;
}

TcpPort::TcpPort(int port, Handlers handlers)
    : handlers_(std::move(handlers)), keeper_(port), wake_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    setMode(Mode::kNormal);
}

TcpPort::~TcpPort() {
    stop();
}

void TcpPort::start() {
    end_ = false;
    thread_ = std::thread([this] { run(); });
}

void TcpPort::stop() {
    if (!thread_.joinable()) return;
    end_ = true;
    wake();
    thread_.join();
}

void TcpPort::setMode(Mode mode) {
    stop();
    mode_ = mode;
    if (mode == Mode::kAway || mode == Mode::kReset) {
        listener_.reset();  // with all connections that nobody has accepted yet
        for (const Client& client : clients_) {
            if (mode == Mode::kReset) resetOnClose(client.socket.get());
        }
        while (!clients_.empty()) dropClient(clients_.begin());
    }
    if (mode != Mode::kAway && listener_.get() == -1) {
        listener_ = boundSocket(keeper_.port());
        if (listen(listener_.get(), 64) != 0) throw std::runtime_error("port " + std::to_string(port()));
    }
    start();
}

size_t TcpPort::push(const std::string& bytes) {
    size_t clients = 0;
    {
        MutexLock lock(mutex_);
        for (auto& [client, unsent] : unsent_) unsent += bytes;
        clients = unsent_.size();
    }
    wake();
    return clients;
}

void TcpPort::greet(const std::string& bytes) {
    MutexLock lock(mutex_);
    greeting_ = bytes;
}

void TcpPort::wake() const {
    const uint64_t one = 1;
    if (write(wake_.get(), &one, sizeof one) < 0) return;  // full: it wakes anyway
}

void TcpPort::run() {
    while (!end_) pollOnce();
}

bool TcpPort::hasUnsent(uint64_t client) {
    MutexLock lock(mutex_);
    return !unsent_[client].empty();
}

void TcpPort::pollOnce() {
    std::vector<pollfd> polled;
    polled.push_back({wake_.get(), POLLIN, 0});
    polled.push_back({listener_.get(), POLLIN, 0});  // -1 is passed over
    bool waiting = false;
    for (const Client& client : clients_) {
        const int in = mode_ == Mode::kDeaf ? 0 : POLLIN;
        const int out = hasUnsent(client.number) ? POLLOUT : 0;
        polled.push_back({client.socket.get(), static_cast<short>(in | out), 0});
        waiting = waiting || !client.received.empty();
    }
    if (poll(polled.data(), polled.size(), waiting ? 50 : -1) < 0 && errno != EINTR) return;
    uint64_t count = 0;
    while (read(wake_.get(), &count, sizeof count) > 0) {
    }
    size_t index = 2;
    for (auto client = clients_.begin(); client != clients_.end(); ++index) {
        const auto current = client++;
        const short seen = polled[index].revents;
        if (seen & POLLOUT) send(*current);
        if (seen & (POLLIN | POLLHUP | POLLERR)) receive(*current);
        if (mode_ != Mode::kDeaf) handOut(*current);
        if (current->closed) dropClient(current);
    }
    if (polled[1].revents & POLLIN) acceptClient();
}

void TcpPort::acceptClient() {
    Descriptor socket(accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (socket.get() == -1) return;
    const uint64_t number = ++connections_;
    if (mode_ == Mode::kReset) {
        resetOnClose(socket.get());
        return;
    }
    clients_.emplace_back();
    clients_.back().number = number;
    clients_.back().socket = std::move(socket);
    {
        MutexLock lock(mutex_);
        unsent_[number] = greeting_;
    }
    if (handlers_.client) handlers_.client("connected");
}

void TcpPort::receive(Client& client) {
    char buffer[4096];
    const ssize_t length = recv(client.socket.get(), buffer, sizeof buffer, 0);
    if (length > 0) {
        client.received.append(buffer, static_cast<size_t>(length));
        client.last_received = steadyMilliseconds();
    } else if (length == 0 || (errno != EAGAIN && errno != EINTR)) {
        client.closed = true;
    }
}

void TcpPort::send(const Client& client) {
    std::string part;
    {
        MutexLock lock(mutex_);
        part = unsent_[client.number].substr(0, 65536);
    }
    const ssize_t length = ::send(client.socket.get(), part.data(), part.size(), MSG_NOSIGNAL);
    if (length <= 0) return;
    MutexLock lock(mutex_);
    unsent_[client.number].erase(0, static_cast<size_t>(length));
}

void TcpPort::handOut(Client& client) {
    AckRequest request;
    while (cutAckRequest(client.received, request)) handlers_.request(request);
    const bool quiet = steadyMilliseconds() - client.last_received >= kQuietMilliseconds;
    if (client.received.empty() || (!quiet && !client.closed)) return;
    handlers_.request(AckRequest{std::exchange(client.received, {}), false, {}, {}, {}});
}

void TcpPort::dropClient(std::list<Client>::iterator client) {
    {
        MutexLock lock(mutex_);
        unsent_.erase(client->number);
    }
    clients_.erase(client);
    if (handlers_.client) handlers_.client("closed");
}

}  // namespace sim
