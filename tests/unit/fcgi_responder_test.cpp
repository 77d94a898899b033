#include "alarmd/requests/fcgi_responder.h"

#include <fcgiapp.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <fstream>
#include <memory>
#include <thread>

#include "alarmd/alarmd.h"
#include "alarmd/requests/answers.h"
#include "alarmd/sms/driver.h"
#include "tests/support/fcgi_client.h"
#include "tests/support/project_files.h"

namespace {

using std::chrono::steady_clock;

constexpr char kDisabled[] = "\n{\"r\":55,\"s\":1}\n";
constexpr char kNoAnswer[] = "";
constexpr char kSmsAccepted[] = "\n{\"s\":1,\"r\":50}\n";
constexpr char kSmsQueueFull[] = "\n{\"r\":50,\"s\":0,\"err\":\"SMS queue is full\"}\n";
constexpr char kParseFailure[] = "\n{\"s\":0, \"err\":\"Failed to parse JSON\"}";

// A responder on a port of its own; its log is captured.
class FcgiResponderTest : public testing::Test {
  protected:
    FcgiResponderTest() {
        resetDaemonState();
        FCGX_Init();
        EXPECT_EQ(gate_.listenOn(0), 0);
        testing::internal::CaptureStdout();
        thread_ = std::thread([this] {
            serveRequests(gate_);
            ended_ = true;
        });
    }
    ~FcgiResponderTest() override {
        stop();
        resetDaemonState();
    }

    int port() const { return gate_.listeningPort(); }

    fcgi::Response ask(std::string_view body) const { return fcgi::ask(port(), body); }

    // Ends the responder, which takes one more request unless it is just about to look at konec. Returns all
    // that was printed.
    std::string stop() {
        if (!thread_.joinable()) return "";
        konec = true;
        const fcgi::Client last(port());
        last.say(fcgi::request(R"({"t":56})"));
        thread_.join();
        return testing::internal::GetCapturedStdout();
    }

