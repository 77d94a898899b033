// Data in answers, where "%" means what it means to printf. Fields: sender and text of the last SMS, three
// values of the modem's status, three GPS sentences.
#include "alarmd/requests/answers.h"
#include "tests/fuzz/world.h"

namespace {

// Whether printf itself may be given the text as its format, with the text as the one argument.
bool printable(const std::string& text) {
    if (text.find('\0') != std::string::npos) return false;
    bool used = false;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') continue;
        const char next = i + 1 < text.size() ? text[i + 1] : '\0';
        if (next != '%' && (next != 's' || used)) return false;
        used = used || next == 's';
        ++i;
    }
    return true;
}

void checkAgainstPrintf(const std::string& text) {
    if (!printable(text)) return;
    std::vector<char> buffer(2 * text.size() + 1);
    const int length = snprintf(buffer.data(), buffer.size(), text.c_str(), text.c_str());
    MUST(length >= 0 && static_cast<size_t>(length) < buffer.size());
    MUST(formatWithItself(text) == buffer.data());
}

void checkFormat(const std::string& text) {
    const std::string result = formatWithItself(text);
    MUST(result.size() <= 2 * text.size());
    if (text.find('%') == std::string::npos) MUST(result == text);
    checkAgainstPrintf(text);
}

RequestState stateFrom(std::string_view input) {
    fuzz::Fields fields(input);
    RequestState state;
    state.last_sms = {7, fields.text(), fields.text()};
    state.status.IMEI = fields.text();
    state.status.COPS = fields.text();
    state.status.CGEQNEG = fields.text();
    state.gps_enable = true;
    state.gps.GPGGA = fields.text();
    state.gps.GPGSV[1] = fields.text();
    state.gps.GPGSV[2] = fields.text();
    state.gps.GPGSV_count = 2;
    return state;
}

// The answer is the line that was logged, printed with itself as its format.
void checkAnswer(int protocol, const RequestState& state) {
    const Answer answer = answerFcgiRequest("{\"t\":" + std::to_string(protocol) + "}", state);
    const std::string label = "Response: ";
    const size_t logged = answer.log.find(label);
    MUST(logged != std::string::npos && answer.protocol_run && answer.action == RequestAction::kNone);
    std::string body = answer.log.substr(logged + label.size());
    body.pop_back();
    MUST(body.starts_with("{\"r\":" + std::to_string(protocol) + ",\"s\":1,\"d\":{"));
    MUST(answer.body == formatWithItself(body));
    checkFormat(body);
}

}  // namespace

FUZZ_TARGET(answer_format) {
    checkFormat(std::string(input));
    const RequestState state = stateFrom(input);
    for (const int protocol : {51, 52, 54}) checkAnswer(protocol, state);

    // Over TCP the data goes as it is.
    const Answer answer = answerTcpRequest("{\"t\":54}", state, true);
    MUST(answer.body == "{\"r\":54,\"s\":1,\"d\":{\"Timestamp\":7,\"From\":\"" + state.last_sms.from +
                            "\",\"Text\":\"" + state.last_sms.text + "\"}}\n");
}
