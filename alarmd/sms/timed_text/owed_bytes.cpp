#include "alarmd/sms/timed_text/owed_bytes.h"

#include "alarmd/sms/timed_text/modem_port.h"
#include "alarmd/sms/timed_text/prompt.h"
#include "knihovny/generalfce.h"

std::string owed_bytes;

namespace {

constexpr long kSettleNanoseconds = 5000000;
constexpr char kEscape = '\x1b';

void notePrompt() {
    if (takeUnansweredPrompt()) owed_bytes += kEscape;
}

}  // namespace

void payOwedBytes() {
    const int taken = write_to_modem(owed_bytes.data(), static_cast<int>(owed_bytes.size()));
    owed_bytes.erase(0, static_cast<size_t>(taken));
}

void offerOwedBytes() {
    notePrompt();
    while (!owed_bytes.empty() && MyModem.TrySendByte(owed_bytes.front())) owed_bytes.erase(0, 1);
}

bool freeLine() {
    notePrompt();
    if (owed_bytes.empty()) return true;
    payOwedBytes();
    if (!owed_bytes.empty()) return false;
    MySleep(1, kSettleNanoseconds);
    return true;
}