    FcgiGate gate_{kLongestRequest};
    std::atomic<bool> ended_{false};
    std::thread thread_;
};

std::string logOf(const std::string& query, const std::string& decoded) {
    return "FCGI: QUERY_STRING: " + query + " , URI: /alarmd\nFCGI: QUERY_STRING after decode: " + decoded +
           " \n";
}

double secondsSince(steady_clock::time_point start) {
    return std::chrono::duration<double>(steady_clock::now() - start).count();
}

TEST_F(FcgiResponderTest, AnAnswerIsABareLineFeedAndTheBody) {
    const fcgi::Response response = ask(R"({"t":55})");
    EXPECT_EQ(response.out, kDisabled);
    EXPECT_EQ(response.err, "");
    EXPECT_TRUE(response.ended);
    EXPECT_TRUE(response.complete);
    EXPECT_TRUE(disable_notification);
    EXPECT_EQ(ask(R"({"t":56})").out, "\n{\"r\":56,\"s\":1}\n");
    EXPECT_FALSE(disable_notification);
    EXPECT_EQ(stop(), logOf("", "") +
                          "POST DATA: {\"t\":55}\nRequest protocol 55 (Disable notification)\n"
                          "Response: {\"r\":55,\"s\":1}\n\n" +
                          logOf("", "") +
                          "POST DATA: {\"t\":56}\nRequest protocol 56 (Enable notification)\n"
                          "Response: {\"r\":56,\"s\":1}\n\nKoncim vlakno FCGI.\n");
}

TEST_F(FcgiResponderTest, AStopTakesEffectWithTheNextRequestWhichIsNotRun) {
    usleep(100000);  // for the responder to wait
    konec = true;
    const fcgi::Client silent(port());
    usleep(100000);
    EXPECT_FALSE(ended_);
    const fcgi::Response response = ask(R"({"t":55})");
    EXPECT_TRUE(response.ended);
    EXPECT_EQ(response.out, kNoAnswer);
    EXPECT_EQ(stop(), "Koncim vlakno FCGI.\n");
    EXPECT_FALSE(disable_notification);
}

TEST_F(FcgiResponderTest, AnSmsIsQueuedInTheDaemonsName) {
    EXPECT_EQ(ask(R"({"t":50,"number":"+420603123456","text":"%n%s%x"})").out, "\n{\"s\":1,\"r\":50}\n");
    _sms_raw message;
    ASSERT_TRUE(fronta_sms_raw.take(message));
    EXPECT_EQ(message.number, "+420603123456");
    EXPECT_EQ(message.text, "%n%s%x");
    EXPECT_EQ(message.from_ip, "127.0.0.1");
    EXPECT_EQ(message.from_port, -1);
    EXPECT_TRUE(fronta_sms_raw.empty());
}

TEST_F(FcgiResponderTest, TheDaemonsStateIsTold) {
    sms_counter = 7;
    gps_enable = true;
    {
        MutexLock lock(last_sms_mutex);
        last_sms = {12, "+420", "text"};
    }
    {
        MutexLock lock(gps_mutex);
        gps_data.GPGGA = "$GPGGA*56";
        gps_data.GPGSA = "$GPGSA,x*16";
        gps_data.GPRMC = "$GPRMC*4B";
        gps_data.GPVTG = "$GPVTG*52";
    }
    EXPECT_NE(ask(R"({"t":51})").out.find("\"SMSCOUNT\":\"7\""), std::string::npos);
    EXPECT_EQ(ask(R"({"t":52})").out,
              "\n{\"r\":52,\"s\":1,\"d\":{\"GGA\":\"$GPGGA*56\",\"GSA\":\"$GPGSA,x*16\",\"RMC\":"
              "\"$GPRMC*4B\",\"VTG\":\"$GPVTG*52\",\"GSV\":[]}}\n");
    EXPECT_EQ(ask(R"({"t":54})").out,
              "\n{\"r\":54,\"s\":1,\"d\":{\"Timestamp\":12,\"From\":\"+420\",\"Text\":\"text\"}}\n");
    EXPECT_EQ(
        ask(R"({"t":53})").out,
        "\n{\"r\":53,\"s\":1,\"d\":{\"GGA\":\"\",\"GSA\":\"x\",\"RMC\":\"\",\"VTG\":\"\",\"GSV\":\"\"}}\n");
    MutexLock lock(gps_mutex);
    EXPECT_EQ(gps_data_parse.GPGSA, "x");
}

TEST_F(FcgiResponderTest, AnSmsBeyondAThousandIsRefusedAndNoneIsLost) {
    const fcgi::Client client(port());
    const auto askFor = [&](int number) {
        client.say(fcgi::request(R"({"t":50,"text":"x","number":")" + std::to_string(number) + "\"}", true));
        return client.hear().out;
    };
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(askFor(i), kSmsAccepted) << i;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(askFor(1000 + i), kSmsQueueFull);
    EXPECT_EQ(fronta_sms_raw.size(), 1000);
    _sms_raw message;
    ASSERT_TRUE(fronta_sms_raw.take(message));
    EXPECT_EQ(message.number, "0");
    EXPECT_EQ(askFor(1000), kSmsAccepted);
    EXPECT_EQ(askFor(1003), kSmsQueueFull);
    for (int i = 1; i <= 1000; ++i) {
        ASSERT_TRUE(fronta_sms_raw.take(message));
        ASSERT_EQ(message.number, std::to_string(i));
    }
    EXPECT_TRUE(fronta_sms_raw.empty());
    EXPECT_NE(stop().find("\"1003\"}\nFCGI Request protocol 50 (Send SMS)\n"), std::string::npos);
}

TEST_F(FcgiResponderTest, SmsBeyondFourMebibytesAreRefusedAndNoneIsLost) {
    const std::string text(1000000, 'x');
    const std::string long_one = R"({"t":50,"number":"1","text":")" + text + "\"}";
    // Number, text and address count.
    const size_t left = size_t{4} * 1024 * 1024 - 4 * (1 + text.size() + ip.size());
    const auto ofBytes = [&](size_t bytes) {
        return R"({"t":50,"text":")" + std::string(bytes - ip.size(), 'y') + "\"}";
    };
    for (int i = 0; i < 4; ++i) EXPECT_EQ(ask(long_one).out, kSmsAccepted);
    EXPECT_EQ(ask(long_one).out, kSmsQueueFull);
    EXPECT_EQ(ask(ofBytes(left + 1)).out, kSmsQueueFull);
    EXPECT_EQ(ask(ofBytes(left)).out, kSmsAccepted);
    EXPECT_EQ(ask(R"({"t":50})").out, kSmsQueueFull);
    EXPECT_EQ(fronta_sms_raw.size(), 5);
    _sms_raw message;
    ASSERT_TRUE(fronta_sms_raw.take(message));
    EXPECT_EQ(message.text, text);
    EXPECT_EQ(ask(long_one).out, kSmsAccepted);
}

