// A TCP port of this machine's loopback address that stays ours while nothing listens on it.
#pragma once

#include "knihovny/descriptor.h"

namespace sim {

// A stream socket on 127.0.0.1:port (0: any free port), close-on-exec, with SO_REUSEADDR, so that a second
// one may be bound to the port while neither of them listens. Throws std::runtime_error that tells port and
// reason.
Descriptor boundSocket(int port);

// The port a bound socket has.
int portOf(int fd);

// Makes the next close of a socket a reset instead of an orderly end.
void resetOnClose(int fd);

// Holds a port: bound and not listening, so that connections are refused and nobody else is given the port.
class PortKeeper {
  public:
    explicit PortKeeper(int port) : socket_(boundSocket(port)), port_(portOf(socket_.get())) {}

    int port() const { return port_; }

    // From now on the kernel accepts connections for a queue that nobody serves, or refuses them again.
    // REQUIRES: nobody else listens on the port.
    void acceptIntoTheVoid(bool accept);

  private:
    Descriptor socket_;
    const int port_;
};

}  // namespace sim
