// FastCGI clients for the tests and the benchmark of the responder.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "knihovny/descriptor.h"

namespace fcgi {

enum Type {
    kBegin = 1,
    kAbort = 2,
    kEnd = 3,
    kParams = 4,
    kStdin = 5,
    kStdout = 6,
    kStderr = 7,
    kGetValues = 9
};

inline std::string record(int type, std::string_view content, int id = 1, size_t padding = 0) {
    std::string bytes{1,
                      static_cast<char>(type),
                      static_cast<char>(id >> 8),
                      static_cast<char>(id),
                      static_cast<char>(content.size() >> 8),
                      static_cast<char>(content.size()),
                      static_cast<char>(padding),
                      0};
    return bytes.append(content).append(padding, '\xee');
}

inline std::string begin(bool keep = false, int role = 1, int id = 1) {
    return record(
        kBegin, std::string{0, static_cast<char>(role), static_cast<char>(keep ? 1 : 0), 0, 0, 0, 0, 0}, id);
}

inline std::string length(size_t value) {
    if (value < 128) return {static_cast<char>(value)};
    return {static_cast<char>(0x80 | value >> 24), static_cast<char>(value >> 16),
            static_cast<char>(value >> 8), static_cast<char>(value)};
}

inline std::string pair(std::string_view name, std::string_view value) {
    return length(name.size()) + length(value.size()) + std::string(name) + std::string(value);
}

// A stream in records of at most piece bytes, with its end.
inline std::string stream(int type, std::string_view bytes, size_t piece = 65535, size_t padding = 0) {
    std::string records;
    for (; !bytes.empty(); bytes.remove_prefix(std::min(piece, bytes.size()))) {
        records += record(type, bytes.substr(0, piece), 1, padding);
    }
    return records + record(type, {});
}

inline std::string params(size_t body_length, std::string_view query = "", std::string_view uri = "/alarmd") {
    return pair("CONTENT_LENGTH", std::to_string(body_length)) + pair("QUERY_STRING", query) +
           pair("REQUEST_URI", uri) + pair("REQUEST_METHOD", "POST") + pair("REMOTE_USER", "operator");
}

inline std::string request(std::string_view body, bool keep = false) {
    return begin(keep) + stream(kParams, params(body.size())) + stream(kStdin, body);
}

struct Response {
    std::string out;       // of the stdout stream
    std::string err;       // of the stderr stream
    bool ended = false;    // by its END_REQUEST record
    bool complete = true;  // nothing but whole records
};

inline Response parse(std::string_view bytes) {
    Response response;
    while (!bytes.empty()) {
        const auto at = [&](size_t i) { return static_cast<size_t>(static_cast<unsigned char>(bytes[i])); };
        const size_t content = bytes.size() < 8 ? 0 : at(4) << 8 | at(5);
        if (bytes.size() < 8 || bytes.size() < 8 + content + at(6)) {
            response.complete = false;
            break;
        }
        if (at(1) == kStdout) response.out += bytes.substr(8, content);
        if (at(1) == kStderr) response.err += bytes.substr(8, content);
        if (at(1) == kEnd) response.ended = true;
        bytes.remove_prefix(8 + content + at(6));
    }
    return response;
}

// A connection to 127.0.0.1.
class Client {
  public:
    explicit Client(int to_port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(to_port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            throw std::runtime_error("connect");
        const int on = 1;
        setsockopt(fd_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }

    int descriptor() const { return fd_.get(); }

    // False when the other side is gone.
    bool say(std::string_view bytes) const {
        while (!bytes.empty()) {
            const ssize_t sent = send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent <= 0) return false;
            bytes.remove_prefix(static_cast<size_t>(sent));
        }
        return true;
    }

    // What comes until the other side closes, or the time (milliseconds) without anything is over.
    std::string hearAll(int milliseconds = 20000) const {
        std::string bytes;
        while (hearSome(bytes, milliseconds)) {
        }
        return bytes;
    }

    // The records of one response; the connection may stay open.
    Response hear(int milliseconds = 20000) const {
        std::string bytes;
        while (!parse(bytes).ended && hearSome(bytes, milliseconds)) {
        }
        return parse(bytes);
    }

    // True when the other side has closed within the time.
    bool closedWithin(int milliseconds) const {
        std::string bytes;
        pollfd event{fd_.get(), POLLIN, 0};
        while (poll(&event, 1, milliseconds) == 1) {
            if (!hearSome(bytes, 0)) return true;
        }
        return false;
    }

  private:
    bool hearSome(std::string& bytes, int milliseconds) const {
        pollfd event{fd_.get(), POLLIN, 0};
        if (poll(&event, 1, milliseconds) != 1) return false;
        char block[65536];
        const ssize_t count = recv(fd_.get(), block, sizeof block, 0);
        if (count <= 0) return false;
        bytes.append(block, static_cast<size_t>(count));
        return true;
    }

    Descriptor fd_;
};

inline Response ask(int to_port, std::string_view body) {
    const Client client(to_port);
    client.say(request(body));
    return parse(client.hearAll());
}

}  // namespace fcgi
