// An HTTPS server on the loopback address with a self-signed certificate, around cpp-httplib.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

namespace httplib {
struct Request;
struct Response;
}  // namespace httplib

namespace sim {

// A key and a certificate for 127.0.0.1 and localhost, made in memory, valid from 2000 to 2049 so that a
// shifted clock does not matter. Immutable.
class Certificate {
  public:
    Certificate();
    ~Certificate();
    Certificate(const Certificate&) = delete;
    Certificate& operator=(const Certificate&) = delete;

  private:
    friend class HttpsListener;
    struct Parts;
    std::unique_ptr<Parts> parts_;
};

// Listens from construction to destruction and serves every request, whatever its method and path, with one
// handler. HTTP/1.1 connections are kept alive for 10 minutes.
class HttpsListener {
  public:
    // Called on a worker thread, of which there are 16.
    using Handler = std::function<void(const HttpsListener&, const httplib::Request&, httplib::Response&)>;

    // Throws std::runtime_error when the port cannot be listened on.
    HttpsListener(const Certificate& certificate, int port, Handler handler);

    // Ends all connections and waits for the handlers that still run: a pause() of theirs ends at once.
    ~HttpsListener();
    HttpsListener(const HttpsListener&) = delete;
    HttpsListener& operator=(const HttpsListener&) = delete;

    // How many connections began.
    uint64_t connections() const;

    // For a handler. The connection's number (counted from 1) and its socket.
    static uint64_t connectionNumber(const httplib::Request& request);
    static int socketOf(const httplib::Request& request);

    // For a handler. Waits until the time (seconds) has passed and returns true, or returns false at once
    // when the client hangs up or the listener stops.
    bool pause(const httplib::Request& request, double seconds) const;

    // For a handler. Resets the connection under the server's feet.
    static void reset(const httplib::Request& request);

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace sim
