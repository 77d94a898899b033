#include "alarmd/sms/timed_text/exchange.h"

#include "alarmd/sms/timed_text/modem_port.h"
#include "knihovny/clock.h"
#include "knihovny/generalfce.h"

int cekam = 0;
time_t timeout = 0;
int linitstr = 0;

namespace {

constexpr long kLookNanoseconds = 5000000;

size_t send(const std::string& order, size_t length) {
    awaitReply();
    return static_cast<size_t>(write_to_modem(order.c_str(), static_cast<int>(length)));
}

}  // namespace

void awaitReply() {
    timeout = Now();
    receive = 0;
    rec_status = 0;
}

size_t sendOrder(const std::string& order) {
    return send(order, order.size());
}

void sendOrderAndZero(const std::string& order) {
    linitstr = static_cast<int>(order.size()) + 1;
    send(order, order.size() + 1);
}

bool okHasCome() {
    return rec_status == 1;
}

bool waitForOk(int looks) {
    for (int look = 0; look < looks; ++look) {
        if (okHasCome()) return true;
        MySleep(1, 0);
    }
    return false;
}

bool waitForReply(int seconds) {
    // The time of day may be set back in between; the second limit keeps the wait from lasting until then.
    const time_t latest = MonotonicTime().tv_sec + seconds + 1;
    cekam = 1;
    while (receive == 0 && Now() <= timeout + seconds && MonotonicTime().tv_sec <= latest) {
        MySleep(0, kLookNanoseconds);
    }
    rewindReply();
    const bool ended_in_ok = receive == 1;
    cekam = 0;
    receive = 0;
    return ended_in_ok;
}
