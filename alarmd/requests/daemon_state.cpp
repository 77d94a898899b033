#include "alarmd/requests/daemon_state.h"

#include "alarmd/alarmd.h"
#include "alarmd/sms/driver.h"
#include "knihovny/generalfce.h"

namespace {

constexpr long kPauseNanoseconds = 50000;

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

SmsPlace takePlace(Answer& answer, const std::string& from_ip, int from_port) {
    if (answer.action != RequestAction::kSendSms) return std::nullopt;
    SmsPlace place = fronta_sms_raw.place({answer.number, answer.text, from_ip, from_port});
    if (!place) refuseSms(answer);
    return place;
}

void carryOut(const Answer& answer, SmsPlace place) {
    if (answer.gps_parsed) {
        MutexLock lock(gps_mutex);
        gps_data_parse = answer.gps_parse;
    }
    switch (answer.action) {
        case RequestAction::kNone:
            break;
        case RequestAction::kSendSms:
            if (place) place->push();
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
