// The bytes of a FastCGI client: the reader of requests, libfcgi behind it, the answers.
#include <fcgiapp.h>

#include <algorithm>

#include "alarmd/requests/answers.h"
#include "alarmd/requests/daemon_state.h"
#include "alarmd/requests/fcgi_responder.h"
#include "tests/fuzz/world.h"

namespace {

constexpr size_t kLongestBody = 1000;  // so that an input can go beyond it
constexpr char kSmsAccepted[] = "\n{\"s\":1,\"r\":50}\n";

struct EndOfRequests {};

struct Client {
    std::vector<FcgiRequest> requests;
    size_t served = 0;
    std::string expected;  // the answer to the present one
    size_t messages = 0;   // SMS that were accepted
};
Client client;

bool same(const FcgiRequest& a, const FcgiRequest& b) {
    return a.id == b.id && a.role == b.role && a.keep_connection == b.keep_connection &&
           a.params == b.params && a.body == b.body && a.too_long == b.too_long;
}

// The requests in the stream when it comes in pieces of this length.
std::vector<FcgiRequest> requestsIn(std::string_view stream, size_t piece) {
    std::vector<FcgiRequest> requests;
    FcgiRequestReader reader(kLongestBody);
    std::string_view rest = stream;
    while (!rest.empty() && reader.state() != FcgiRequestReader::State::kRefused) {
        const std::string_view bytes = rest.substr(0, piece);
        const size_t taken = reader.take(bytes);
        MUST(taken <= bytes.size());
        rest.remove_prefix(taken);
        if (reader.state() == FcgiRequestReader::State::kReading) MUST(taken == bytes.size());
        if (reader.state() == FcgiRequestReader::State::kComplete) requests.push_back(reader.next());
    }
    return requests;
}

void checkRequest(const FcgiRequest& request) {
    MUST(request.id >= 1 && request.id <= 65535);
    MUST(request.role >= 1 && request.role <= 3);
    const std::string length(fcgiParam(request.params, "CONTENT_LENGTH"));
    MUST(request.body.empty() || strtoll(length.c_str(), nullptr, 10) > 0);
    MUST(request.body.size() <= kLongestBody);
    MUST(!request.too_long || request.body.empty());
    // Its own records give the request again.
    const std::vector<FcgiRequest> again = requestsIn(fcgiRecords(request), std::string_view::npos);
    MUST(again.size() == 1 && again[0].params == request.params && again[0].id == request.id);
    MUST(again[0].body == request.body && !again[0].too_long);
}

size_t takeLength(std::string_view& bytes) {
    const auto at = [&](size_t i) { return static_cast<size_t>(static_cast<unsigned char>(bytes[i])); };
    const bool is_short = at(0) < 0x80;
    const size_t length = is_short ? at(0) : (at(0) & 0x7f) << 24 | at(1) << 16 | at(2) << 8 | at(3);
    bytes.remove_prefix(is_short ? 1 : 4);
    return length;
}

// The value as libfcgi finds it, which keeps the pairs as texts "name=value": a name can have a "=" in it.
std::string paramOfLibrary(std::string_view params, const std::string& name) {
    while (!params.empty()) {
        const size_t name_length = takeLength(params);
        const size_t value_length = takeLength(params);
        const std::string pair = std::string(params.substr(0, name_length)) + "=" +
                                 std::string(params.substr(name_length, value_length));
        params.remove_prefix(name_length + value_length);
        if (pair.starts_with(name + "=")) return pair.c_str() + name.size() + 1;
    }
    return "";
}

// What the client is to get: nothing without a body, else what the pure function answers.
std::string expectedAnswer(const FcgiRequest& request) {
    if (request.too_long) return "\n" + answerTooLongRequest().body;
    const std::string length = paramOfLibrary(request.params, "CONTENT_LENGTH");
    if (strtoll(length.c_str(), nullptr, 10) <= 0) return "";
    const std::string body = answerFcgiRequest(request.body, takeRequestState()).body;
    return body.empty() ? "" : "\n" + body;
}

// The bytes that a client finds in the records of its answer.
std::string contentOf(std::string_view records, int id) {
    constexpr size_t kHeader = 8;
    constexpr int kEnd = 3;
    constexpr int kStdout = 6;
    std::string content;
    int type = 0;
    while (!records.empty()) {
        MUST(type != kEnd && records.size() >= kHeader && records[0] == 1);
        const auto at = [&](size_t i) { return static_cast<size_t>(static_cast<unsigned char>(records[i])); };
        type = static_cast<int>(at(1));
        MUST(type == kEnd || type == kStdout);
        MUST((at(2) << 8 | at(3)) == static_cast<size_t>(id));
        const size_t length = at(4) << 8 | at(5);
        MUST(records.size() >= kHeader + length + at(6));
        if (type == kStdout) content += records.substr(kHeader, length);
        records.remove_prefix(kHeader + length + at(6));
    }
    MUST(type == kEnd);
    return content;
}

// Gives the client's requests and checks the answers.
class Requests final : public RequestSource {
  public:
    FcgiRequest next() override {
        if (client.served == client.requests.size()) throw EndOfRequests();
        client.expected = expectedAnswer(client.requests[client.served]);
        return client.requests[client.served++];
    }

    void answer(std::string records) override {
        const FcgiRequest& request = client.requests[client.served - 1];
        const std::string content = contentOf(records, request.id);
        MUST(content == client.expected);
        if (content == kSmsAccepted) ++client.messages;
        MUST(static_cast<size_t>(fronta_sms_raw.size()) == client.messages);
        if (content == "\n{\"r\":55,\"s\":1}\n") MUST(disable_notification);
        if (content == "\n{\"r\":56,\"s\":1}\n") MUST(!disable_notification);
    }
};

void fillDaemon() {
    gps_enable = true;
    {
        MutexLock lock(gps_mutex);
        gps_data.GPGGA = "$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*47";
        gps_data.GPGSV[1] = "$GPGSV,1,1,08,02,74,042,45*%%";
        gps_data.GPGSV_count = 2;
    }
    MutexLock lock(last_sms_mutex);
    last_sms = {1700000000, "+420601000001", "100 %% of %s, 5 %d"};
}

}  // namespace

FUZZ_TARGET(fcgi) {
    static const int initialised = FCGX_Init();
    MUST(initialised == 0);
    fillDaemon();
    client = Client();
    client.requests = requestsIn(input, std::string_view::npos);
    const std::vector<FcgiRequest> by_bytes = requestsIn(input, 1);
    MUST(by_bytes.size() == client.requests.size());
    for (size_t i = 0; i < by_bytes.size(); ++i) {
        MUST(same(by_bytes[i], client.requests[i]));
        checkRequest(by_bytes[i]);
    }
    Requests requests;
    try {
        serveRequests(requests);
    } catch (const EndOfRequests&) {
    }
    MUST(client.served == client.requests.size());
    fuzz::sendWaitingSms();
    MUST(fuzz::world.to_modem.size() == 2 * client.messages);
}
