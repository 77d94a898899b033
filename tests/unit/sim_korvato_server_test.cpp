// The simulated server against a real HTTPS client.
#include <arpa/inet.h>
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include "sim/server/korvato_server.h"
#include "sim/server/server_events.h"
#include "sim/support/scenario.h"

namespace {

using sim::AlarmChange;
using sim::Behaviour;
using sim::KorvatoServer;
using sim::TcpPort;

constexpr const char* kAll = "t=30&prj=7&start=0.0&limit=10000";

// One client, whose connection is kept from request to request.
class HttpsClient {
  public:
    explicit HttpsClient(const KorvatoServer& server)
        : url_("https://127.0.0.1:" + std::to_string(server.httpsPort()) + "/r.fcgi") {
        curl_easy_setopt(curl_, CURLOPT_SSL_VERIFYHOST, 0L);
        curl_easy_setopt(curl_, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, write);
        curl_easy_setopt(curl_, CURLOPT_WRITEDATA, this);
        curl_easy_setopt(curl_, CURLOPT_URL, url_.c_str());
        curl_easy_setopt(curl_, CURLOPT_NOSIGNAL, 1L);
    }
    ~HttpsClient() { curl_easy_cleanup(curl_); }
    HttpsClient(const HttpsClient&) = delete;
    HttpsClient& operator=(const HttpsClient&) = delete;

    CURLcode post(const std::string& body, long timeout_ms = 20000) {
        answer.clear();
        curl_easy_setopt(curl_, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
        curl_easy_setopt(curl_, CURLOPT_COPYPOSTFIELDS, body.c_str());
        curl_easy_setopt(curl_, CURLOPT_TIMEOUT_MS, timeout_ms);
        const CURLcode result = curl_easy_perform(curl_);
        curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &status);
        return result;
    }

    void followRedirects(long most) {
        curl_easy_setopt(curl_, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(curl_, CURLOPT_MAXREDIRS, most);
    }

    std::string answer;
    long status = 0;

  private:
    static size_t write(char* data, size_t size, size_t count, void* self) {
        static_cast<HttpsClient*>(self)->answer.append(data, size * count);
        return size * count;
    }

    const std::string url_;
    CURL* const curl_ = curl_easy_init();
};

// A connection to the local TCP port.
class TcpClient {
  public:
    explicit TcpClient(int port) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<uint16_t>(port));
        connected = connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        error = connected ? 0 : errno;
    }

    void write(const std::string& text) const {
        ASSERT_EQ(send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    }

    // What comes until there are length bytes, the end or a reset ("reset"), or 20 s have passed.
    std::string read(size_t length) const {
        std::string text;
        while (text.size() < length) {
            pollfd polled{socket_.get(), POLLIN, 0};
            if (poll(&polled, 1, 20000) <= 0) return text + "(time-out)";
            char buffer[4096];
            const ssize_t got = recv(socket_.get(), buffer, sizeof buffer, 0);
            if (got < 0) return text + "(reset)";
            if (got == 0) return text + "(end)";
            text.append(buffer, static_cast<size_t>(got));
        }
        return text;
    }

    bool connected = false;
    int error = 0;

  private:
    const Descriptor socket_;
};

class KorvatoServerTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { curl_global_init(CURL_GLOBAL_ALL); }

    void behave(Behaviour::Mode mode) {
        Behaviour behaviour;
        behaviour.mode = mode;
        server.behave(behaviour);
    }

    void activate(int id) {
        AlarmChange change;
        change.id = id;
        change.state = AlarmChange::kActivated;
        server.change(change);
    }

