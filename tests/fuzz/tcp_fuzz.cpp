// Packets of clients of the TCP request server, one after the other, and the SMS that come of them.
#include "alarmd/base/json.h"
#include "alarmd/requests/answers.h"
#include "alarmd/requests/daemon_state.h"
#include "tests/fuzz/world.h"

namespace {

constexpr char kBetweenPackets = '\x1e';
constexpr size_t kLongestPacket = 2048;
constexpr char kClient[] = "127.0.0.1";
constexpr int kPort = 40000;

constexpr char kNotReady[] = "{\"r\":50,\"s\":0,\"err\":\"Modem activation failed\"}\n";
constexpr char kParseFailure[] = "{\"s\":0, \"err\":\"Failed to parse JSON\"}";
constexpr char kLastSms[] =
    "{\"r\":54,\"s\":1,\"d\":{\"Timestamp\":5,\"From\":\"+1\",\"Text\":\"%s %% %n\"}}\n";

// What a packet means, read without the daemon's own checks of types.
struct Meaning {
    bool json = false;
    bool object = false;
    int protocol = 0;
    std::string number, text;
};

Meaning meaningOf(const std::string& packet) {
    Meaning meaning;
    Json::Value root;
    std::string errors;
    meaning.json = parseJson(packet, root, errors);
    meaning.object = meaning.json && root.isObject();
    if (!meaning.object) return meaning;
    if (root["t"].isInt()) meaning.protocol = root["t"].asInt();
    if (root["number"].isString()) meaning.number = root["number"].asString();
    if (root["text"].isString()) meaning.text = root["text"].asString();
    return meaning;
}

void checkQueued(const Meaning& meaning) {
    const std::vector<_sms_raw> queued = fuzz::takeAll(fronta_sms_raw);
    MUST(queued.size() == 1);
    MUST(queued[0].number == meaning.number && queued[0].text == meaning.text);
    MUST(queued[0].from_ip == kClient && queued[0].from_port == kPort);
    fronta_sms_raw.push(queued[0]);
    fuzz::sendWaitingSms();
    MUST(fronta_sms_raw.empty());
}

void packet(const std::string& bytes, bool modem_ready) {
    const Meaning meaning = meaningOf(bytes);
    Answer answer = answerTcpRequest(bytes, takeRequestState(), modem_ready);
    SmsPlace place = takePlace(answer, kClient, kPort);
    MUST(place.has_value() == (answer.action == RequestAction::kSendSms));
    carryOut(answer, std::move(place));
    MUST(!disable_notification);  // that is for FastCGI alone
    if (answer.action == RequestAction::kSendSms) {
        MUST(modem_ready && meaning.protocol == 50 && answer.body == "{\"s\":1,\"r\":50}\n");
        checkQueued(meaning);
        return;
    }
    MUST(fronta_sms_raw.empty());
    if (!meaning.json) {
        MUST(answer.body == kParseFailure);
    } else if (!modem_ready) {
        MUST(answer.body == kNotReady);
    } else if (meaning.protocol == 54) {
        MUST(answer.body == kLastSms);
    } else {
        MUST(answer.body.empty() || answer.body == kParseFailure);
    }
}

}  // namespace

FUZZ_TARGET(tcp) {
    {
        MutexLock lock(last_sms_mutex);
        last_sms = {5, "+1", "%s %% %n"};
    }
    for (const std::string& bytes : fuzz::parts(input, kBetweenPackets)) {
        packet(bytes.substr(0, kLongestPacket), false);
        packet(bytes.substr(0, kLongestPacket), true);
    }
}
