#include "alarmd/sms/sms_thread.h"

#include <cstdio>
#include <ctime>
#include <string>

#include "alarmd/alarmd.h"
#include "alarmd/base/json.h"
#include "alarmd/notify/direct_road.h"
#include "alarmd/notify/event.h"
#include "alarmd/notify/recipients.h"
#include "alarmd/notify/stale_alarm.h"
#include "alarmd/project/texts.h"
#include "alarmd/sms/compose.h"
#include "alarmd/sms/reception.h"
#include "alarmd/sms/sms_channel.h"
#include "knihovny/clock.h"
#include "knihovny/debugerror.h"
#include "knihovny/generalfce.h"

bool ret_connect = false;
int64_t time_sms_count = 0;
int sms_count = 0;
void (*modem_ready)() = nullptr;

namespace {

SmsChannel sms_channel(modemDriver());
DirectRoad direct_road(sms_channel, daemon_events);

constexpr int kOpenSeconds = 2;
constexpr int kPassSeconds = 2;
constexpr int kCountingPeriodSeconds = 60;
constexpr long kPauseBetweenNanoseconds = 5000000;
constexpr int kSendJson = 50;

int alarms_cut_off = 0;  // taken from the queue, but not told to everybody when the stop request came

std::string modemDevice() {
    MutexLock lock(settings_mutex);
    return modemPort;
}

void initialiseModem(ModemDriver& driver) {
    while (!modemInit && !konec) {
        if (driver.initialise()) {
            PrintLine(color_modem, "MODEM INITIALIZATION SUCCESSFULL", color_off);
            modemInit = true;
            if (modem_ready != nullptr) modem_ready();
        } else {
            PrintLine(color_modem, "MODEM INITIALIZATION FAILED", color_off);
        }
        MySleep(1, 0);
    }
}

void openModem(ModemDriver& driver, const std::string& device) {
    while (!driver.usable() && !konec) {
        ret_connect = driver.open(device);
        MySleep(kOpenSeconds, 0);
        if (driver.usable()) {
            PrintLine("Openning Modem port....OK");
            initialiseModem(driver);
        } else {
            PrintLine("INFO: Can't open modem port.");
        }
    }
}

void printPassHeader(const char* queue, int size) {
    char line[128];
    snprintf(line, sizeof line, "%c[%d;%d;%dm-->%s (%s:%d) %c[%d;%d;%dm\n", 27, 0, 0, 32, "Thread sms", queue,
             size, 27, 0, 0, 37);
    Print(line);
}

void pass(ModemDriver& driver) {
    printPassHeader("queue", fronta_sms.size());
    printPassHeader("queue_raw", fronta_sms_raw.size());
    zpracuj_sms();
    sms_road->pump(Now());
    if (!konec && Now() > readsmstime) readSms(driver);
}

void printRequest(const std::string& number, const std::string& text) {
    Json::Value request;
    request["t"] = kSendJson;
    request["number"] = number;
    request["text"] = text;
    PrintLine("Sendind: ", writeJson(request));
}

void notifyUser(const _alarm_tag& alarm, int group, const _user& recipient) {
    const _langs texts = getTextForLangs(alarm.id, recipient.lang);
    if (recipient.mobil.empty()) return;

    const std::string text = alarmSmsText(alarm, texts.messageLangs);
    if (dbglev > 0) printRequest(recipient.mobil, text);
    if (testing_sms == 0) {
        if (disable_notification) {
            PrintLine("Notification DISABLED !!!!");
        } else {
            sms_road->submit({ChannelKind::kSms, eventOf(alarm), group, recipient.id, recipient.mobil, text});
            PrintLine("Number: ", recipient.mobil, "; Text: ", text);
            MySleep(0, kPauseBetweenNanoseconds);
        }
    }
    ++sms_count;
}

// False when a stop request came before the last of its messages.
bool handleAlarm(const _alarm_tag& alarm) {
    PrintLine("Zpracovavam sms queue SMS");
    const int64_t event_time = eventTime(alarm)[0];
    if (isStale(event_time)) {
        printStale(event_time);
        return true;
    }
    for (const NotifiedGroup& group : recipientsOf(alarm.id)) {
        PrintLine(color_sms, "(SMS) GROUP: ", group.group, " - FOUND alarm ID: ", alarm.id, color_off);
        for (const _user& recipient : group.users) {
            if (konec && !recipient.mobil.empty()) return false;
            notifyUser(alarm, group.group, recipient);
        }
    }
    return true;
}

void handleRaw(const _sms_raw& message, int queued) {
    PrintLine("Zpracovavam sms queue SMS RAW ", queued);
    if (dbglev > 0) PrintLine("Sendind: ", message.number, " ", message.text);
    if (testing_sms == 0) {
        sms_road->submit({ChannelKind::kSms, {}, 0, 0, message.number, message.text});
        MySleep(0, kPauseBetweenNanoseconds);
    }
    ++sms_count;
}

// False when there is none.
bool sendNextAlarm() {
    _alarm_tag alarm;
    if (!fronta_sms.take(alarm)) return false;
    if (!handleAlarm(alarm)) ++alarms_cut_off;
    return true;
}

bool sendNextRaw() {
    const int queued = fronta_sms_raw.size();
    _sms_raw message;
    if (!fronta_sms_raw.take(message)) return false;
    handleRaw(message, queued);
    return true;
}

// Raw messages may be asked for as fast as they are sent: those that come during the drain wait for the next
// one, since readings and the limit come between two drains. A stopping daemon writes nothing to the modem
// any more, so going on would only wait for answers that cannot come.
void drainQueues() {
    int raw_left = fronta_sms_raw.size();
    while (!konec && (sendNextAlarm() || (raw_left-- > 0 && sendNextRaw()))) {
    }
}

}  // namespace

DeliveryRoad* sms_road = &direct_road;

void zpracuj_sms() {
    const time_t now = Now();
    if (time_sms_count == 0) {
        time_sms_count = now;
        sms_count = 0;
    }
    if (fronta_sms.empty() && fronta_sms_raw.empty()) return;
    if (now > time_sms_count + kCountingPeriodSeconds) {
        sms_count = 0;
        time_sms_count = now;
    }
    if (sms_count > smspeermin) {
        PrintLine(color_warn, "!!!! COUNT SMS PEER MIN EXCEEDED !!!", color_off);
        MySleep(1, 0);
        return;
    }
    drainQueues();
}

int unsentSms() {
    return fronta_sms.size() + fronta_sms_raw.size() + alarms_cut_off + sms_road->unsent();
}

void runSmsThread(ModemDriver& driver) {
    const std::string device = modemDevice();
    if (device.empty()) {
        PrintLine("Modem port empty.");
        vlakno_sms = 0;
        return;
    }
    openModem(driver, device);
    MySleep(kOpenSeconds, 0);
    vlakno_sms = 1;
    while (!konec && driver.usable()) {
        if (!thr_lock) pass(driver);
        MySleep(kPassSeconds, 0);
    }
    Print("Koncim Vlakno sms.........\n");
    driver.close();
    vlakno_sms = 0;
}

void vlakno_s() {
    runSmsThread(modemDriver());
}