TEST_F(FcgiResponderTest, TheQueryIsDecodedAndOnlyPrinted) {
    const fcgi::Client client(port());
    client.say(fcgi::begin() + fcgi::stream(fcgi::kParams, fcgi::params(0, "a=%41+%zz&%s%n")));
    EXPECT_EQ(fcgi::parse(client.hearAll()).out, kNoAnswer);
    EXPECT_EQ(stop(), logOf("a=%41+%zz&%s%n", "a=A z&") + "Koncim vlakno FCGI.\n");
}

TEST_F(FcgiResponderTest, ARequestWithoutBodyGetsNoContentAtAll) {
    const fcgi::Response response = ask("");
    EXPECT_EQ(response.out, kNoAnswer);
    EXPECT_TRUE(response.ended);
    // No length is a length of 0, and a body that comes nevertheless is not read.
    for (const char* value : {"", "0", "-1", "abc"}) {
        const fcgi::Client client(port());
        client.say(fcgi::begin() + fcgi::stream(fcgi::kParams, fcgi::pair("CONTENT_LENGTH", value)) +
                   fcgi::stream(fcgi::kStdin, R"({"t":55})"));
        EXPECT_EQ(fcgi::parse(client.hearAll()).out, kNoAnswer) << value;
    }
    const fcgi::Client client(port());
    client.say(fcgi::begin() + fcgi::stream(fcgi::kParams, "") + fcgi::stream(fcgi::kStdin, R"({"t":55})"));
    EXPECT_TRUE(client.hear().ended);
    EXPECT_FALSE(disable_notification);
    EXPECT_EQ(stop().find("POST DATA"), std::string::npos);
}

TEST_F(FcgiResponderTest, AnUnknownProtocolGetsNoContentAtAll) {
    EXPECT_EQ(ask(R"({"t":57})").out, kNoAnswer);
    EXPECT_EQ(ask("{}").out, kNoAnswer);
}

TEST_F(FcgiResponderTest, ABodyThatIsNoJsonGetsTheParseFailure) {
    EXPECT_EQ(ask("not json").out, kParseFailure);
    EXPECT_EQ(ask(R"({"t":"55"})").out, kParseFailure);
    EXPECT_EQ(
        stop(),
        logOf("", "") +
            "POST DATA: not json\nFailed to parse JSON\n* Line 1, Column 1\n  Syntax error: value, object "
            "or array expected.\n\n" +
            logOf("", "") + "POST DATA: {\"t\":\"55\"}\nFailed to parse JSON\n* \"t\" is no integer\n\n" +
            "Koncim vlakno FCGI.\n");
}

TEST_F(FcgiResponderTest, ABodyOfOneMebibyteIsReadAndALongerOneNot) {
    std::string body = R"({"t":55})";
    body.resize(kLongestRequest, ' ');
    EXPECT_EQ(ask(body).out, kDisabled);
    body += ' ';
    EXPECT_EQ(ask(body).out, kParseFailure);
    body.resize(8 * kLongestRequest, ' ');
    EXPECT_EQ(ask(body).out, kParseFailure);
    EXPECT_EQ(ask(R"({"t":55})").out, kDisabled);
}

TEST_F(FcgiResponderTest, TheLengthOnlyTellsThatThereIsABody) {
    const std::string body = R"({"t":55})";
    for (const char* length : {"1", "8", "2000000", "99999999999999999999999"}) {
        const fcgi::Client client(port());
        client.say(fcgi::begin() + fcgi::stream(fcgi::kParams, fcgi::pair("CONTENT_LENGTH", length)) +
                   fcgi::stream(fcgi::kStdin, body, 3));
        EXPECT_EQ(fcgi::parse(client.hearAll()).out, kDisabled) << length;
    }
}

