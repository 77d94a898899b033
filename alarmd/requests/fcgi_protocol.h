// FastCGI 1.0 as far as both of its sides here, the daemon's reader and the companion program's client, use
// it.
//
// A record is a header of 8 bytes, the content and the padding. The header: version, type, request id (two
// bytes, the high one first), length of the content (two bytes), length of the padding, a reserved byte.
#pragma once

#include <cstddef>

namespace fastcgi {

constexpr unsigned char kVersion = 1;
constexpr size_t kHeaderLength = 8;
constexpr size_t kLongestContent = 65528;  // of a record; a multiple of 8, so that nothing is padded

enum RecordType {
    kBeginRequest = 1,
    kAbortRequest = 2,
    kEndRequest = 3,
    kParams = 4,
    kStdin = 5,
    kStdout = 6,
    kStderr = 7,
};

// Content of a begin: role (two bytes), flags, five reserved bytes.
constexpr size_t kBeginBodyLength = 8;
constexpr int kResponder = 1;
constexpr int kLastRole = 3;
constexpr unsigned char kKeepConnection = 1;

// Content of an end: the program's status (four bytes), the protocol's, three reserved bytes.
constexpr size_t kEndBodyLength = 8;
constexpr size_t kEndProtocolStatus = 4;  // where it stands
constexpr unsigned char kRequestComplete = 0;

}  // namespace fastcgi
