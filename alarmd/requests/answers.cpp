#include "alarmd/requests/answers.h"

#include <utility>

#include "alarmd/base/json.h"
#include "alarmd/gps/nmea.h"
#include "knihovny/debugerror.h"

namespace {

constexpr int kSendSms = 50;
constexpr int kLastSms = 54;

constexpr char kParseFailure[] = "{\"s\":0, \"err\":\"Failed to parse JSON\"}";
constexpr char kSmsAccepted[] = "{\"s\":1,\"r\":50}\n";
constexpr char kSmsQueueFull[] = "{\"r\":50,\"s\":0,\"err\":\"SMS queue is full\"}\n";
constexpr char kNoGpsParsed[] = "{\"r\":53,\"s\":0,\"err\":\"GPS disabled or CRC error.\"}";
constexpr char kLastSmsLine[] = "Request protocol 54 (Read last receive SMS)\n";
constexpr char kModemNotReady[] = "{\"r\":50,\"s\":0,\"err\":\"Modem activation failed\"}\n";

// What a request asks for. An object is made of what has been found to be of the right type.
struct Request {
    int protocol = 0;
    std::string number;
    std::string text;
};

void parseFailure(Answer& answer, const std::string& reasons) {
    AppendLine(answer.log, "Failed to parse JSON");
    AppendLine(answer.log, reasons);
    answer.body = kParseFailure;
}

bool takeText(const Json::Value& root, const char* name, std::string& text, std::string& errors) {
    const Json::Value& member = root[name];
    if (!member.isNull() && !member.isString()) {
        AppendLine(errors, "* \"", name, "\" is no string");
        return false;
    }
    text = member.asString();
    return true;
}

// A member that is missing or null reads as 0 or an empty text. number and text matter to protocol 50 only.
bool takeRequest(const Json::Value& root, Request& request, std::string& errors) {
    if (!root.isObject() && !root.isNull()) {
        AppendLine(errors, "* the request is no object");
        return false;
    }
    const Json::Value& protocol = root["t"];
    if (!protocol.isNull() && !protocol.isInt()) {
        AppendLine(errors, "* \"t\" is no integer");
        return false;
    }
    request.protocol = protocol.asInt();
    return request.protocol != kSendSms ||
           (takeText(root, "number", request.number, errors) && takeText(root, "text", request.text, errors));
}

// An answer made of data goes out as the format of its own print, so that "%" means there what it means to
// printf.
void finishWithData(Answer& answer, const std::string& body) {
    AppendLine(answer.log, "Response: ", body);
    answer.body = formatWithItself(body);
}

void answerSendSms(const Request& request, Answer& answer) {
    answer.body = kSmsAccepted;
    answer.action = RequestAction::kSendSms;
    answer.number = request.number;
    answer.text = request.text;
}

std::string modemStatusBody(const RequestState& state) {
    const _status& s = state.status;
    const std::pair<const char*, std::string> members[] = {
        {"TYPE", std::to_string(state.modemTyp)},
        {"IMEI", s.IMEI},
        {"CSQ", s.CSQ},
        {"SYSCFG", s.SYSCFG},
        {"SYSCFGEX", s.SYSCFGEX},
        {"COPS", s.COPS},
        {"CREG", s.CREG},
        {"CARDLOCK", s.CARDLOCK},
        {"SYSINFO", s.SYSINFO},
        {"SYSINFOEX", s.SYSINFOEX},
        {"CGPADDR", s.CGPADDR},
        {"CGEQNEG", s.CGEQNEG},
        {"SMSCOUNT", std::to_string(state.sms_counter)},
        {"UPDATED", std::to_string(s.updated)},
    };
    std::string body = "{\"r\":51,\"s\":1,\"d\":{";
    const char* separator = "";
    for (const auto& [name, value] : members) {
        body += separator;
        body += std::string("\"") + name + "\":\"" + value + "\"";
        separator = ",";
    }
    return body + "}}";
}

std::string gpsRawBody(const _gps_data& gps) {
    std::string body = "{\"r\":52,\"s\":1,\"d\":{";
    body += "\"GGA\":\"" + gps.GPGGA + "\",";
    body += "\"GSA\":\"" + gps.GPGSA + "\",";
    body += "\"RMC\":\"" + gps.GPRMC + "\",";
    body += "\"VTG\":\"" + gps.GPVTG + "\",";
    body += "\"GSV\":[";
    for (int i = 1; i <= gsvSentences(gps); ++i) {
        if (i > 1) body += ",";
        body += "\"" + gps.GPGSV[i] + "\"";
    }
    return body + "]}}\n";
}

std::string lastSmsBody(const _last_sms& received) {
    return "{\"r\":54,\"s\":1,\"d\":{\"Timestamp\":" + std::to_string(received.timestamp) + ",\"From\":\"" +
           received.from + "\",\"Text\":\"" + received.text + "\"}}\n";
}

void answerGpsRaw(const RequestState& state, Answer& answer) {
    answer.log += "FCGI Request protocol 52 (Read GPS raw data)\n";
    if (state.gps_enable) {
        finishWithData(answer, gpsRawBody(state.gps));
        return;
    }
    // The log line says "DPS" where the answer says "GPS".
    answer.log += "Response: {\"r\":52,\"s\":0,\"err\":\"DPS disabled\"}\n";
    answer.body = "{\"r\":52,\"s\":0,\"err\":\"GPS disabled\"}\n";
}

// The sentence without its first characters (head) and without its checksum.
std::string sentenceData(const std::string& sentence, size_t head) {
    constexpr size_t kChecksum = 3;
    if (sentence.size() < head + kChecksum) return "";
    return sentence.substr(head, sentence.size() - head - kChecksum);
}

_gps_data_parse parseGps(const _gps_data& gps) {
    constexpr size_t kAddress = 7;      // "$GPGGA,"
    constexpr size_t kGsvAddress = 11;  // "$GPGSV,3,1,"
    _gps_data_parse parsed;
    parsed.GPGGA = sentenceData(gps.GPGGA, kAddress);
    parsed.GPGSA = sentenceData(gps.GPGSA, kAddress);
    parsed.GPRMC = sentenceData(gps.GPRMC, kAddress);
    parsed.GPVTG = sentenceData(gps.GPVTG, kAddress);
    for (int i = 1; i <= gsvSentences(gps); ++i) parsed.GPGSV += sentenceData(gps.GPGSV[i], kGsvAddress);
    return parsed;
}

std::string gpsParsedBody(const _gps_data_parse& parsed) {
    return "{\"r\":53,\"s\":1,\"d\":{\"GGA\":\"" + parsed.GPGGA + "\",\"GSA\":\"" + parsed.GPGSA +
           "\",\"RMC\":\"" + parsed.GPRMC + "\",\"VTG\":\"" + parsed.GPVTG + "\",\"GSV\":\"" + parsed.GPGSV +
           "\"}}\n";
}

bool allChecksumsRight(const _gps_data& gps, std::string& log) {
    int right = 0;
    for (const std::string* sentence : {&gps.GPGGA, &gps.GPGSA, &gps.GPRMC, &gps.GPVTG}) {
        right += checkCRC(*sentence, log);
    }
    return right == 4;
}

void answerGpsParsed(const RequestState& state, Answer& answer) {
    answer.log += "Request protocol 53 (Read GPS parse data)\n";
    const bool good = allChecksumsRight(state.gps, answer.log);
    if (state.gps_enable && good) {
        answer.gps_parse = parseGps(state.gps);
        answer.gps_parsed = true;
        finishWithData(answer, gpsParsedBody(answer.gps_parse));
        return;
    }
    AppendLine(answer.log, "Response: ", kNoGpsParsed);
    answer.body = std::string(kNoGpsParsed) + "\n";
}

void fcgiSendSms(const Request& request, const RequestState& /*state*/, Answer& answer) {
    answer.log += "FCGI Request protocol 50 (Send SMS)\n";
    answerSendSms(request, answer);
}

void fcgiModemStatus(const Request& /*request*/, const RequestState& state, Answer& answer) {
    answer.log += "FCGI Request protocol 51 (Read modem status)\n";
    finishWithData(answer, modemStatusBody(state));
}

void fcgiGpsRaw(const Request& /*request*/, const RequestState& state, Answer& answer) {
    answerGpsRaw(state, answer);
}

void fcgiGpsParsed(const Request& /*request*/, const RequestState& state, Answer& answer) {
    answerGpsParsed(state, answer);
}

void fcgiLastSms(const Request& /*request*/, const RequestState& state, Answer& answer) {
    answer.log += kLastSmsLine;
    finishWithData(answer, lastSmsBody(state.last_sms));
}

void fcgiDisable(const Request& /*request*/, const RequestState& /*state*/, Answer& answer) {
    answer.log += "Request protocol 55 (Disable notification)\n";
    finishWithData(answer, "{\"r\":55,\"s\":1}\n");
    answer.action = RequestAction::kDisableNotification;
}

void fcgiEnable(const Request& /*request*/, const RequestState& /*state*/, Answer& answer) {
    answer.log += "Request protocol 56 (Enable notification)\n";
    finishWithData(answer, "{\"r\":56,\"s\":1}\n");
    answer.action = RequestAction::kEnableNotification;
}

struct Protocol {
    int number;
    void (*answer)(const Request&, const RequestState&, Answer&);
};

constexpr Protocol kFcgiProtocols[] = {
    {kSendSms, fcgiSendSms}, {51, fcgiModemStatus}, {52, fcgiGpsRaw}, {53, fcgiGpsParsed},
    {kLastSms, fcgiLastSms}, {55, fcgiDisable},     {56, fcgiEnable},
};

}  // namespace