TEST_F(FcgiResponderTest, TooLongABodyIsAnsweredWhetherItsRestComesOrNot) {
    const std::string begun = fcgi::begin(true) + fcgi::stream(fcgi::kParams, fcgi::params(1));
    const std::string more = fcgi::record(fcgi::kStdin, std::string(60000, 'x'));
    const auto too_long = [&](const fcgi::Client& client) {
        client.say(begun);
        for (size_t sent = 0; sent <= kLongestRequest; sent += 60000) client.say(more);
    };
    const fcgi::Client waiting(port());
    too_long(waiting);
    EXPECT_EQ(waiting.hear().out, kParseFailure);
    // Its connection is not kept, but what comes late does not break it either.
    EXPECT_TRUE(waiting.closedWithin(5000));
    const fcgi::Client going_on(port());
    too_long(going_on);
    for (int i = 0; i < 100; ++i) EXPECT_TRUE(going_on.say(more));
    EXPECT_TRUE(going_on.say(fcgi::record(fcgi::kStdin, "")));
    EXPECT_EQ(fcgi::parse(going_on.hearAll()).out, kParseFailure);
    EXPECT_EQ(ask(R"({"t":55})").out, kDisabled);
}

TEST_F(FcgiResponderTest, ManyParametersAreNoTrouble) {
    std::string params = fcgi::params(8);
    while (params.size() < 60000) params += fcgi::pair("HTTP_X_FILE", std::string(500, '%'));
    for (int i = 0; i < 3; ++i) {
        const fcgi::Client client(port());
        client.say(fcgi::begin() + fcgi::stream(fcgi::kParams, params, 1000, 7) +
                   fcgi::stream(fcgi::kStdin, R"({"t":55})"));
        EXPECT_EQ(fcgi::parse(client.hearAll()).out, kDisabled);
        const fcgi::Client bodiless(port());
        bodiless.say(fcgi::begin() +
                     fcgi::stream(fcgi::kParams, params.substr(fcgi::pair("CONTENT_LENGTH", "8").size())) +
                     fcgi::stream(fcgi::kStdin, ""));
        EXPECT_EQ(fcgi::parse(bodiless.hearAll()).out, kNoAnswer);
    }
}

TEST_F(FcgiResponderTest, AConnectionThatIsToBeKeptServesRequestAfterRequest) {
    const fcgi::Client client(port());
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(client.say(fcgi::request(i % 2 == 0 ? R"({"t":55})" : R"({"t":56})", true)));
        const fcgi::Response response = client.hear();
        ASSERT_TRUE(response.ended);
        EXPECT_EQ(response.out, i % 2 == 0 ? kDisabled : "\n{\"r\":56,\"s\":1}\n");
    }
    // It keeps nobody else out, and goes when it is not asked for again.
    EXPECT_EQ(ask(R"({"t":55})").out, kDisabled);
    client.say(fcgi::request(R"({"t":56})"));
    EXPECT_EQ(fcgi::parse(client.hearAll()).out, "\n{\"r\":56,\"s\":1}\n");
}

TEST_F(FcgiResponderTest, FiftyClientsAtOnceAreAllAnswered) {
    std::vector<fcgi::Client> clients;
    for (int i = 0; i < 50; ++i) clients.emplace_back(port());
    for (const fcgi::Client& client : clients)
        client.say(fcgi::request(R"({"t":50,"number":"1","text":"x"})"));
    for (const fcgi::Client& client : clients) {
        EXPECT_EQ(fcgi::parse(client.hearAll()).out, "\n{\"s\":1,\"r\":50}\n");
    }
    EXPECT_EQ(fronta_sms_raw.size(), 50);
}

TEST_F(FcgiResponderTest, TenThousandRequestsInARowLeaveNothingBehind) {
    const auto descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                             std::filesystem::directory_iterator());
    };
    EXPECT_EQ(ask(R"({"t":55})").out, kDisabled);
    const auto before = descriptors();
    for (int i = 0; i < 10000; ++i) {
        const fcgi::Client client(port());
        client.say(fcgi::request(R"({"t":55})"));
        ASSERT_EQ(fcgi::parse(client.hearAll()).out, kDisabled) << i;
    }
    EXPECT_EQ(ask(R"({"t":55})").out, kDisabled);
    EXPECT_LE(descriptors(), before + 1);
}

