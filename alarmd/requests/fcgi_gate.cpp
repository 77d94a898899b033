#include "alarmd/requests/fcgi_gate.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <tuple>
#include <utility>

namespace {

constexpr int kBacklog = 400;
constexpr size_t kMostClients = 128;
constexpr std::chrono::seconds kClientLimit(10);
constexpr std::chrono::seconds kAcceptPause(1);
constexpr size_t kBlock = 16384;

bool mayTryAgain() {
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

sockaddr_in loopback(int tcp_port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(tcp_port));
    return address;
}

}  // namespace

// Not by the library's function: that one ends the process when the port is taken, and leaves the socket open
// in the children that the daemon starts.
int FcgiGate::listenOn(int tcp_port) {
    listening_.emplace(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int descriptor = listening_->get();
    const int on = 1;
    sockaddr_in address = loopback(tcp_port);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t length = sizeof address;
    // The accepted sockets take TCP_NODELAY over from this one.
    if (descriptor == -1 || setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == -1 ||
        setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == -1 ||
        bind(descriptor, generic, length) == -1 || listen(descriptor, kBacklog) == -1 ||
        getsockname(descriptor, generic, &length) == -1) {
        const int error = errno;
        listening_.reset();
        return error;
    }
    listening_port_ = ntohs(address.sin_port);
    return 0;
}

bool FcgiGate::isComplete(const Client& client) {
    return client.phase == Phase::kRequest && client.reader.state() == FcgiRequestReader::State::kComplete;
}

bool FcgiGate::isIdle(const Client& client) {
    return client.phase == Phase::kRequest && !client.reader.begun();
}

FcgiRequest FcgiGate::next() {
    for (;;) {
        const auto asking = std::find_if(clients_.begin(), clients_.end(), isComplete);
        if (asking != clients_.end()) {
            clients_.splice(clients_.begin(), clients_, asking);
            FcgiRequest request = asking->reader.next();
            asking->keep = request.keep_connection && !request.too_long;
            return request;
        }
        waitForWork();
    }
}

void FcgiGate::answer(std::string records) {
    Client& client = clients_.front();
    client.answer = std::move(records);
    client.phase = Phase::kAnswer;
    client.deadline = Clock::now() + kClientLimit;
    if (sendAnswer(client)) {
        // Behind those that wait: who keeps a connection and asks on and on does not come before them.
        clients_.splice(clients_.end(), clients_, clients_.begin());
    } else {
        clients_.pop_front();
    }
}

void FcgiGate::waitForWork() {
    const Clock::time_point before = Clock::now();
    fillPollList(before);
    // A failure, which is a signal's, leaves no events.
    poll(polled_.data(), polled_.size(), millisecondsToWait(before));
    const Clock::time_point now = Clock::now();
    size_t i = 1;
    for (auto next = clients_.begin(); next != clients_.end(); ++i) {
        const auto client = next++;
        const bool ready = polled_[i].revents != 0;
        if (client->deadline <= now || (ready && !step(*client))) clients_.erase(client);
    }
    if (polled_[0].revents != 0) acceptClients();
}

void FcgiGate::fillPollList(Clock::time_point now) {
    polled_.clear();
    polled_.push_back({accepting(now) ? listening_->get() : -1, POLLIN, 0});
    for (const Client& client : clients_) {
        const short awaited = client.phase == Phase::kAnswer ? POLLOUT : POLLIN;
        polled_.push_back({client.socket.get(), awaited, 0});
    }
}

bool FcgiGate::full() const {
    return clients_.size() >= kMostClients;
}

bool FcgiGate::accepting(Clock::time_point now) const {
    return now >= accept_from_ && (!full() || longestIdle() != clients_.end());
}

std::list<FcgiGate::Client>::const_iterator FcgiGate::longestIdle() const {
    // The limit of an idle client counts from its last answer, or from its coming.
    const auto rank = [](const Client& client) {
        return std::tuple(!isIdle(client), !client.keep, client.deadline);
    };
    const auto first = std::min_element(clients_.begin(), clients_.end(),
                                        [&](const Client& a, const Client& b) { return rank(a) < rank(b); });
    return first != clients_.end() && isIdle(*first) ? first : clients_.end();
}

int FcgiGate::millisecondsToWait(Clock::time_point now) const {
    Clock::time_point next = Clock::time_point::max();
    if (now < accept_from_) next = accept_from_;
    for (const Client& client : clients_) next = std::min(next, client.deadline);
    if (next == Clock::time_point::max()) return -1;
    const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(next - now).count();
    return static_cast<int>(std::max<decltype(milliseconds)>(milliseconds, 0));
}

void FcgiGate::acceptClients() {
    const Clock::time_point now = Clock::now();
    while (accepting(now)) {
        const int descriptor = accept4(listening_->get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (descriptor == -1) {
            if (!mayTryAgain() && errno != ECONNABORTED) accept_from_ = now + kAcceptPause;
            return;
        }
        const bool was_full = full();
        if (was_full) clients_.erase(longestIdle());
        Client& client = clients_.emplace_back(descriptor, longest_body_);
        client.deadline = now + kClientLimit;
        // The request is often there already; then it comes before those who may still be waiting to be
        // accepted.
        if (!receive(client)) {
            clients_.pop_back();
        } else if (isComplete(client)) {
            return;
        }
        // One at a time: before the next one has to go, what all of them have sent meanwhile is read.
        if (was_full) return;
    }
}

bool FcgiGate::step(Client& client) {
    switch (client.phase) {
        case Phase::kRequest:
            return receive(client);
        case Phase::kAnswer:
            return sendAnswer(client);
        case Phase::kLeaving:
            break;
    }
    char block[kBlock];
    const ssize_t count = recv(client.socket.get(), block, sizeof block, 0);
    return count > 0 || (count < 0 && mayTryAgain());
}

bool FcgiGate::receive(Client& client) {
    char block[kBlock];
    const ssize_t count = recv(client.socket.get(), block, sizeof block, 0);
    if (count < 0) return mayTryAgain();
    return count > 0 && takeBytes(client, {block, static_cast<size_t>(count)});
}

bool FcgiGate::takeBytes(Client& client, std::string_view bytes) {
    const bool had_begun = client.reader.begun();
    const size_t taken = client.reader.take(bytes);
    client.unread += bytes.substr(taken);
    if (!had_begun && client.reader.begun()) client.deadline = Clock::now() + kClientLimit;
    return client.reader.state() != FcgiRequestReader::State::kRefused;
}

bool FcgiGate::sendAnswer(Client& client) {
    while (!client.answer.empty()) {
        const ssize_t count =
            send(client.socket.get(), client.answer.data(), client.answer.size(), MSG_NOSIGNAL);
        if (count < 0) return mayTryAgain();
        client.answer.erase(0, static_cast<size_t>(count));
    }
    return endAnswer(client);
}

bool FcgiGate::endAnswer(Client& client) {
    client.phase = client.keep ? Phase::kRequest : Phase::kLeaving;
    client.deadline = Clock::now() + kClientLimit;
    if (!takeBytes(client, std::exchange(client.unread, {}))) return false;
    if (client.keep) return true;
    if (client.reader.bodyEnded()) return false;
    // A connection that is closed while its client still sends is reset, and the answer may be lost with it.
    shutdown(client.socket.get(), SHUT_WR);
    return true;
}
