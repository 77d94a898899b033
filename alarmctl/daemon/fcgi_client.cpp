#include "alarmctl/daemon/fcgi_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "alarmd/requests/fcgi_request_reader.h"
#include "knihovny/descriptor.h"

void FcgiAnswerReader::take(std::string_view bytes) {
    while (state_ == State::kReading && !bytes.empty()) {
        size_t taken = 0;
        if (!in_record_) {
            taken = takeHeader(bytes);
        } else if (content_left_ > 0) {
            taken = std::min(content_left_, bytes.size());
            takeContent(bytes.substr(0, taken));
            content_left_ -= taken;
        } else {
            taken = std::min(padding_left_, bytes.size());
            padding_left_ -= taken;
        }
        if (in_record_ && content_left_ == 0 && padding_left_ == 0) endRecord();
        bytes.remove_prefix(taken);
    }
}

size_t FcgiAnswerReader::takeHeader(std::string_view bytes) {
    const size_t count = std::min(header_.size() - header_length_, bytes.size());
    std::copy_n(bytes.begin(), count, header_.begin() + header_length_);
    header_length_ += count;
    if (header_length_ == header_.size()) beginRecord();
    return count;
}

void FcgiAnswerReader::beginRecord() {
    header_length_ = 0;
    in_record_ = true;
    type_ = header_[1];
    const int id = header_[2] << 8 | header_[3];
    content_left_ = static_cast<size_t>(header_[4] << 8 | header_[5]);
    padding_left_ = header_[6];
    const bool known =
        type_ == fastcgi::kStdout || type_ == fastcgi::kStderr || type_ == fastcgi::kEndRequest;
    if (header_[0] != fastcgi::kVersion || id != 1 || !known) refuse();
}

void FcgiAnswerReader::takeContent(std::string_view content) {
    if (type_ == fastcgi::kStdout) output_ += content;
    if (type_ == fastcgi::kEndRequest) end_body_ += content;
    if (output_.size() > kLongestOutput) refuse();
}

void FcgiAnswerReader::endRecord() {
    in_record_ = false;
    if (state_ != State::kReading || type_ != fastcgi::kEndRequest) return;
    const bool whole = end_body_.size() == fastcgi::kEndBodyLength;
    const bool done = whole && static_cast<unsigned char>(end_body_[fastcgi::kEndProtocolStatus]) ==
                                   fastcgi::kRequestComplete;
    state_ = done ? State::kComplete : State::kRefused;
}

std::string fcgiPost(const std::string& body) {
    FcgiRequest request;
    request.id = 1;
    request.role = fastcgi::kResponder;
    request.params = fcgiPair("REQUEST_METHOD", "POST") + fcgiPair("REQUEST_URI", "/alarmd") +
                     fcgiPair("QUERY_STRING", "") + fcgiPair("CONTENT_TYPE", "application/json") +
                     fcgiPair("CONTENT_LENGTH", std::to_string(body.size()));
    request.body = body;
    return fcgiRecords(request);
}

std::string withoutHeaders(const std::string& output) {
    size_t line = 0;
    while (line < output.size()) {
        const size_t end = std::min(output.find('\n', line), output.size() - 1);
        const bool empty = output[line] == '\n' || output.compare(line, 2, "\r\n") == 0;
        line = end + 1;
        if (empty) return output.substr(line);
    }
    return "";
}

namespace {

using Clock = std::chrono::steady_clock;
using State = FcgiAnswerReader::State;

constexpr size_t kBlock = 16384;

// One exchange with a responder. Each step returns false when it failed, and leaves the reason in error.
class Exchange {
  public:
    Exchange(int port, std::chrono::milliseconds limit)
        : limit_(limit),
          deadline_(Clock::now() + limit),
          place_("127.0.0.1:" + std::to_string(port)),
          socket_(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        address_.sin_family = AF_INET;
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address_.sin_port = htons(static_cast<uint16_t>(port));
    }

    bool connect() {
        if (::connect(socket_.get(), reinterpret_cast<sockaddr*>(&address_), sizeof address_) == 0)
            return true;
        if (errno != EINPROGRESS) return noConnection(errno);
        if (!wait(POLLOUT)) return false;
        int reason = 0;
        socklen_t length = sizeof reason;
        if (getsockopt(socket_.get(), SOL_SOCKET, SO_ERROR, &reason, &length) == -1) reason = errno;
        return reason == 0 || noConnection(reason);
    }

    bool send(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent >= 0) {
                bytes.remove_prefix(static_cast<size_t>(sent));
            } else if (errno == EAGAIN) {
                if (!wait(POLLOUT)) return false;
            } else if (errno != EINTR) {
                return closed();
            }
        }
        return true;
    }

    bool receive(FcgiAnswerReader& reader) {
        char block[kBlock];
        while (reader.state() == State::kReading) {
            if (!wait(POLLIN)) return false;
            const ssize_t count = recv(socket_.get(), block, sizeof block, 0);
            if (count > 0) {
                reader.take({block, static_cast<size_t>(count)});
            } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
                return closed();
            }
        }
        if (reader.state() == State::kComplete) return true;
        error = "what answers on " + place_ + " is no FastCGI responder";
        return false;
    }

    std::string error;

  private:
    bool noConnection(int reason) {
        error = "no daemon answers on " + place_ + ": " + strerror(reason);
        return false;
    }

    bool closed() {
        error = "the connection to " + place_ + " was closed before the answer was complete";
        return false;
    }

    bool wait(short event) {
        for (;;) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline_ - Clock::now()).count();
            pollfd polled{socket_.get(), event, 0};
            const int count = left > 0 ? poll(&polled, 1, static_cast<int>(left)) : 0;
            if (count > 0) return true;
            if (count == 0) break;
            if (errno != EINTR) return noConnection(errno);
        }
        char seconds[32];
        snprintf(seconds, sizeof seconds, "%g s", static_cast<double>(limit_.count()) / 1000);
        error = "no answer from " + place_ + " within " + seconds;
        return false;
    }

    const std::chrono::milliseconds limit_;
    const Clock::time_point deadline_;
    const std::string place_;
    const Descriptor socket_;
    sockaddr_in address_ = {};
};

}  // namespace

FcgiReply askResponder(int port, const std::string& body, std::chrono::milliseconds limit) {
    Exchange exchange(port, limit);
    FcgiAnswerReader reader;
    if (!exchange.connect() || !exchange.send(fcgiPost(body)) || !exchange.receive(reader)) {
        return {exchange.error, ""};
    }
    return {"", withoutHeaders(reader.output())};
}