    template <class Condition>
    static bool eventually(const Condition& condition) {
        for (int i = 0; i < 2000; ++i) {
            if (condition()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    sim::EventLog log;
    KorvatoServer server{{.https_port = 0, .tcp_port = 0, .project = "7"}, log};
};

TEST_F(KorvatoServerTest, AnswersTheHistory) {
    activate(12);
    HttpsClient client(server);
    ASSERT_EQ(client.post(kAll), CURLE_OK);
    EXPECT_EQ(client.status, 200);
    EXPECT_EQ(client.answer, server.history().answer({"7", 0, 10000}));
    EXPECT_NE(client.answer.find("\"id\":12"), std::string::npos);
}

TEST_F(KorvatoServerTest, KeepsTheConnectionAndRecordsTheRequests) {
    HttpsClient client(server);
    for (int i = 0; i < 8; ++i) ASSERT_EQ(client.post(kAll), CURLE_OK);
    HttpsClient other(server);
    ASSERT_EQ(other.post("t=30&prj=8&start=1.5&limit=3"), CURLE_OK);
    const auto polls = server.polls();
    ASSERT_EQ(polls.size(), 9u);
    EXPECT_EQ(server.pollCount(), 9u);
    EXPECT_EQ(polls[0].body, kAll);
    EXPECT_EQ(polls[0].method, "POST");
    EXPECT_EQ(polls[0].path, "/r.fcgi");
    EXPECT_EQ(polls[0].entries, 0);
    EXPECT_EQ(polls[0].connection, 1u);
    EXPECT_EQ(polls[7].connection, 1u);
    EXPECT_EQ(polls[8].connection, 2u);
    EXPECT_EQ(polls[8].body, "t=30&prj=8&start=1.5&limit=3");
    EXPECT_EQ(server.httpsConnections(), 2u);
    server.forgetRequests();
    EXPECT_TRUE(server.polls().empty());
}

TEST_F(KorvatoServerTest, RefusesWhatIsNoHistoryRequest) {
    HttpsClient client(server);
    ASSERT_EQ(client.post("hello"), CURLE_OK);
    EXPECT_EQ(client.status, 400);
    EXPECT_EQ(server.polls().at(0).entries, -1);
}

TEST_F(KorvatoServerTest, AnswersTenThousandEntries) {
    for (int i = 0; i < 10001; ++i) activate(i);
    HttpsClient client(server);
    ASSERT_EQ(client.post(kAll), CURLE_OK);
    EXPECT_EQ(server.polls().at(0).entries, 10000);
    EXPECT_GT(client.answer.size(), 1000000u);
}

TEST_F(KorvatoServerTest, AwayRefusesConnectionsOnBothPortsAndClosesTheStandingOnes) {
    HttpsClient client(server);
    ASSERT_EQ(client.post(kAll), CURLE_OK);
    const TcpClient tcp(server.tcpPort());
    ASSERT_TRUE(tcp.connected);
    behave(Behaviour::kAway);
    EXPECT_EQ(client.post(kAll), CURLE_COULDNT_CONNECT);
    EXPECT_EQ(tcp.read(1), "(end)");
    EXPECT_EQ(TcpClient(server.tcpPort()).error, ECONNREFUSED);
    behave(Behaviour::kNormal);
    EXPECT_EQ(client.post(kAll), CURLE_OK);
    EXPECT_TRUE(TcpClient(server.tcpPort()).connected);
    EXPECT_EQ(server.httpsConnections(), 2u);
    EXPECT_EQ(server.polls().back().connection, 2u);
}

TEST_F(KorvatoServerTest, SlowAnswersLate) {
    Behaviour behaviour;
    behaviour.mode = Behaviour::kSlow;
    behaviour.seconds = 0.3;
    server.behave(behaviour);
    HttpsClient client(server);
    EXPECT_EQ(client.post(kAll, 100), CURLE_OPERATION_TIMEDOUT);
    EXPECT_EQ(client.post(kAll), CURLE_OK);
    EXPECT_EQ(client.answer, "{\"d\":[]}");
}

TEST_F(KorvatoServerTest, HangTakesTheRequestAndNeverAnswers) {
    HttpsClient client(server);
    EXPECT_EQ(client.post(kAll), CURLE_OK);  // the connection stands, which may take longer than the 200 ms
    behave(Behaviour::kHang);
    EXPECT_EQ(client.post(kAll, 200), CURLE_OPERATION_TIMEDOUT);
    EXPECT_TRUE(eventually([&] { return server.pollCount() == 2; }));
    behave(Behaviour::kNormal);
    EXPECT_EQ(client.post(kAll), CURLE_OK);
}

TEST_F(KorvatoServerTest, AHangingRequestDoesNotKeepTheServerFromGoing) {
    behave(Behaviour::kHang);
    CURLcode result = CURLE_OK;
    std::thread hanging([&] { result = HttpsClient(server).post(kAll); });
    EXPECT_TRUE(eventually([&] { return server.pollCount() == 1; }));
    behave(Behaviour::kAway);
    hanging.join();
    EXPECT_NE(result, CURLE_OK);
}

TEST_F(KorvatoServerTest, DeafLetsConnectAndNoMore) {
    behave(Behaviour::kDeaf);
    EXPECT_TRUE(TcpClient(server.httpsPort()).connected);
    HttpsClient client(server);
    EXPECT_EQ(client.post(kAll, 200), CURLE_OPERATION_TIMEDOUT);
    EXPECT_EQ(server.pollCount(), 0u);
    behave(Behaviour::kNormal);
    EXPECT_EQ(client.post(kAll), CURLE_OK);
}

TEST_F(KorvatoServerTest, CutClosesInTheMiddleOfTheAnswer) {
    activate(12);
    behave(Behaviour::kCut);
    HttpsClient client(server);
    EXPECT_EQ(client.post(kAll), CURLE_PARTIAL_FILE);
    const std::string whole = server.history().answer({"7", 0, 10000});
    EXPECT_EQ(client.answer, whole.substr(0, whole.size() / 2));
    EXPECT_EQ(server.polls().at(0).entries, -1);
}

TEST_F(KorvatoServerTest, StatusAnswersAnHtmlPage) {
    Behaviour behaviour;
    behaviour.mode = Behaviour::kStatus;
    behaviour.status = 404;
    server.behave(behaviour);
    HttpsClient client(server);
    ASSERT_EQ(client.post(kAll), CURLE_OK);
    EXPECT_EQ(client.status, 404);
    EXPECT_EQ(client.answer.rfind("<html>", 0), 0u);
}

TEST_F(KorvatoServerTest, RawAnswersAnyBytes) {
    Behaviour behaviour;
    behaviour.mode = Behaviour::kRaw;
    behaviour.body = std::string("{\"d\":\0[]}\xFF", 10);
    server.behave(behaviour);
    HttpsClient client(server);
    ASSERT_EQ(client.post(kAll), CURLE_OK);
    EXPECT_EQ(client.answer, behaviour.body);
    behaviour.body.assign(5000000, 'x');
    server.behave(behaviour);
    ASSERT_EQ(client.post(kAll), CURLE_OK);
    EXPECT_EQ(client.answer.size(), 5000000u);
    EXPECT_EQ(server.polls().back().mode, "raw");
}

TEST_F(KorvatoServerTest, RedirectGoesInACircle) {
    behave(Behaviour::kRedirect);
    HttpsClient client(server);
    client.followRedirects(5);
    EXPECT_EQ(client.post(kAll), CURLE_TOO_MANY_REDIRECTS);
    EXPECT_EQ(server.pollCount(), 6u);
}

TEST_F(KorvatoServerTest, ResetIsSeenAsAReset) {
    behave(Behaviour::kReset);
    HttpsClient client(server);
    EXPECT_EQ(client.post(kAll), CURLE_RECV_ERROR);
    behave(Behaviour::kNormal);
    EXPECT_EQ(client.post(kAll), CURLE_OK);
}

TEST_F(KorvatoServerTest, AModeForSoManyRequestsEndsByItself) {
    Behaviour behaviour;
    behaviour.mode = Behaviour::kStatus;
    behaviour.status = 500;
    behaviour.times = 2;
    server.behave(behaviour);
    HttpsClient client(server);
    client.post(kAll);
    EXPECT_EQ(client.status, 500);
    client.post(kAll);
    EXPECT_EQ(client.status, 500);
    client.post(kAll);
    EXPECT_EQ(client.status, 200);
}

TEST_F(KorvatoServerTest, TwoServersDoNotShareAPort) {
    EXPECT_THROW(KorvatoServer({.https_port = server.httpsPort(), .tcp_port = 0, .project = "7"}, log),
                 std::runtime_error);
    EXPECT_THROW(KorvatoServer({.https_port = 0, .tcp_port = server.tcpPort(), .project = "7"}, log),
                 std::runtime_error);
}

// ---------------------------------------------------------------------------------------------------------------
// The local TCP port

TEST_F(KorvatoServerTest, AnAcknowledgeRequestAcknowledgesAnActiveAlarm) {
    activate(12);
    const TcpClient client(server.tcpPort());
    client.write("t=11&prj=7&id=12&userID=3&ackText=ACK_SMS");
    ASSERT_TRUE(eventually([&] { return server.history().size() == 2; }));
    const auto acks = server.acks();
    ASSERT_EQ(acks.size(), 1u);
    EXPECT_EQ(acks[0].request.raw, "t=11&prj=7&id=12&userID=3&ackText=ACK_SMS");
    EXPECT_EQ(acks[0].request.id, "12");
    EXPECT_EQ(acks[0].request.user, "3");
    EXPECT_TRUE(acks[0].done);
    const std::string answer = server.history().answer({"7", 0, 10});
    EXPECT_NE(answer.find("\"stat\":2,\"user\":\"3\""), std::string::npos) << answer;
}

TEST_F(KorvatoServerTest, AcknowledgeRequestsMayComeInPiecesAndTogether) {
    activate(12);
    activate(13);
    const TcpClient client(server.tcpPort());
    client.write("t=11&prj=7&id=1");
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    client.write("2&userID=3&ackText=ACK_SMSt=11&prj=7&id=13&userID=4&ackText=ACK_SMS\x03\r\n");
    ASSERT_TRUE(eventually([&] { return server.history().size() == 4; }));
    EXPECT_EQ(server.acks().size(), 2u);
}

TEST_F(KorvatoServerTest, AnAcknowledgeRequestThatCannotBeCarriedOutIsRecorded) {
    activate(12);
    const TcpClient client(server.tcpPort());
    client.write("t=11&prj=8&id=12&userID=3&ackText=ACK_SMS");
    client.write("t=11&prj=7&id=99&userID=3&ackText=ACK_SMS");
    client.write("t=11&prj=7&id=A&B=1&userID=3&ackText=ACK_SMS");
    client.write("garbage");
    ASSERT_TRUE(eventually([&] { return server.acks().size() == 4; }));
    const auto acks = server.acks();
    EXPECT_EQ(acks[0].reason, "another project");
    EXPECT_EQ(acks[1].reason, "the alarm is not active");
    EXPECT_EQ(acks[2].reason, "no alarm id");
    EXPECT_EQ(acks[2].request.id, "A&B=1");
    EXPECT_EQ(acks[3].reason, "not understood");
    EXPECT_EQ(acks[3].request.raw, "garbage");
    EXPECT_EQ(server.history().size(), 1u);
}

TEST_F(KorvatoServerTest, AHalfRequestIsRecordedWhenItsClientGoes) {
    { TcpClient(server.tcpPort()).write("t=11&prj=7&id=12"); }
    ASSERT_TRUE(eventually([&] { return server.acks().size() == 1; }));
    EXPECT_EQ(server.acks()[0].request.raw, "t=11&prj=7&id=12");
    EXPECT_FALSE(server.acks()[0].request.understood);
}

TEST_F(KorvatoServerTest, PushesTextToTheClientsThatAreConnected) {
    EXPECT_EQ(server.tcp().push("nobody\n"), 0u);
    const TcpClient client(server.tcpPort());
    ASSERT_TRUE(eventually([&] { return server.tcp().connections() == 1; }));
    ASSERT_TRUE(eventually([&] { return server.tcp().push("{\"d\":[]}\n") == 1; }));
    EXPECT_EQ(client.read(9), "{\"d\":[]}\n");
}

TEST_F(KorvatoServerTest, GreetsEachClientEvenWithMegabytes) {
    server.tcp().greet(std::string(3000000, 'x'));
    const TcpClient client(server.tcpPort());
    EXPECT_EQ(client.read(3000000), std::string(3000000, 'x'));
}

TEST_F(KorvatoServerTest, ADeafTcpPortAcceptsAndNeverReads) {
    server.behaveTcp(TcpPort::Mode::kDeaf);
    const TcpClient client(server.tcpPort());
    ASSERT_TRUE(client.connected);
    client.write("t=11&prj=7&id=12&userID=3&ackText=ACK_SMS");
    ASSERT_TRUE(eventually([&] { return server.tcp().connections() == 1; }));
    EXPECT_TRUE(server.acks().empty());
    server.behaveTcp(TcpPort::Mode::kNormal);
    EXPECT_TRUE(eventually([&] { return server.acks().size() == 1; }));
}

TEST_F(KorvatoServerTest, AResettingTcpPortResets) {
    const TcpClient standing(server.tcpPort());
    ASSERT_TRUE(eventually([&] { return server.tcp().connections() == 1; }));
    server.behaveTcp(TcpPort::Mode::kReset);
    EXPECT_EQ(standing.read(1), "(reset)");
    EXPECT_EQ(TcpClient(server.tcpPort()).read(1), "(reset)");
}

TEST_F(KorvatoServerTest, TheTcpPortMayBeAwayAlone) {
    server.behaveTcp(TcpPort::Mode::kAway);
    EXPECT_EQ(TcpClient(server.tcpPort()).error, ECONNREFUSED);
    EXPECT_EQ(HttpsClient(server).post(kAll), CURLE_OK);
}

// ---------------------------------------------------------------------------------------------------------------
// Commands

TEST_F(KorvatoServerTest, CarriesOutCommands) {
    sim::Dispatcher dispatcher;
    sim::handleServerEvents(dispatcher, server);
    const auto run = [&](const char* line) { return sim::compactJson(dispatcher.runLine(line)); };
    EXPECT_EQ(run(R"({"alarm":12,"state":"activated","value":1.5,"time":[100,5],"count":3})"),
              R"({"ok":true})");
    EXPECT_EQ(run(R"({"alarm":12,"state":"acknowledged","user":"novak","time":[200,0]})"), R"({"ok":true})");
    EXPECT_EQ(run(R"({"push":"x"})"), R"({"error":"no client is connected","ok":false})");
    EXPECT_EQ(run(R"({"server":"raw","hex":"00ff","repeat":2,"times":1})"), R"({"ok":true})");
    HttpsClient client(server);
    ASSERT_EQ(client.post(kAll), CURLE_OK);
    EXPECT_EQ(client.answer, std::string("\0\xFF\0\xFF", 4));
    ASSERT_EQ(client.post("t=30&prj=7&start=100.7&limit=5"), CURLE_OK);
    EXPECT_NE(client.answer.find("\"atm\":[100,7],\"av\":1.5"), std::string::npos) << client.answer;
    const Json::Value polls = dispatcher.runLine(R"({"query":"polls"})");
    EXPECT_TRUE(polls["ok"].asBool());
    ASSERT_EQ(polls["polls"].size(), 2u);
    EXPECT_EQ(polls["polls"][1]["entries"].asInt(), 2);
    EXPECT_EQ(polls["connections"].asInt(), 1);
    EXPECT_EQ(run(R"({"clear":"history"})"), R"({"ok":true})");
    EXPECT_EQ(run(R"({"query":"state"})"),
              R"({"ack_count":0,"connections":1,"history":0,"ok":true,"poll_count":2,"tcp_connections":0})");
}

TEST(EventLogTest, AnEventCarriesNameTextAndTimes) {
    Json::Value event;
    sim::EventLog log([&](const Json::Value& told) { event = told; });
    Json::Value members;
    members["alarm"] = 12;
    log.tell("alarm", "server alarm 12 activated", members);
    EXPECT_EQ(event["event"].asString(), "alarm");
    EXPECT_EQ(event["alarm"].asInt(), 12);
    EXPECT_GT(event["time"][0].asInt64(), 1000000);
    event["at"] = 12.0034;
    EXPECT_EQ(sim::readableLine(event), "12.003 server alarm 12 activated");
}

}  // namespace
