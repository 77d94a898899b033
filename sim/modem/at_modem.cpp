#include "sim/modem/at_modem.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <ctime>
#include <utility>

#include "sim/support/event_log.h"

namespace sim {
namespace {

constexpr char kCtrlZ = 0x1A;
constexpr char kEscape = 0x1B;
constexpr char kBackspace = 8;
constexpr size_t kLongestLine = 2000;
constexpr size_t kLongestText = 160;
constexpr size_t kLongestNumber = 20;
constexpr int kCapacity = 50;
constexpr size_t kMostSent = 100000;

// Result codes of 3GPP TS 27.005 and TS 27.007.
enum : int {
    kCmeNotAllowed = 3,
    kCmeNotSupported = 4,
    kCmeSimMissing = 10,
    kCmePinRequired = 11,
    kCmePukRequired = 12,
    kCmeWrongPassword = 16,
    kCmeParameters = 50,
    kCmsNotAllowed = 302,
    kCmsNotSupported = 303,
    kCmsTextParameter = 305,
    kCmsSimMissing = 310,
    kCmsPinRequired = 311,
    kCmsPukRequired = 316,
    kCmsIndex = 321,
    kCmsServiceCentre = 330,
    kCmsNoNetwork = 331,
};

constexpr struct {
    int code;
    const char* text;
} kCmeTexts[] = {
    {kCmeNotAllowed, "operation not allowed"}, {kCmeNotSupported, "operation not supported"},
    {kCmeSimMissing, "SIM not inserted"},      {kCmePinRequired, "SIM PIN required"},
    {kCmePukRequired, "SIM PUK required"},     {kCmeWrongPassword, "incorrect password"},
    {kCmeParameters, "Incorrect parameters"},
};

std::string cmeText(int code) {
    for (const auto& entry : kCmeTexts) {
        if (entry.code == code) return entry.text;
    }
    return "unknown";
}

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

std::string upperCase(std::string text) {
    for (char& c : text) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return text;
}

// The service centre's time stamp of this moment: local time, and its distance from UTC in quarters of an
// hour.
std::string stampNow() {
    const time_t now = realMicroseconds() / 1000000;
    tm local{};
    localtime_r(&now, &local);
    char stamp[40];
    strftime(stamp, sizeof stamp, "%y/%m/%d,%H:%M:%S", &local);
    char zone[24];
    snprintf(zone, sizeof zone, "%+03ld", local.tm_gmtoff / 900);
    return std::string(stamp) + zone;
}

bool isNumber(const std::string& text) {
    return !text.empty() && text.size() <= kLongestNumber &&
           text.find_first_not_of("0123456789*#", text[0] == '+' ? 1 : 0) == std::string::npos && text != "+";
}

}  // namespace

const std::vector<ModemModel>& modemModels() {
    static const std::vector<ModemModel> models = {
        {"EM820W", "huawei", true, 0},
        {"MU709s-2", "Huawei Technologies Co., Ltd.", true, 0},
        {"ME909u-521", "Huawei Technologies Co., Ltd.", true, 0},
        {"ME909u-523", "Huawei Technologies Co., Ltd.", true, 0},
        {"EM7565", "Sierra Wireless, Incorporated", false, 0},
        {"4105", "TELID", false, 0},
        {"SIM7906E", "SIMCOM INCORPORATED", false, 0},
        {"ME909s-120", "Huawei Technologies Co., Ltd.", true, 1},
        {"ME906s-158", "Huawei Technologies Co., Ltd.", true, 1},
        {"K9000", "Unlisted Modems", false, 0},
    };
    return models;
}

const ModemModel* findModel(const std::string& name) {
    for (const ModemModel& model : modemModels()) {
        if (name == model.name) return &model;
    }
    return nullptr;
}

// ---------------------------------------------------------------------------------------------------------------
// Power, time, the line

AtModem::AtModem(const ModemModel& model, Outside outside)
    : outside_(std::move(outside)), model_(&model), store_(model.first_index, kCapacity) {
    powerUp();
}

void AtModem::powerUp() {
    powerDown();
    powered_ = true;
    echo_ = true;
    pin_given_ = false;
    settings_.clear();
    for (const Setting& entry : settingsTable()) settings_[entry.name] = entry.value;
    next_chatter_ = 0;
}

void AtModem::powerDown() {
    ++power_;
    powered_ = false;
    busy_ = false;
    typing_ = false;
    input_.clear();
    line_.clear();
    last_line_.clear();
    output_.clear();
    unsolicited_.clear();
}

void AtModem::setModel(const ModemModel& model) {
    model_ = &model;
    store_.renumber(model.first_index);
}

void AtModem::receive(std::string_view bytes) {
    if (!powered_ || world.mute) return;
    input_ += bytes;
    work();
    finish();
}

void AtModem::run() {
    const double now = outside_.now();
    while (!agenda_.empty() && agenda_.begin()->first <= now) {
        const Task task = agenda_.extract(agenda_.begin()).mapped();
        if (task.power == 0 || task.power == power_) task.action();
    }
    receiveWaiting();
    chatter();
    work();
    finish();
}

double AtModem::wait() const {
    double next = 1e9;
    if (!agenda_.empty()) next = agenda_.begin()->first;
    if (world.chatter > 0 && powered_) next = std::min(next, next_chatter_);
    return std::max(0.0, next - outside_.now());
}

void AtModem::later(double seconds, bool dies_with_power, std::function<void()> action) {
    agenda_.emplace(outside_.now() + seconds, Task{dies_with_power ? power_ : 0, std::move(action)});
}

bool AtModem::idle() const {
    return powered_ && !busy_ && !typing_ && line_.size() < 2 && input_.empty();
}

// Works off what came while an answer was under way.
void AtModem::work() {
    size_t place = 0;
    while (place < input_.size() && !busy_) takeByte(input_[place++]);
    input_.erase(0, place);
}

void AtModem::finish() {
    flushUnsolicited();
    if (output_.empty()) return;
    const std::string bytes = std::exchange(output_, {});
    if (!world.mute) outside_.send(bytes);
}

void AtModem::say(std::string_view bytes) {
    output_ += bytes;
    finish();
}

void AtModem::answer(const std::string& bytes) {
    if (world.slow <= 0) {
        output_ += bytes;
        return;
    }
    busy_ = true;
    later(world.slow, true, [this, bytes] {
        busy_ = false;
        output_ += bytes;
    });
}

void AtModem::unsolicited(const std::string& line) {
    if (powered_) unsolicited_.push_back(line);
    finish();
}

void AtModem::flushUnsolicited() {
    if (!idle()) return;
    for (const std::string& line : unsolicited_) output_ += "\r\n" + line + "\r\n";
    unsolicited_.clear();
}

void AtModem::chatter() {
    const double now = outside_.now();
    if (world.chatter <= 0 || now < next_chatter_) return;
    next_chatter_ = now + world.chatter;
    if (powered_ && model_->huawei && settingNumber("^CURC", 0) != 0) unsolicited_.push_back("^RSSI:20");
}

// ---------------------------------------------------------------------------------------------------------------
// Typing

void AtModem::takeByte(char c) {
    if (typing_) {
        takeTextByte(c);
    } else {
        takeCommandByte(c);
    }
}

// A command line begins with "AT" in one case or the other; whatever stands before it is passed over.
void AtModem::takeCommandByte(char c) {
    if (echo_) output_ += c;
    const char upper = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    if (c == '\r') {
        if (line_.size() >= 2) executeLine();
        line_.clear();
    } else if (c == kBackspace) {
        if (!line_.empty()) line_.pop_back();
    } else if (line_.size() >= 2) {
        if (line_.size() <= kLongestLine) line_ += c;
    } else if (upper == 'A') {
        line_ = c;
    } else if (line_.size() == 1 && upper == 'T') {
        line_ += c;
    } else if (line_.size() == 1 && c == '/') {
        line_ = last_line_;
        if (!line_.empty()) executeLine();
        line_.clear();
    } else {
        line_.clear();
    }
}

void AtModem::takeTextByte(char c) {
    if (c == kCtrlZ) {
        typing_ = false;
        submit();
    } else if (c == kEscape) {
        typing_ = false;
        answer("\r\nOK\r\n");
    } else if (c == kBackspace) {
        if (!text_.empty()) text_.pop_back();
    } else {
        text_ += c;
        if (c == '\r') {
            output_ += "\r\n> ";
        } else if (echo_) {
            output_ += c;
        }
    }
}

// ---------------------------------------------------------------------------------------------------------------
// Commands

void AtModem::executeLine() {
    last_line_ = line_;
    if (customReply()) return;
    std::vector<AtCommand> commands;
    if (line_.size() > kLongestLine || !parseAtLine(line_.substr(2), commands)) {
        answer(informed({Answer::kError, 0, {}}));
    } else {
        runCommands(commands);
    }
}

bool AtModem::customReply() {
    const std::string line = upperCase(line_);
    const auto reply = std::find_if(replies_.begin(), replies_.end(),
                                    [&](const Reply& entry) { return line.starts_with(entry.command); });
    if (reply == replies_.end()) return false;
    const std::string bytes = reply->bytes;
    if (--reply->times == 0) replies_.erase(reply);
    answer(bytes);
    Json::Value members;
    members["command"] = line_;
    members["answer"] = "as told";
    outside_.tell("command", "modem " + printable(line_) + " -> as told", members);
    return true;
}

void AtModem::runCommands(const std::vector<AtCommand>& commands) {
    Answer whole;
    for (const AtCommand& command : commands) {
        const Answer part = execute(command);
        whole.kind = part.kind;
        whole.code = part.code;
        whole.lines.insert(whole.lines.end(), part.lines.begin(), part.lines.end());
        if (part.kind != Answer::kOk) break;
    }
    answer(informed(whole));
    if (whole.kind == Answer::kPrompt) {
        typing_ = true;
        text_.clear();
    }
    std::string result = finalResult(whole);
    result.erase(std::remove_if(result.begin(), result.end(), [](char c) { return c == '\r' || c == '\n'; }),
                 result.end());
    Json::Value members;
    members["command"] = line_;
    members["answer"] = result;
    outside_.tell("command", "modem " + printable(line_) + " -> " + result, members);
}

std::string AtModem::finalResult(const Answer& answer) const {
    switch (answer.kind) {
        case Answer::kOk:
            return "\r\nOK\r\n";
        case Answer::kPrompt:
            return "\r\n> ";
        case Answer::kCms:
            return "\r\n+CMS ERROR: " + std::to_string(answer.code) + "\r\n";
        case Answer::kCme: {
            const int form = settingNumber("+CMEE", 0);
            if (form == 0) break;
            return "\r\n+CME ERROR: " + (form == 1 ? std::to_string(answer.code) : cmeText(answer.code)) +
                   "\r\n";
        }
        case Answer::kError:
            break;
    }
    return "\r\nERROR\r\n";
}

std::string AtModem::informed(const Answer& answer) const {
    std::string bytes;
    for (const std::string& line : answer.lines) bytes += (bytes.empty() ? "\r\n" : "") + line + "\r\n";
    return bytes + finalResult(answer);
}

const std::vector<AtModem::Handler>& AtModem::handlers() {
    static const std::vector<Handler> table = {
        {"+CPIN", &AtModem::pin, false},
        {"+CMGS", &AtModem::sendMessage, false},
        {"+CMGR", &AtModem::readMessage, false},
        {"+CMGL", &AtModem::listMessages, false},
        {"+CMGD", &AtModem::deleteMessage, false},
        {"+CSCA", &AtModem::serviceCentre, false},
        {"+CPMS", &AtModem::storage, false},
        {"+CGMI", &AtModem::identity, false},
        {"+CGMM", &AtModem::identity, false},
        {"+GMM", &AtModem::identity, false},
        {"+CGSN", &AtModem::identity, false},
        {"+CIMI", &AtModem::identity, false},
        {"+CSQ", &AtModem::networkState, false},
        {"+COPS", &AtModem::networkState, false},
        {"+CREG", &AtModem::networkState, false},
        {"+CGPADDR", &AtModem::networkState, false},
        {"^SYSINFO", &AtModem::networkState, true},
        {"^SYSINFOEX", &AtModem::networkState, true},
        {"^CARDLOCK", &AtModem::networkState, true},
    };
    return table;
}

const std::vector<AtModem::Setting>& AtModem::settingsTable() {
    static const std::vector<Setting> table = {
        {"+CMEE", "1", "(0-2)", false},
        {"+CMGF", "0", "(0,1)", false},
        {"+CNMI", "2,1,0,0,0", "(0-3),(0-3),(0,2),(0-2),(0,1)", false},
        {"+CSDH", "0", "(0,1)", false},
        {"+CSCS", "\"IRA\"", "(\"IRA\",\"UCS2\",\"GSM\")", false},
        {"+CSMP", "17,167,0,0", "(0-255),(0-255),(0-255),(0-255)", false},
        {"+CSMS", "0,1,1,1", "(0,1)", false},
        {"+CFUN", "1", "(0,1,4-7),(0,1)", false},
        {"+CLIP", "0", "(0,1)", false},
        {"^CURC", "1", "(0,1)", true},
        {"^BOOT", "0,0", "", true},
        {"^SYSCFG", "2,0,3FFFFFFF,1,2", "(2,13,14,16),(0-3),(3FFFFFFF),(0-2),(0-4)", true},
        {"^SYSCFGEX", "\"00\",3FFFFFFF,1,2,7FFFFFFFFFFFFFFF", "", true},
    };
    return table;
}

const AtModem::Setting* AtModem::findSetting(const std::string& name) const {
    for (const Setting& entry : settingsTable()) {
        if (name == entry.name && (model_->huawei || !entry.huawei)) return &entry;
    }
    return nullptr;
}

AtModem::Answer AtModem::execute(const AtCommand& command) {
    const char first = command.name[0];
    if (first == '&' || (first >= 'A' && first <= 'Z')) return basic(command);
    for (const Handler& entry : handlers()) {
        if (command.name == entry.name && (model_->huawei || !entry.huawei))
            return (this->*entry.run)(command);
    }
    if (const Setting* entry = findSetting(command.name)) return setting(*entry, command);
    return {Answer::kError, 0, {}};
}

AtModem::Answer AtModem::basic(const AtCommand& command) {
    static const std::string kWithoutEffect = "HLMQVXOS";
    const std::string& name = command.name;
    if (name == "E") {
        const int value = command.value.empty() ? 0 : command.number(0, -1);
        if (value != 0 && value != 1) return {Answer::kError, 0, {}};
        echo_ = value == 1;
        return {};
    }
    if (name == "Z" || name == "&F") {
        echo_ = true;
        for (const Setting& entry : settingsTable()) settings_[entry.name] = entry.value;
        return {};
    }
    if (name == "I") return identity(command);
    const bool known = name[0] == '&' || kWithoutEffect.find(name[0]) != std::string::npos;
    return {known ? Answer::kOk : Answer::kError, 0, {}};
}

AtModem::Answer AtModem::setting(const Setting& setting, const AtCommand& command) {
    std::string& value = settings_[setting.name];
    switch (command.form) {
        case AtCommand::kRead:
            return {Answer::kOk, 0, {command.name + (setting.huawei ? ":" : ": ") + value}};
        case AtCommand::kTest:
            return {Answer::kOk, 0, {command.name + ": " + setting.range}};
        case AtCommand::kSet:
            if (command.value.empty()) return {Answer::kCme, kCmeParameters, {}};
            if (command.name == "+CMGF" && command.value != "0" && command.value != "1") {
                return {Answer::kCms, kCmsNotSupported, {}};
            }
            value = command.value;
            return {};
        case AtCommand::kExecute:
            break;
    }
    return {Answer::kError, 0, {}};
}

int AtModem::settingNumber(const char* name, size_t index) const {
    std::vector<AtCommand> commands;
    parseAtLine(std::string(name) + "=" + settings_.at(name), commands);
    return commands[0].number(index, 0);
}

// ---------------------------------------------------------------------------------------------------------------
// The SIM

bool AtModem::simReady() const {
    return world.sim && world.tries_left > 0 && (world.pin.empty() || pin_given_);
}

// The +CMS ERROR of a SIM that is not ready, 0 when it is.
int AtModem::simError() const {
    if (!world.sim) return kCmsSimMissing;
    if (world.tries_left <= 0) return kCmsPukRequired;
    return simReady() ? 0 : kCmsPinRequired;
}

AtModem::Answer AtModem::pin(const AtCommand& command) {
    if (command.form == AtCommand::kTest) return {};
    if (!world.sim) return {Answer::kCme, kCmeSimMissing, {}};
    if (command.form == AtCommand::kRead) {
        if (world.tries_left <= 0) return {Answer::kOk, 0, {"+CPIN: SIM PUK"}};
        return {Answer::kOk, 0, {simReady() ? "+CPIN: READY" : "+CPIN: SIM PIN"}};
    }
    if (command.form != AtCommand::kSet) return {Answer::kError, 0, {}};
    if (simReady()) return {Answer::kCme, kCmeNotAllowed, {}};
    if (world.tries_left <= 0) return {Answer::kCme, kCmePukRequired, {}};
    if (command.parameters[0] != world.pin) {
        --world.tries_left;
        return {Answer::kCme, kCmeWrongPassword, {}};
    }
    pin_given_ = true;
    world.tries_left = 3;
    return {};
}

AtModem::Answer AtModem::serviceCentre(const AtCommand& command) {
    if (command.form == AtCommand::kTest) return {};
    if (const int error = simError()) return {Answer::kCms, error, {}};
    if (command.form == AtCommand::kRead) {
        const char* type = service_centre_.starts_with("+") ? ",145" : ",129";
        return {Answer::kOk, 0, {"+CSCA: " + quoted(service_centre_) + type}};
    }
    if (command.form != AtCommand::kSet) return {Answer::kError, 0, {}};
    if (!isNumber(command.parameters[0])) return {Answer::kCms, kCmsServiceCentre, {}};
    service_centre_ = command.parameters[0];
    return {};
}

AtModem::Answer AtModem::identity(const AtCommand& command) {
    const std::string& name = command.name;
    if (command.form == AtCommand::kTest) return {};
    if (name == "I") {
        return {Answer::kOk,
                0,
                {std::string("Manufacturer: ") + model_->manufacturer, std::string("Model: ") + model_->name,
                 "Revision: 11.430.61.00.00", "IMEI: 866710030000001"}};
    }
    if (name == "+CGMI") return {Answer::kOk, 0, {model_->manufacturer}};
    if (name == "+CGSN") return {Answer::kOk, 0, {"866710030000001"}};
    if (name == "+CIMI") {
        if (!world.sim) return {Answer::kCme, kCmeSimMissing, {}};
        if (!simReady()) return {Answer::kCme, kCmePinRequired, {}};
        return {Answer::kOk, 0, {"230010000000001"}};
    }
    return {Answer::kOk, 0, {model_->name}};
}

// ---------------------------------------------------------------------------------------------------------------
// The network

AtModem::Answer AtModem::networkState(const AtCommand& command) {
    static constexpr struct {
        const char* name;
        const char* registered;
        const char* unregistered;
    } kAnswers[] = {
        {"+CSQ", "+CSQ: 20,99", "+CSQ: 99,99"},
        {"+COPS", "+COPS: 0,0,\"KORVATO TEST\",7", "+COPS: 0"},
        {"+CREG", "+CREG: 0,1", "+CREG: 0,2"},
        {"+CGPADDR", "+CGPADDR: 1,\"10.0.0.2\"", "+CGPADDR: 1,\"0.0.0.0\""},
        {"^SYSINFO", "^SYSINFO:2,3,0,17,1", "^SYSINFO:0,0,0,0,255"},
        {"^SYSINFOEX", "^SYSINFOEX:2,3,0,1,,6,\"LTE\",101,\"LTE\"",
         "^SYSINFOEX:0,0,0,255,,0,\"NOSERVICE\",0,\"NOSERVICE\""},
        {"^CARDLOCK", "^CARDLOCK: 2,10,0", "^CARDLOCK: 2,10,0"},
    };
    if (command.form == AtCommand::kSet || command.form == AtCommand::kTest) return {};
    for (const auto& entry : kAnswers) {
        if (command.name == entry.name)
            return {Answer::kOk, 0, {registered() ? entry.registered : entry.unregistered}};
    }
    return {Answer::kError, 0, {}};
}

AtModem::Answer AtModem::sendMessage(const AtCommand& command) {
    if (command.form == AtCommand::kTest) return {};
    if (command.form != AtCommand::kSet) return {Answer::kError, 0, {}};
    if (const int error = simError()) return {Answer::kCms, error, {}};
    if (settingNumber("+CMGF", 0) != 1) return {Answer::kCms, kCmsNotSupported, {}};
    if (!isNumber(command.parameters[0])) return {Answer::kCms, kCmsTextParameter, {}};
    number_ = command.parameters[0];
    return {Answer::kPrompt, 0, {}};
}

// The +CMS ERROR that the message typed ends in, 0 when it is sent.
int AtModem::sendingError() {
    if (text_.size() > kLongestText + (text_.ends_with('\r') ? 1 : 0)) return kCmsTextParameter;
    if (const int error = simError()) return error;
    if (!world.network) return kCmsNoNetwork;
    if (world.refusals > 0) {
        --world.refusals;
        return world.refusal_code;
    }
    return 0;
}

// The message is on its way while the answer is under way: the network decides at its end.
void AtModem::submit() {
    const double seconds = world.slow + world.sending;
    if (seconds <= 0) {
        decide();
        return;
    }
    busy_ = true;
    later(seconds, true, [this] {
        busy_ = false;
        decide();
    });
}

void AtModem::decide() {
    SentMessage message{outside_.now(), number_, text_, text_, false, 0, 0};
    if (message.text.ends_with('\r')) message.text.pop_back();
    message.error = sendingError();
    message.sent = message.error == 0;
    std::string line = "sms to " + message.number + ": " + printable(message.text);
    if (message.sent) {
        message.reference = reference_ = (reference_ + 1) % 256;
        output_ += "\r\n+CMGS: " + std::to_string(reference_) + "\r\n\r\nOK\r\n";
    } else {
        output_ += finalResult({Answer::kCms, message.error, {}});
        line += " (refused, " + std::to_string(message.error) + ")";
    }
    sent_.push_back(message);
    if (sent_.size() > kMostSent) sent_.pop_front();
    outside_.tell("sms", line, sentJson(message));
    if (message.sent) phoneAnswers(message);
}

Json::Value sentJson(const SentMessage& message) {
    Json::Value json;
    json["number"] = message.number;
    json["text"] = message.text;
    json["raw"] = message.raw;
    json["sent"] = message.sent;
    if (message.sent) {
        json["reference"] = message.reference;
    } else {
        json["error"] = message.error;
    }
    return json;
}

void AtModem::answerFrom(const std::string& number, const std::string& word, double after) {
    if (word.empty()) {
        phone_answers_.erase(number);
    } else {
        phone_answers_[number] = {word, after};
    }
}

void AtModem::phoneAnswers(const SentMessage& message) {
    static constexpr std::string_view kSuffix = " /ack:";
    const auto phone = phone_answers_.find(message.number);
    const size_t suffix = message.text.rfind(kSuffix);
    if (phone == phone_answers_.end() || suffix == std::string::npos) return;
    StoredMessage answered;
    answered.number = message.number;
    answered.text = phone->second.word + ":" + message.text.substr(suffix + kSuffix.size());
    later(phone->second.after, false, [this, answered] { deliver(answered); });
}

// ---------------------------------------------------------------------------------------------------------------
// Messages received

void AtModem::deliver(StoredMessage message) {
    if (message.stamp.empty()) message.stamp = stampNow();
    Json::Value members;
    members["number"] = message.number;
    members["text"] = message.text;
    outside_.tell("phone", "phone " + printable(message.number) + " sends " + printable(message.text),
                  members);
    waiting_.push_back(std::move(message));
    receiveWaiting();
    finish();
}

void AtModem::receiveWaiting() {
    while (!waiting_.empty() && registered() && !store_.full()) {
        const StoredMessage message = waiting_.front();
        waiting_.pop_front();
        const int indication = settingNumber("+CNMI", 1);
        if (indication == 2) {
            unsolicited_.push_back("+CMT: " + quoted(message.number) + ",," + quoted(message.stamp) + "\r\n" +
                                   message.text);
            continue;
        }
        const int index = store_.add(message);
        if (indication == 1) unsolicited_.push_back("+CMTI: \"SM\"," + std::to_string(index));
    }
}

std::string AtModem::header(const StoredMessage& message) const {
    std::string text = quoted(stateWord(message.state)) + "," + quoted(message.number) + ",";
    if (!message.name.empty()) text += quoted(message.name);
    return text + "," + quoted(message.stamp);
}

AtModem::Answer AtModem::readMessage(const AtCommand& command) {
    if (command.form == AtCommand::kTest) return {};
    if (command.form == AtCommand::kRead) return {Answer::kError, 0, {}};
    if (const int error = simError()) return {Answer::kCms, error, {}};
    if (settingNumber("+CMGF", 0) != 1) return {Answer::kCms, kCmsNotSupported, {}};
    const int index = command.number(0, -1);
    if (!store_.valid(index)) return {Answer::kCms, kCmsIndex, {}};
    StoredMessage* message = store_.find(index);
    if (!message) return {};
    std::string line = "+CMGR: " + header(*message);
    if (settingNumber("+CSDH", 0) == 1) {
        const std::string type = message->number.starts_with("+") ? "145" : "129";
        line +=
            "," + type + ",4,0,0," + quoted(service_centre_) + ",145," + std::to_string(message->text.size());
    }
    if (message->state == StoredMessage::kUnread) message->state = StoredMessage::kRead;
    return {Answer::kOk, 0, {line, message->text}};
}

AtModem::Answer AtModem::listMessages(const AtCommand& command) {
    if (command.form == AtCommand::kTest) {
        return {Answer::kOk, 0, {"+CMGL: (\"REC UNREAD\",\"REC READ\",\"STO UNSENT\",\"STO SENT\",\"ALL\")"}};
    }
    if (command.form == AtCommand::kRead) return {Answer::kError, 0, {}};
    if (const int error = simError()) return {Answer::kCms, error, {}};
    if (settingNumber("+CMGF", 0) != 1) return {Answer::kCms, kCmsNotSupported, {}};
    const std::string which = command.parameters.empty() ? "REC UNREAD" : command.parameters[0];
    bool known = which == "ALL";
    for (const auto state :
         {StoredMessage::kUnread, StoredMessage::kRead, StoredMessage::kUnsent, StoredMessage::kSent}) {
        known = known || which == stateWord(state);
    }
    if (!known) return {Answer::kCms, kCmsTextParameter, {}};
    Answer answer;
    for (const auto& [index, stored] : store_.messages()) {
        if (which != "ALL" && which != stateWord(stored.state)) continue;
        answer.lines.push_back("+CMGL: " + std::to_string(index) + "," + header(stored));
        answer.lines.push_back(stored.text);
        StoredMessage* message = store_.find(index);
        if (message->state == StoredMessage::kUnread) message->state = StoredMessage::kRead;
    }
    return answer;
}

AtModem::Answer AtModem::deleteMessage(const AtCommand& command) {
    if (command.form == AtCommand::kTest) return {Answer::kOk, 0, {"+CMGD: (),(0-4)"}};
    if (command.form != AtCommand::kSet) return {Answer::kError, 0, {}};
    if (const int error = simError()) return {Answer::kCms, error, {}};
    const int index = command.number(0, -1);
    const int flag = command.number(1, command.parameters.size() > 1 ? -1 : 0);
    if (flag < 0 || flag > 4) return {Answer::kCms, kCmsTextParameter, {}};
    if (flag > 0) {
        store_.removeAll(flag);
        return {};
    }
    if (!store_.valid(index)) return {Answer::kCms, kCmsIndex, {}};
    store_.remove(index);
    return {};
}

AtModem::Answer AtModem::storage(const AtCommand& command) {
    const std::string places =
        std::to_string(store_.messages().size()) + "," + std::to_string(store_.capacity());
    switch (command.form) {
        case AtCommand::kTest:
            return {Answer::kOk, 0, {"+CPMS: (\"SM\"),(\"SM\"),(\"SM\")"}};
        case AtCommand::kRead:
            if (const int error = simError()) return {Answer::kCms, error, {}};
            return {Answer::kOk, 0, {"+CPMS: \"SM\"," + places + ",\"SM\"," + places + ",\"SM\"," + places}};
        case AtCommand::kSet: {
            if (const int error = simError()) return {Answer::kCms, error, {}};
            const auto& names = command.parameters;
            if (std::any_of(names.begin(), names.end(),
                            [](const std::string& name) { return name != "SM"; })) {
                return {Answer::kCms, kCmsNotAllowed, {}};
            }
            return {Answer::kOk, 0, {"+CPMS: " + places + "," + places + "," + places}};
        }
        case AtCommand::kExecute:
            break;
    }
    return {Answer::kError, 0, {}};
}

void AtModem::replyTo(const std::string& command, const std::string& bytes, int times) {
    replies_.push_back({upperCase(command), bytes, times});
}

}  // namespace sim