TEST_F(FcgiResponderTest, GarbageEndsItsConnectionAndNothingElse) {
    const std::string names = [] {
        std::string pairs;
        for (int i = 0; i < 100; ++i) pairs += fcgi::pair("FCGI_MPXS_CONNS", "");
        return pairs;
    }();
    for (const std::string& garbage :
         {binaryBytes(), std::string(100000, '\0'), std::string(100000, '\1'),
          std::string("GET / HTTP/1.1\r\n\r\n"), fcgi::record(fcgi::kGetValues, names, 0),
          fcgi::begin() + fcgi::record(fcgi::kGetValues, names, 0),
          fcgi::begin() + fcgi::stream(fcgi::kParams, fcgi::params(8)) +
              fcgi::record(fcgi::kGetValues, names, 0),
          fcgi::begin() +
              fcgi::stream(fcgi::kParams, std::string("\xff\xff\xff\xfe\xff\xff\xff\xfe", 8) + "name")}) {
        const fcgi::Client client(port());
        client.say(garbage);
        EXPECT_TRUE(client.closedWithin(5000));
    }
    EXPECT_EQ(ask(R"({"t":55})").out, kDisabled);
}

TEST_F(FcgiResponderTest, AClientThatLeavesInTheMiddleHasAskedNothing) {
    const std::string request = fcgi::request(R"({"t":55})");
    for (size_t length = 0; length + 8 < request.size(); ++length) {
        const fcgi::Client client(port());
        client.say(request.substr(0, length));
    }
    {
        const fcgi::Client client(port());
        client.say(fcgi::begin() + fcgi::stream(fcgi::kParams, fcgi::params(100)) +
                   fcgi::record(fcgi::kStdin, R"({"t":55})"));
    }
    EXPECT_EQ(ask("{}").out, kNoAnswer);
    EXPECT_FALSE(disable_notification);
    EXPECT_EQ(stop().find("t\":55"), std::string::npos);
}

TEST_F(FcgiResponderTest, AClientThatDoesNotWaitForItsAnswerHasAskedAllTheSame) {
    for (int i = 0; i < 100; ++i) {
        const fcgi::Client client(port());
        client.say(fcgi::request(R"({"t":50,"number":"1","text":"x"})"));
    }
    EXPECT_EQ(ask(R"({"t":55})").out, kDisabled);
    EXPECT_EQ(fronta_sms_raw.size(), 100);
}

TEST_F(FcgiResponderTest, ClientsThatSayNothingKeepNobodyWaiting) {
    std::vector<fcgi::Client> silent;
    for (int i = 0; i < 50; ++i) silent.emplace_back(port());
    for (size_t i = 0; i < 25; ++i) silent[i].say(fcgi::request(R"({"t":55})").substr(0, 4 * i));
    const auto start = steady_clock::now();
    EXPECT_EQ(ask(R"({"t":55})").out, kDisabled);
    EXPECT_LT(secondsSince(start), 5);
    // Nor do they stay for ever, even when they go on byte by byte.
    const std::string endless = fcgi::begin() + fcgi::record(fcgi::kParams, std::string(1000, 'x'));
    const fcgi::Client slow(port());
    bool open = true;
    for (size_t i = 0; i < endless.size() && open && secondsSince(start) < 30; ++i) {
        slow.say(endless.substr(i, 1));
        open = !slow.closedWithin(100);
    }
    EXPECT_FALSE(open);
    EXPECT_GT(secondsSince(start), 8);
    for (const fcgi::Client& client : silent) EXPECT_TRUE(client.closedWithin(1000));
}

TEST_F(FcgiResponderTest, ClientsBeyondTheMostThatAreServedAtOnceComeInTurn) {
    std::vector<fcgi::Client> leaving;
    std::vector<fcgi::Client> staying;
    for (int i = 0; i < 100; ++i) leaving.emplace_back(port());
    for (int i = 0; i < 100; ++i) staying.emplace_back(port());
    leaving.clear();
    const auto start = steady_clock::now();
    EXPECT_EQ(ask(R"({"t":55})").out, kDisabled);
    EXPECT_LT(secondsSince(start), 10);
}

// Says the next piece of its bytes, in a circle, once a second.
struct Lingering {
    const char* name;
    fcgi::Client client;
    std::string bytes;
    size_t piece;
    double closed_after = 0;

    void sayPiece(size_t second) const { client.say(bytes.substr(second * piece % bytes.size(), piece)); }
};

