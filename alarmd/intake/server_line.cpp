#include "alarmd/intake/server_line.h"

#include <cstdio>

#include "alarmd/alarmd.h"
#include "knihovny/debugerror.h"
#include "knihovny/generalfce.h"

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

void MyTcpClient::AfterRead(int result, char* /*buffer*/) {
    // A connection that has ended takes its line along.
    if (result < 0 || !lineIsOverdue()) return;
    PrintErrorLine("alarmd: a line from ", ServerName(), " is unfinished after ", line_milliseconds_ / 1000.0,
                   " s: dropped with its connection");
    HangUp();
}

void MyTcpClient::OnDisconnect() {
    data_buf.clear();
    readok = true;
}
