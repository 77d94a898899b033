#include "alarmd/intake/server_line.h"

#include <cstdio>

#include "alarmd/alarmd.h"
#include "knihovny/debugerror.h"
#include "knihovny/generalfce.h"

namespace {

int64_t monotonicMilliseconds() {
    const timeval now = MonotonicTime();
    return int64_t{now.tv_sec} * 1000 + now.tv_usec / 1000;
}

}  // namespace

MyTcpClient tcps;
MyTcpClient tcpc;

void MyTcpClient::ZpracujByte(unsigned char byte) {
    if (byte == '\n') {
        if (dbglev != 0) PrintLine(data_buf);
        {
            MutexLock lock(data_rcv_mutex);
            data_rcv = data_buf;
        }
        data_buf.clear();
        readok = true;
    } else {
        if (data_buf.empty()) line_begin_ = MonotonicTime();
        if (data_buf.size() < kLongestLine) data_buf += static_cast<char>(byte);
        readok = false;
    }
    fflush(stdout);
}

bool MyTcpClient::lineIsOverdue() const {
    if (data_buf.empty()) return false;
    timeval limit{line_milliseconds_ / 1000, suseconds_t{line_milliseconds_ % 1000} * 1000};
    timeval begin = line_begin_;
    timeval now = MonotonicTime();
    timeval age{};
    TimevalMinus(&age, &now, &begin);
    return TimevalMensi(&limit, &age);
}

void MyTcpClient::PollIsHeldUp(bool held_up) {
    if (!held_up) {
        held_since_ = 0;
    } else if (held_since_ == 0) {
        held_since_ = monotonicMilliseconds();
    }
}

bool MyTcpClient::pollsWaitTooLong() const {
    const int64_t since = held_since_;
    return since != 0 && monotonicMilliseconds() - since > line_milliseconds_;
}

void MyTcpClient::AfterRead(int result, char* /*buffer*/) {
    // A connection that has ended takes its line along.
    if (result < 0) return;
    const char* trouble = nullptr;
    if (lineIsOverdue()) {
        trouble = " is unfinished after ";
    } else if (pollsWaitTooLong()) {
        trouble = ", one behind the other, holds up the polls since ";
    }
    if (trouble == nullptr) return;
    PrintErrorLine("alarmd: a line from ", ServerName(), trouble, line_milliseconds_ / 1000.0,
                   " s: dropped with its connection");
    held_since_ = 0;
    HangUp();
}

void MyTcpClient::OnDisconnect() {
    data_buf.clear();
    readok = true;
}