TEST_F(FcgiResponderTest, OnlyABegunRequestRenewsTheLimitOfItsConnection) {
    const std::string abort = fcgi::record(fcgi::kAbort, "");
    const std::string late_body = fcgi::record(fcgi::kStdin, "late");
    const auto start = steady_clock::now();
    std::vector<Lingering> lingering;
    lingering.push_back({"aborts", fcgi::Client(port()), abort, abort.size()});
    lingering.push_back({"aborts byte by byte", fcgi::Client(port()), abort, 1});
    lingering.push_back({"late bodies", fcgi::Client(port()), late_body, late_body.size()});
    lingering.push_back({"aborts behind an answer", fcgi::Client(port()), abort, abort.size()});
    lingering.back().client.say(fcgi::request(R"({"t":56})", true));
    EXPECT_TRUE(lingering.back().client.hear().ended);
    const fcgi::Client begun_late(port());
    const auto open = [](const Lingering& each) { return each.closed_after == 0; };
    for (size_t second = 0; second < 25 && std::any_of(lingering.begin(), lingering.end(), open); ++second) {
        if (second == 6) begun_late.say(fcgi::begin());
        for (Lingering& each : lingering) {
            if (!open(each)) continue;
            each.sayPiece(second);
            if (each.client.closedWithin(0)) each.closed_after = secondsSince(start);
        }
        usleep(1000000);
    }
    for (const Lingering& each : lingering) {
        EXPECT_GT(each.closed_after, 8) << each.name;
        EXPECT_LT(each.closed_after, 16) << each.name;
    }
    EXPECT_GT(secondsSince(start), 10);
    begun_late.say(fcgi::request(R"({"t":55})").substr(fcgi::begin().size()));
    EXPECT_EQ(fcgi::parse(begun_late.hearAll()).out, kDisabled);
}

// All places taken.
class FullFcgiResponderTest : public FcgiResponderTest {
  protected:
    static constexpr size_t kPlaces = 128;

    // The limits of the first ones are still to come.
    ~FullFcgiResponderTest() override { EXPECT_LT(secondsSince(start_), 9); }

    const fcgi::Client& come() {
        clients_.emplace_back(port());
        return clients_.back();
    }
    const fcgi::Client& comeAndAsk() {
        askAgain(come());
        return clients_.back();
    }
    static void askAgain(const fcgi::Client& client) {
        client.say(fcgi::request(R"({"t":56})", true));
        EXPECT_TRUE(client.hear().ended);
    }
    void expectGone(size_t i) const { EXPECT_TRUE(clients_[i].closedWithin(5000)) << i; }
    void expectThere(std::initializer_list<size_t> some) const {
        for (const size_t i : some) EXPECT_FALSE(clients_[i].closedWithin(20)) << i;
    }

    std::deque<fcgi::Client> clients_;  // in the order of their coming

  private:
    const steady_clock::time_point start_ = steady_clock::now();
};

TEST_F(FullFcgiResponderTest, TheKeptConnectionThatIsIdleForLongestGoes) {
    come();  // and never asks
    while (clients_.size() < kPlaces) comeAndAsk();
    askAgain(clients_[1]);
    clients_[2].say(fcgi::begin().substr(0, 7));
    clients_[3].say(fcgi::begin());
    comeAndAsk();
    expectGone(2);
    comeAndAsk();
    expectGone(4);
    expectThere({0, 1, 3, 5, 6, kPlaces - 1, kPlaces, kPlaces + 1});
    clients_[3].say(fcgi::request(R"({"t":55})").substr(fcgi::begin().size()));
    EXPECT_EQ(clients_[3].hear().out, kDisabled);
}

TEST_F(FullFcgiResponderTest, WithoutAKeptConnectionWhoNeverBeganForLongestGoes) {
    while (clients_.size() < kPlaces) come();
    clients_[0].say(fcgi::record(fcgi::kAbort, ""));
    clients_[1].say(fcgi::begin());
    clients_[2].say(fcgi::begin().substr(0, 7));
    come();
    expectGone(0);
    come();
    expectGone(2);
    EXPECT_EQ(ask(R"({"t":55})").out, kDisabled);
    expectGone(3);
    expectThere({1, 4, 5, kPlaces - 1, kPlaces, kPlaces + 1});
}

