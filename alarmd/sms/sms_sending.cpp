#include "alarmd/sms/sms_sending.h"

#include <ctime>

#include "alarmd/alarmd.h"
#include "alarmd/base/json.h"
#include "alarmd/notify/event.h"
#include "alarmd/notify/recipients.h"
#include "alarmd/notify/stale_alarm.h"
#include "alarmd/project/texts.h"
#include "alarmd/sms/modem.h"
#include "knihovny/debugerror.h"
#include "knihovny/generalfce.h"

int64_t time_sms_count = 0;
int sms_count = 0;
std::atomic<int> sms_counter{0};

namespace {

constexpr int kCountingPeriodSeconds = 60;
constexpr long kPauseBetweenNanoseconds = 5000000;
constexpr int kOutcomeLooks = 5;
constexpr size_t kTextLimit = 999;
constexpr char kCtrlZ = '\x1a';
constexpr char kEscape = '\x1b';

// The modems of this system were always sent ten more bytes behind Ctrl-Z, a zero first; they ignore them.
constexpr size_t kBytesBehindCtrlZ = 10;

constexpr int kSendJson = 50;

int alarms_cut_off = 0;  // taken from the queue, but not told to everybody when the stop request came

// What an alarm's SMS is made of, by its state.
struct SmsForm {
    const char* tag;
    std::string suffix;
};

SmsForm smsForm(const _alarm_tag& alarm) {
    switch (alarm.stat) {
        case kDeactivated:
            return {"(DEA)", ""};
        case kActivated:
            return {"(ACT)", " /ack:" + std::to_string(alarm.id)};
        case kAcknowledged:
            return {"(ACK)", ""};
        default:
            return {"", ""};
    }
}

void printRequest(const std::string& number, const std::string& text) {
    Json::Value request;
    request["t"] = kSendJson;
    request["number"] = number;
    request["text"] = text;
    PrintLine("Sendind: ", writeJson(request));
}

void notifyUser(_alarm_tag& alarm, const _user& recipient) {
    const _langs texts = getTextForLangs(alarm.id, recipient.lang);
    alarm.dev = texts.deviceLangs;
    alarm.msg = texts.messageLangs;
    alarm.area = texts.areaLangs;
    if (recipient.mobil.empty()) return;

    const std::string text = alarmSmsText(alarm, alarm.msg);
    if (dbglev > 0) printRequest(recipient.mobil, text);
    if (testing_sms == 0) {
        if (disable_notification) {
            PrintLine("Notification DISABLED !!!!");
        } else {
            sendSMS(recipient.mobil, text);
            PrintLine("Number: ", recipient.mobil, "; Text: ", text);
            MySleep(0, kPauseBetweenNanoseconds);
        }
    }
    ++sms_count;
}

// False when a stop request came before the last of its messages.
bool handleAlarm(_alarm_tag alarm) {
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
            notifyUser(alarm, recipient);
        }
    }
    return true;
}

void handleRaw(const _sms_raw& message, int queued) {
    PrintLine("Zpracovavam sms queue SMS RAW ", queued);
    if (dbglev > 0) PrintLine("Sendind: ", message.number, " ", message.text);
    if (testing_sms == 0) {
        sendSMS(message.number, message.text);
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

// The command line that asks for the prompt. False when it did not go out to its end: a text would become a
// part of it, or a command. ESC spoils what the modem has of it, so that the number is not used cut short.
bool orderMessage(const std::string& number) {
    if (!freeLine()) return false;
    const std::string command = "at+CMGS=\"" + number + "\"\r";
    const int size = static_cast<int>(command.size());
    awaitPrompt();
    if (MyModem.SendBinary(command.data(), size) == size) return true;
    owed_bytes = {kEscape, '\r'};
    keepTextBack();
    return false;
}

// Returns whether the modem has the text to its end.
bool handOver(const std::string& text) {
    const std::string body = text + '\r' + kCtrlZ;
    const std::string bytes = body + std::string(kBytesBehindCtrlZ, '\0');
    const int taken = MyModem.SendBinary(bytes.data(), static_cast<int>(bytes.size()));
    if (taken < static_cast<int>(body.size())) {
        owed_bytes = kEscape;
        return false;
    }
    ++sms_counter;
    return true;
}

void printFailed() {
    PrintLine(color_modem, "--------------:::::::: SMS SEND FAIL !!!! ::::::::------------", color_off);
}

// The modem may say OK to the ESC behind a text that was not handed over.
void waitForOutcome(bool handed_over) {
    bool acknowledged = false;
    for (int look = 0; look < kOutcomeLooks && !acknowledged; ++look) {
        offerOwedBytes();
        acknowledged = handed_over && rec_status == 1;
        if (!acknowledged) MySleep(1, 0);
    }
    if (acknowledged) {
        PrintLine(color_modem, "--------------:::::::: SMS SEND OK !!!! ::::::::------------", color_off);
    }
    if (!handed_over || rec_status == 0) printFailed();
}

bool endsNumber(char c) {
    return c == '"' || static_cast<unsigned char>(c) < ' ' || c == '\x7f';
}
bool endsText(char c) {
    return c == kCtrlZ || c == kEscape;
}

}  // namespace

std::string alarmSmsText(const _alarm_tag& alarm, const std::string& message) {
    const SmsForm form = smsForm(alarm);
    std::string text = std::string(form.tag) + " " + message.substr(0, message.find('\0')) + form.suffix;
    if (text.size() > kTextLimit) text.resize(kTextLimit);
    return text;
}

void zpracuj_sms() {
    const time_t now = time(nullptr);
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
    return fronta_sms.size() + fronta_sms_raw.size() + alarms_cut_off;
}

void sendSMS(std::string number, std::string text) {
    PrintLine("Sending ....", "Number: ", number, "; Text: ", text);
    std::erase_if(number, endsNumber);
    std::erase_if(text, endsText);

    const bool ordered = orderMessage(number);
    MySleep(1, kPauseBetweenNanoseconds);
    MySleep(1, kPauseBetweenNanoseconds);
    // A modem that waits for a command would execute the text.
    if (ordered && promptAnswer() == PromptAnswer::kError) {
        keepTextBack();
        printFailed();
        return;
    }
    rec_status = 0;
    bool handed_over = false;
    if (ordered) {
        handed_over = handOver(text);
    } else {
        payOwedBytes();
    }
    waitForOutcome(handed_over);
}
