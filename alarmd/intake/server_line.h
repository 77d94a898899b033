// The daemon's connection to the server's local TCP port: acknowledge requests go out, lines come in.
#pragma once

#include <cstddef>
#include <string>

#include "knihovny/tcpclient2.h"

// Collects the lines that the server sends. A completed line waits in data_rcv for the next poll; while a
// line is half-received (readok false) main does not poll. Its handlers run on the client's reading thread.
class MyTcpClient final : public TcpClient2 {
  public:
    ~MyTcpClient() { Disconnect(); }

    void ZpracujByte(unsigned char byte) override;
    using TcpClient2::ZpracujByte;

    // A half-received line dies with its connection.
    void OnDisconnect() override;

    // Bytes of a line beyond this are dropped: a line that long is no answer of the history.
    static constexpr size_t kLongestLine = size_t{16} * 1024 * 1024;

  private:
    std::string data_buf;  // the line being received; reading thread only
};

extern MyTcpClient tcps;  // to the server's local port
extern MyTcpClient tcpc;  // not connected by the daemon