TEST_F(FullFcgiResponderTest, WhoHasBegunARequestStaysAndOthersWait) {
    while (clients_.size() < kPlaces) come().say(fcgi::begin());
    const fcgi::Client waiting(port());
    waiting.say(fcgi::request(R"({"t":55})"));
    pollfd event{waiting.descriptor(), POLLIN, 0};
    EXPECT_EQ(poll(&event, 1, 300), 0);
    expectThere({0, 1, kPlaces - 1});
    clients_.pop_front();
    EXPECT_EQ(waiting.hear().out, kDisabled);
    expectThere({0, 1, kPlaces - 2});
}

TEST_F(FullFcgiResponderTest, AThousandThatSayNothingKeepNobodyOut) {
    for (int round = 0; round < 10; ++round) {
        for (int i = 0; i < 100; ++i) come();
        EXPECT_EQ(ask(R"({"t":55})").out, kDisabled);
    }
}

TEST_F(FcgiResponderTest, AClientThatNeverReadsKeepsNobodyWaiting) {
    gps_enable = true;
    {
        MutexLock lock(gps_mutex);
        for (std::string& sentence : gps_data.GPGSV) sentence.assign(1000, '%').push_back('s');
        gps_data.GPGSV_count = 31;
    }
    const fcgi::Client client(port());
    const std::string requests = [] {
        std::string bytes;
        for (int i = 0; i < 20; ++i) bytes += fcgi::request(R"({"t":52})", true);
        return bytes;
    }();
    const int small = 4096;
    setsockopt(client.descriptor(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    for (int i = 0; i < 5; ++i) client.say(requests);
    EXPECT_EQ(ask(R"({"t":55})").out, kDisabled);
    EXPECT_EQ(ask(R"({"t":55})").out, kDisabled);
}

TEST_F(FcgiResponderTest, TheLongestAnswerArrivesWhole) {
    gps_enable = true;
    {
        MutexLock lock(gps_mutex);
        for (std::string& sentence : gps_data.GPGSV) sentence = std::string(1000, 'x');
        gps_data.GPGSV[31] = "%s" + std::string(1000, 'x');
        gps_data.GPGSV_count = 31;
    }
    for (int i = 0; i < 3; ++i) {
        const fcgi::Response response = ask(R"({"t":52})");
        EXPECT_TRUE(response.complete);
        EXPECT_GT(response.out.size(), 2 * 31000U);
        EXPECT_TRUE(response.out.ends_with("\"]}}\n"));
    }
}

TEST_F(FcgiResponderTest, ItLivesThroughAProcessWithoutFreeDescriptors) {
    const fcgi::Client early(port());
    early.say(fcgi::begin());
    EXPECT_EQ(ask(R"({"t":56})").out, "\n{\"r\":56,\"s\":1}\n");
    const fcgi::Client client(port());
    std::vector<std::unique_ptr<Descriptor>> taken;
    int descriptor;
    while ((descriptor = dup(0)) >= 0) taken.push_back(std::make_unique<Descriptor>(descriptor));
    client.say(fcgi::request(R"({"t":55})"));
    early.say(fcgi::stream(fcgi::kParams, fcgi::params(8)) + fcgi::stream(fcgi::kStdin, R"({"t":55})"));
    EXPECT_EQ(fcgi::parse(early.hearAll()).out, kDisabled);
    taken.clear();
    EXPECT_EQ(fcgi::parse(client.hearAll()).out, kDisabled);
}

// The reference client of the library's own makers.
std::string cgiFcgi(int to_port, const std::string& body) {
    const TempFolder folder;
    const std::string input = folder.write("body", body);
    const std::string command =
        "env -i PATH=\"$PATH\" REQUEST_METHOD=POST QUERY_STRING=a=1 REQUEST_URI=/alarmd CONTENT_LENGTH=" +
        std::to_string(body.size()) + " cgi-fcgi -bind -connect 127.0.0.1:" + std::to_string(to_port) + " <" +
        input;
    std::string out;
    FILE* const pipe = popen(command.c_str(), "r");
    char block[4096];
    size_t count;
    while ((count = fread(block, 1, sizeof block, pipe)) > 0) out.append(block, count);
    pclose(pipe);
    return out;
}

TEST_F(FcgiResponderTest, CgiFcgiGetsItsAnswers) {
    if (system("command -v cgi-fcgi >/dev/null") != 0) GTEST_SKIP() << "cgi-fcgi is not installed";
    EXPECT_EQ(cgiFcgi(port(), R"({"t":55})"), kDisabled);
    EXPECT_TRUE(disable_notification);
    EXPECT_EQ(cgiFcgi(port(), R"({"t":50,"number":"1","text":"x"})"), "\n{\"s\":1,\"r\":50}\n");
    EXPECT_EQ(cgiFcgi(port(), R"({"t":52})"), "\n{\"r\":52,\"s\":0,\"err\":\"GPS disabled\"}\n");
    EXPECT_EQ(cgiFcgi(port(), "not json"), kParseFailure);
    EXPECT_EQ(cgiFcgi(port(), ""), kNoAnswer);
    EXPECT_EQ(cgiFcgi(port(), R"({"t":99})"), kNoAnswer);
    EXPECT_EQ(cgiFcgi(port(), std::string(200000, ' ') + R"({"t":56})"), "\n{\"r\":56,\"s\":1}\n");
}

// The daemon's own thread, on its own port: for a machine, or a network namespace, where that is free.
bool portIsFree() {
    FcgiGate gate(kLongestRequest);
    return gate.listenOn(kFcgiPort) == 0;
}

class FcgiThreadTest : public testing::Test {
  protected:
    FcgiThreadTest() { resetDaemonState(); }
    ~FcgiThreadTest() override { resetDaemonState(); }

    static bool answers() {
        try {
            return fcgi::ask(kFcgiPort, R"({"t":55})").ended;
        } catch (const std::runtime_error&) {
            return false;
        }
    }
    // Does nothing when the thread has gone already.
    static void oneMoreRequest() {
        try {
            const fcgi::Client client(kFcgiPort);
            client.say(fcgi::request(R"({"t":56})"));
            client.hear();
        } catch (const std::runtime_error&) {
        }
    }
    static void waitUntilItAnswers() {
        for (int look = 0; look < 1000 && !answers(); ++look) usleep(10000);
    }
};

TEST_F(FcgiThreadTest, TheThreadServesItsPortAndEndsWithTheFirstRequestAfterTheStop) {
    if (!portIsFree()) GTEST_SKIP() << "port " << kFcgiPort << " is taken on this machine";
    const Output output = outputOf([] {
        MyThreadFCGI thread;
        thread.NastavUkonceni(&konec);
        thread.Start(0);
        waitUntilItAnswers();
        konec = true;
        oneMoreRequest();
        thread.Stop();
    });
    EXPECT_EQ(output.out, "Starting FCGI thread.\n" + logOf("", "") +
                              "POST DATA: {\"t\":55}\nRequest protocol 55 (Disable notification)\n"
                              "Response: {\"r\":55,\"s\":1}\n\nKoncim vlakno FCGI.\n");
    EXPECT_EQ(output.err, "");
}

TEST_F(FcgiThreadTest, APortThatIsTakenIsToldOnceAndTriedAgain) {
    auto other = std::make_unique<FcgiGate>(kLongestRequest);
    if (other->listenOn(kFcgiPort) != 0) GTEST_SKIP() << "port " << kFcgiPort << " is taken on this machine";
    const Output output = outputOf([&] {
        MyThreadFCGI thread;
        thread.Start(0);
        usleep(1500000);
        other.reset();
        waitUntilItAnswers();
        konec = true;
        oneMoreRequest();
        thread.Stop();
    });
    EXPECT_EQ(output.err,
              "alarmd: no FastCGI requests are answered: 127.0.0.1:11032: Address already in use; trying "
              "again every "
              "second\nalarmd: FastCGI requests are answered on 127.0.0.1:11032\n");
}

TEST_F(FcgiThreadTest, AStopEndsTheThreadThatWaitsForItsPort) {
    FcgiGate other(kLongestRequest);
    if (other.listenOn(kFcgiPort) != 0) GTEST_SKIP() << "port " << kFcgiPort << " is taken on this machine";
    const Output output = outputOf([] {
        MyThreadFCGI thread;
        thread.Start(0);
        konec = true;
        thread.Stop();
    });
    EXPECT_EQ(output.out, "Starting FCGI thread.\nKoncim vlakno FCGI.\n");
}

}  // namespace
