#include "alarmd/notify/event.h"

const TimeTriple& eventTime(const _alarm_tag& alarm) {
    switch (alarm.stat) {
        case kDeactivated:
            return alarm.dtm;
        case kActivated:
            return alarm.atm;
        default:
            return alarm.acktm;
    }
}
