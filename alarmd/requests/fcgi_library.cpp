#include "alarmd/requests/fcgi_library.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>

namespace {

constexpr int kNoListeningSocket = -1;
constexpr int kPieceLength = 512;
constexpr size_t kBlockLength = 16384;
constexpr int kBufferLength = 256 * 1024;
constexpr timeval kLimit{1, 0};

}  // namespace

FcgiLibrary::FcgiLibrary() {
    // Without a listening socket: the library takes no clients of its own.
    FCGX_InitRequest(&request_, kNoListeningSocket, 0);
}

FcgiLibrary::~FcgiLibrary() {
    FCGX_Finish_r(&request_);
    FCGX_Free(&request_, 1);
}

void FcgiLibrary::connect() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == -1) return;
    // Both ends are served by one thread, so neither may have to wait. Should it come to that, the library
    // gives up.
    for (const int end : ends) {
        setsockopt(end, SOL_SOCKET, SO_SNDBUF, &kBufferLength, sizeof kBufferLength);
        setsockopt(end, SOL_SOCKET, SO_SNDTIMEO, &kLimit, sizeof kLimit);
        setsockopt(end, SOL_SOCKET, SO_RCVTIMEO, &kLimit, sizeof kLimit);
    }
    own_end_.emplace(ends[0]);
    // For the library this is a connection that an earlier request left open, and one to be closed without
    // ado.
    request_.ipcFd = ends[1];
    request_.keepConnection = 1;
    FCGX_Detach(&request_);
}

bool FcgiLibrary::accept(const FcgiRequest& request) {
    if (request_.ipcFd < 0) connect();
    if (request_.ipcFd < 0) return false;
    records_ = fcgiRecords(request);
    fed_ = 0;
    feed();
    return FCGX_Accept_r(&request_) == 0;
}

// Sends as much as the pair takes: more than the library needs for the next piece of the body.
void FcgiLibrary::feed() {
    while (fed_ < records_.size()) {
        const ssize_t count = send(own_end_->get(), records_.data() + fed_, records_.size() - fed_,
                                   MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count <= 0) return;
        fed_ += static_cast<size_t>(count);
    }
}

std::string FcgiLibrary::param(const char* name) const {
    const char* const value = FCGX_GetParam(name, request_.envp);
    return value == nullptr ? "" : value;
}

std::string FcgiLibrary::body() {
    std::string text;
    char piece[kPieceLength];
    int count;
    do {
        feed();
        count = FCGX_GetStr(piece, kPieceLength, request_.in);
        text.append(piece, static_cast<size_t>(std::max(count, 0)));
    } while (count >= 1);
    return text;
}

void FcgiLibrary::write(std::string_view text) {
    FCGX_PutStr(text.data(), static_cast<int>(text.size()), request_.out);
}

std::string FcgiLibrary::finish() {
    // To the end of its records: the next request follows behind them.
    if (request_.in == nullptr) return "";
    body();
    FCGX_Finish_r(&request_);
    std::string answer;
    char block[kBlockLength];
    ssize_t count;
    do {
        count = recv(own_end_->get(), block, sizeof block, MSG_DONTWAIT);
        answer.append(block, static_cast<size_t>(std::max<ssize_t>(count, 0)));
    } while (count == sizeof block);
    return answer;
}
