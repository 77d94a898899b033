#include "alarmd/requests/daemon_state.h"

#include "alarmd/alarmd.h"
#include "alarmd/sms/modem.h"
#include "alarmd/sms/sms_sending.h"
#include "knihovny/generalfce.h"

namespace {

constexpr long kPauseNanoseconds = 50000;

void queueSms(const Answer& answer, const std::string& from_ip, int from_port) {
    _sms_raw message;
    message.number = answer.number;
    message.text = answer.text;
    message.from_ip = from_ip;
    message.from_port = from_port;
    fronta_sms_raw.push(message);
}

}  // namespace

RequestState takeRequestState() {
    RequestState state;
    state.modemTyp = modemTyp;
    state.sms_counter = sms_counter;
    state.gps_enable = gps_enable;
    {
        MutexLock lock(status_mutex);
        state.status = status;
    }
    {
        MutexLock lock(gps_mutex);
        state.gps = gps_data;
    }
    MutexLock lock(last_sms_mutex);
    state.last_sms = last_sms;
    return state;
}

void carryOut(const Answer& answer, const std::string& from_ip, int from_port) {
    if (answer.gps_parsed) {
        MutexLock lock(gps_mutex);
        gps_data_parse = answer.gps_parse;
    }
    switch (answer.action) {
        case RequestAction::kNone:
            break;
        case RequestAction::kSendSms:
            queueSms(answer, from_ip, from_port);
            break;
        case RequestAction::kDisableNotification:
            disable_notification = true;
            break;
        case RequestAction::kEnableNotification:
            disable_notification = false;
            break;
    }
}

void pauseAfter(const Answer& answer) {
    if (answer.protocol_run) MySleep(0, kPauseNanoseconds);
}
