#include "alarmd/intake/server_line.h"

#include <cstdio>

#include "alarmd/alarmd.h"
#include "knihovny/debugerror.h"

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
        if (data_buf.size() < kLongestLine) data_buf += static_cast<char>(byte);
        readok = false;
    }
    fflush(stdout);
}

void MyTcpClient::OnDisconnect() {
    data_buf.clear();
    readok = true;
}
