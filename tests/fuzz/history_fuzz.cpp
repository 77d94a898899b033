// Answers of the alarm history, one after the other, from libcurl's callback to the mails and SMS that come
// of them.
#include <set>

#include "alarmd/base/json.h"
#include "alarmd/intake/alarm_parser.h"
#include "alarmd/intake/history_poll.h"
#include "alarmd/intake/notification_queues.h"
#include "alarmd/mail/compose.h"
#include "alarmd/mail/mail_thread.h"
#include "alarmd/waiting/wait_list.h"
#include "tests/fuzz/world.h"

namespace {

constexpr char kBetweenAnswers = '\x1e';
constexpr char kBetweenChunks = '\x1d';  // of an answer, as they come from the network

enum AlarmIds { kAll = 1, kMail, kActivation, kDeactivation, kAcknowledge };

void definePlant() {
    for (const int id : {kAll, kMail, kActivation, kDeactivation, kAcknowledge}) {
        _alarm_def definition;
        definition.id = id;
        definition.message = "Level high";
        definition.email = id == kAll || id == kMail;
        definition.smsact = id == kAll || id == kActivation;
        definition.smsdeact = id == kAll || id == kDeactivation;
        definition.smsack = id == kAll || id == kAcknowledge;
        fuzz::defineAlarm(definition);
    }
    _user entry;
    entry.mail = "a@plant.example";
    entry.mobil = "+420601000001";
    fuzz::addUser(entry);
    resend_enable = true;
    last_timestamp = 1699990000;
}

std::string received(const std::string& answer) {
    std::string response;
    for (const std::string& chunk : fuzz::parts(answer, kBetweenChunks)) {
        std::string data = chunk;
        MUST(curl_write_to_string2(data.data(), 1, data.size(), &response) == data.size());
    }
    MUST(response.find('\0') == std::string::npos);
    return response;
}

// How many entries an answer has at most; -1 when it is no JSON.
int entriesIn(const std::string& answer) {
    Json::Value root;
    std::string errors;
    if (!parseJson(answer, root, errors)) return -1;
    return root.isObject() ? static_cast<int>(root["d"].size()) : 0;
}

double startPoint() {
    return static_cast<double>(last_timestamp) + static_cast<double>(last_timestamp_ms) / 1e6;
}

double eventTime(const _alarm_tag& alarm) {
    const TimeTriple& time = alarm.stat == kDeactivated ? alarm.dtm
                             : alarm.stat == kActivated ? alarm.atm
                                                        : alarm.acktm;
    return static_cast<double>(time[0]) + static_cast<double>(time[1]) / 1e6;
}

void checkMail(const _alarm_tag& alarm, double start) {
    MUST(alarm.id == kAll || alarm.id == kMail);
    MUST(alarm.stat == kDeactivated || alarm.stat == kActivated || alarm.stat == kAcknowledged ||
         alarm.stat == kAckTimedState);
    MUST(eventTime(alarm) > start);
    MUST(alarm.msg == "Level high");
}

void checkSms(const _alarm_tag& alarm, double start) {
    MUST(alarm.id == kAll || (alarm.id == kActivation && alarm.stat == kActivated) ||
         (alarm.id == kDeactivation && alarm.stat == kDeactivated) ||
         (alarm.id == kAcknowledge && alarm.stat == kAcknowledged));
    MUST(eventTime(alarm) > start);
}

void checkWaiting() {
    std::set<int> ids;
    for (const _alarm_tag& waiting : wait_for_ack) {
        MUST(ids.insert(waiting.id).second);
        MUST(waiting.stat == kActivated);
        MUST(waiting.id == kAll || waiting.id == kDeactivation || waiting.id == kAcknowledge);
    }
}

struct Queued {
    std::vector<_alarm_tag> mail, sms;
};

// One answer. False when it ends the process.
bool takeAnswer(const std::string& text, Queued& queued) {
    const std::string response = received(text);
    const int entries = entriesIn(response);
    const double start = startPoint();
    const bool ends = fuzz::endsProcess([&] { json_parse(response.c_str()); });
    const std::vector<_alarm_tag> mails = fuzz::takeAll(fronta_mail);
    const std::vector<_alarm_tag> messages = fuzz::takeAll(fronta_sms);
    MUST(!ends || entries >= 0);
    if (!ends) MUST(static_cast<int>(mails.size()) <= std::max(entries, 0));
    for (const _alarm_tag& alarm : mails) checkMail(alarm, start);
    for (const _alarm_tag& alarm : messages) checkSms(alarm, start);
    checkWaiting();
    if (entries <= 0 && !ends) MUST(startPoint() == start);
    queued.mail.insert(queued.mail.end(), mails.begin(), mails.end());
    queued.sms.insert(queued.sms.end(), messages.begin(), messages.end());
    return !ends;
}

void checkPoll() {
    const std::string request = historyRequest();
    MUST(request.starts_with("t=30&prj=&start=") && request.ends_with("&limit=10000"));
    MUST(fuzz::count(startPointText(), "\n") == 1);
}

}  // namespace

FUZZ_TARGET(history) {
    definePlant();
    Queued queued;
    for (const std::string& answer : fuzz::parts(input, kBetweenAnswers)) {
        if (!takeAnswer(answer, queued)) break;
        checkPoll();
        fuzz::world.nanoseconds += int64_t{100} * 1000000000;  // three walks until an entry's time is up
        checkResend(fuzz::world.nanoseconds / 1000000000);
        checkWaiting();
    }
    fuzz::takeAll(fronta_sms);
    for (const _alarm_tag& alarm : queued.mail) fronta_mail.push(alarm);
    for (const _alarm_tag& alarm : queued.sms) fronta_sms.push(alarm);
    zpracuj_maily_by_users();
    MUST(fuzz::world.mails.size() <= queued.mail.size());
    fuzz::sendWaitingSms();
    MUST(fuzz::world.to_modem.size() <= 2 * queued.sms.size());
}