Answer answerFcgiRequest(const std::string& request_text, const RequestState& state) {
    Answer answer;
    Json::Value root;
    Request request;
    std::string errors;
    if (!parseJson(request_text, root, errors) || !takeRequest(root, request, errors)) {
        parseFailure(answer, errors);
        return answer;
    }
    for (const Protocol& protocol : kFcgiProtocols) {
        if (protocol.number != request.protocol) continue;
        answer.protocol_run = true;
        protocol.answer(request, state, answer);
    }
    return answer;
}

Answer answerTooLongRequest() {
    Answer answer;
    parseFailure(answer, "* the request is longer than 1 MiB\n");
    return answer;
}

Answer answerTcpRequest(const std::string& request_text, const RequestState& state, bool modem_ready) {
    Answer answer;
    Json::Value root;
    Request request;
    std::string errors;
    const bool parsed = parseJson(request_text, root, errors);
    if (parsed && !modem_ready) {
        answer.body = kModemNotReady;  // with protocol 50 in it, whatever was asked
        return answer;
    }
    if (!parsed || !takeRequest(root, request, errors)) {
        parseFailure(answer, errors);
        return answer;
    }
    if (request.protocol == kSendSms) {
        answer.protocol_run = true;
        answer.log += "Request protocol 50 (Send SMS)\n";
        answerSendSms(request, answer);
    } else if (request.protocol == kLastSms) {
        answer.protocol_run = true;
        answer.body = lastSmsBody(state.last_sms);
        answer.log += kLastSmsLine;
        AppendLine(answer.log, "Response: ", answer.body);
    }
    return answer;
}

void refuseSms(Answer& answer) {
    answer.body = kSmsQueueFull;
    answer.action = RequestAction::kNone;
}

std::string formatWithItself(const std::string& text) {
    std::string result;
    result.reserve(text.size());
    bool argument_used = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char next = i + 1 < text.size() ? text[i + 1] : '\0';
        if (text[i] == '%' && next == '%') {
            result += '%';
            ++i;
        } else if (text[i] == '%' && next == 's' && !argument_used) {
            result += text;
            argument_used = true;
            ++i;
        } else {
            result += text[i];
        }
    }
    return result;
}
