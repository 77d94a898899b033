// The modem's bytes, and what the SMS thread makes of them. Each field is one step, a letter and its bytes:
//   I  initialisation        bytes: what the modem says to each command
//   M  query of the model    the same
//   R  reading of an SMS     the same
//   T  reading of an SMS     bytes: the text of a stranger's message
//   U  the modem speaks unasked
//   X  execution of a command text
//   S  sending of an SMS with these bytes as number and text
//   E  sending of an SMS whose number is answered by these bytes
#include <algorithm>
#include <string>
#include <vector>

#include "alarmd/sms/commands.h"
#include "alarmd/sms/reception.h"
#include "alarmd/sms/timed_text/initialisation.h"
#include "alarmd/sms/timed_text/modem_port.h"
#include "tests/fuzz/world.h"

namespace {

constexpr char kAuthorised[] = "+420601000001";
constexpr int kUserId = 7;
constexpr size_t kLongestSms = 160;

void definePlant() {
    _user entry;
    entry.id = kUserId;
    entry.mobil = kAuthorised;
    entry.sms_control = true;
    fuzz::addUser(entry);
    MutexLock lock(settings_mutex);
    projectID = "4";
}

_last_sms lastSms() {
    MutexLock lock(last_sms_mutex);
    return last_sms;
}

void checkServerRequest(const std::string& request) {
    MUST(request.starts_with("t=11&prj=4&id="));
    MUST(request.size() <= 999);
    MUST(request.size() == 999 || request.ends_with("&userID=7&ackText=ACK_SMS"));
    MUST(request.find_first_of("\r\n") == std::string::npos);
}

void readMessage() {
    const size_t requests = fuzz::world.to_server.size();
    read_sms();
    const _last_sms message = lastSms();
    MUST(message.text.find_first_of("\r\n") == std::string::npos);
    MUST(message.from.find('"') == std::string::npos);
    for (const std::string& command : fuzz::world.to_modem) {
        MUST(command == "\x1b" || command == "AT+CMGD=0,4\r" || command == "\tAT+CMGR=0\r" ||
             command == "\tAT+CMGR=1\r");
    }
    if (fuzz::world.to_server.size() == requests) return;
    MUST(fuzz::world.to_server.size() == requests + 1);
    MUST(message.from == kAuthorised);
    MUST(fuzz::count(fuzz::world.modem_answer, std::string(",\"") + kAuthorised + "\"") > 0);
}

// Whatever the text says, it is not another sender's.
void readStrangersMessage(const std::string& text) {
    const size_t requests = fuzz::world.to_server.size();
    const std::string said = text.substr(0, kLongestSms);
    fuzz::world.modem_answer =
        "\r\n+CMGR: \"REC UNREAD\",\"+4915100001\",,\"26/11/21,10:00:00+04\"\r\n" + said + "\r\n\r\nOK\r\n";
    readMessage();
    MUST(fuzz::world.to_server.size() == requests);
}

void sendMessage(const std::string& bytes) {
    constexpr int kPort = -1;
    fuzz::world.modem_answer = "\r\n+CMGS: 1\r\n\r\nOK\r\n";
    fronta_sms_raw.push({bytes, bytes, "127.0.0.1", kPort});
    fuzz::sendWaitingSms();
}

// Whether the last word of these lines is an error.
bool refuses(std::string said) {
    std::replace(said.begin(), said.end(), '\n', '\r');
    std::vector<std::string> lines = fuzz::parts(said, '\r');
    const std::string unfinished = lines.back();
    lines.pop_back();
    bool refused = false;
    const auto look = [&](const std::string& line) {
        if (line.starts_with("> ")) refused = false;
        if (line.starts_with("+CMS ERROR:") || line.starts_with("+CME ERROR:")) refused = true;
    };
    for (const std::string& line : lines) {
        look(line);
        if (line == "ERROR") refused = true;
    }
    look(unfinished);
    return refused;
}

void sendToModemThatAnswers(const std::string& bytes) {
    constexpr int kPort = -1;
    fuzz::modemSays("\r\n");
    fuzz::world.modem_answer = bytes;
    fronta_sms_raw.push({"1", "AT+CMGD=0,4", "127.0.0.1", kPort});
    fuzz::sendWaitingSms();
    std::erase(fuzz::world.to_modem, "\x1b");
    MUST(fuzz::world.to_modem.size() == (refuses(bytes) ? 1 : 2));
}

void step(char letter, const std::string& bytes) {
    fuzz::world.to_modem.clear();
    fuzz::world.modem_answer = bytes;
    switch (letter) {
        case 'I': {
            const int acknowledged = nastavModem();
            MUST(acknowledged >= 0 && acknowledged <= 3 && fuzz::world.to_modem.size() == 4);
            break;
        }
        case 'M': {
            const int type = getModemType();
            MUST(type >= 0 && type <= 4);
            break;
        }
        case 'R':
            readMessage();
            break;
        case 'T':
            readStrangersMessage(bytes);
            break;
        case 'U':
            fuzz::modemSays(bytes);
            break;
        case 'X':
            execute_sms_command(bytes, kUserId, kAuthorised);
            break;
        case 'S':
            sendMessage(bytes);
            break;
        case 'E':
            sendToModemThatAnswers(bytes);
            break;
        default:
            break;
    }
    MUST(replyText().size() <= kReplyBufferSize);
}

}  // namespace

FUZZ_TARGET(modem) {
    definePlant();
    fuzz::Fields fields(input);
    while (fields.more()) {
        const std::string field = fields.text();
        if (!field.empty()) step(field[0], field.substr(1));
    }
    for (const std::string& request : fuzz::world.to_server) checkServerRequest(request);
}
