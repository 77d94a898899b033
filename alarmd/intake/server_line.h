// The daemon's connection to the server's local TCP port: acknowledge requests go out, lines come in.
#pragma once

#include <sys/time.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "knihovny/tcpclient2.h"

// Collects the lines that the server sends. A completed line waits in data_rcv for the next poll; while a
// line is half-received (readok false) main does not poll. Its handlers run on the client's reading thread.
//
// A line that is unfinished some time after its first byte is dropped together with its connection, which is
// logged in one line on standard error: a peer that says a byte now and then would keep main from polling.
class MyTcpClient final : public TcpClient2 {
  public:
    static constexpr int kLineMilliseconds = 60000;

    explicit MyTcpClient(int line_milliseconds = kLineMilliseconds) : line_milliseconds_(line_milliseconds) {}
    ~MyTcpClient() { Disconnect(); }

    void ZpracujByte(unsigned char byte) override;
    using TcpClient2::ZpracujByte;

    // Looks at the age of the line that has begun.
    void AfterRead(int result, char* buffer) override;

    // Main's word at each of its looks: whether a half-received line keeps it from polling. Lines that do so
    // at every look for the same time are dropped with their connection, too: each may be short.
    void PollIsHeldUp(bool held_up);

    // A half-received line dies with its connection.
    void OnDisconnect() override;

    // Bytes of a line beyond this are dropped: a line that long is no answer of the history.
    static constexpr size_t kLongestLine = size_t{16} * 1024 * 1024;

  private:
    bool lineIsOverdue() const;
    bool pollsWaitTooLong() const;

    const int line_milliseconds_;
    std::string data_buf;   // the line being received; this and the next: reading thread only
    timeval line_begin_{};  // when its first byte came

    std::atomic<int64_t> held_since_{0};  // milliseconds of the monotonic clock; 0: polls are not held up
};

extern MyTcpClient tcps;  // to the server's local port
extern MyTcpClient tcpc;  // not connected by the daemon
