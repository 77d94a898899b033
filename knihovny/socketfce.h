// Reading and writing of non-blocking descriptors (sockets, serial devices).
//
// The functions keep no state and close nothing; any thread may call them. A failure is logged in one line on
// standard output ("ERROR: SockRead EBADF , in thread 1") and leaves its errno behind. Writing to a socket
// whose peer is gone raises SIGPIPE: the process has to ignore it.
#pragma once

class ErrorRepeats;

// Results besides a byte count.
constexpr int kSockFailed = -1;
constexpr int kSockTimedOut = -2;
constexpr int kSockPeerClosed = -3;

// Makes one read of up to length bytes. Returns the number of bytes, 0 when nothing is available now or at
// the end of the file (after a sleep of 1 ms, so that a reading loop does not spin), -1 on a failure (also
// after 1 ms). With repeats, a failure is logged only when they find it due.
int SockRead2(int fd, char* buffer, unsigned long length, ErrorRepeats* repeats = nullptr);

// The same, but gives -3 at once when the peer has closed the connection.
int SockRead3(int fd, char* buffer, unsigned long length, ErrorRepeats* repeats = nullptr);

// Writes length bytes (at most INT_MAX), trying again every millisecond while the descriptor takes nothing.
// Returns length, or -2 when the time limit had passed after a write, be it the one that completed the
// transfer, or the result of the write that failed (-1, or 0 when it wrote nothing). Length 0 gives 0 without
// a write. With taken, stores there how many bytes the descriptor took, whatever the result.
int SockWriteTimeout(int fd, const char* data, unsigned long length, int seconds, int microseconds,
                     unsigned long* taken = nullptr);
