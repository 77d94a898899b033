#include "alarmd/requests/tcp_request_server.h"

#include <atomic>
#include <csignal>
#include <thread>

#include "alarmd/alarmd.h"
#include "tests/support/fcgi_client.h"
#include "tests/support/project_files.h"

namespace {

using fcgi::Client;

constexpr char kAccepted[] = "{\"s\":1,\"r\":50}\n";
constexpr char kQueueFull[] = "{\"r\":50,\"s\":0,\"err\":\"SMS queue is full\"}\n";
constexpr char kNotReady[] = "{\"r\":50,\"s\":0,\"err\":\"Modem activation failed\"}\n";
constexpr char kParseFailure[] = "{\"s\":0, \"err\":\"Failed to parse JSON\"}";
constexpr char kNoSms[] = "{\"r\":54,\"s\":1,\"d\":{\"Timestamp\":0,\"From\":\"\",\"Text\":\"\"}}\n";

int portOf(const Client& client) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(client.descriptor(), reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

// The next so many bytes, or less when they do not come.
std::string hear(const Client& client, size_t length) {
    std::string bytes(length, '\0');
    size_t done = 0;
    while (done < length) {
        pollfd event{client.descriptor(), POLLIN, 0};
        if (poll(&event, 1, 10000) != 1) break;
        const ssize_t count = recv(client.descriptor(), bytes.data() + done, length - done, 0);
        if (count <= 0) break;
        done += static_cast<size_t>(count);
    }
    bytes.resize(done);
    return bytes;
}

std::string ask(const Client& client, std::string_view request, std::string_view expected) {
    client.say(request);
    return hear(client, expected.size());
}

class TcpRequestServerTest : public testing::Test {
  protected:
    TcpRequestServerTest() {
        resetDaemonState();
        signal(SIGPIPE, SIG_IGN);
        modemInit = true;
        testing::internal::CaptureStdout();
        server_.Init(0, 15, true);
        server_.Start(0);
        for (int look = 0; look < 2000 && server_.ListeningPort() == 0; ++look) usleep(1000);
    }
    ~TcpRequestServerTest() override {
        stop();
        resetDaemonState();
    }

    int port() const { return server_.ListeningPort(); }

    // Ends the server and returns all that was printed.
    std::string stop() {
        if (stopped_) return "";
        stopped_ = true;
        server_.End();
        return testing::internal::GetCapturedStdout();
    }

    myTcpServer server_;
    bool stopped_ = false;
};

TEST_F(TcpRequestServerTest, AnSmsIsQueuedInItsClientsName) {
    const Client client(port());
    EXPECT_EQ(ask(client, R"({"t":50,"number":"12345","text":"hi"})", kAccepted), kAccepted);
    _sms_raw message;
    for (int look = 0; look < 2000 && !fronta_sms_raw.take(message); ++look) usleep(1000);
    EXPECT_EQ(message.number, "12345");
    EXPECT_EQ(message.text, "hi");
    EXPECT_EQ(message.from_ip, "127.0.0.1");
    EXPECT_EQ(message.from_port, portOf(client));
    EXPECT_TRUE(fronta_sms_raw.empty());
    EXPECT_EQ(stop(), "pripojen klient:127.0.0.1:" + std::to_string(portOf(client)) +
                          "\nRequest protocol 50 (Send SMS)\n");
}

TEST_F(TcpRequestServerTest, WithoutAModemNothingIsQueued) {
    modemInit = false;
    const Client client(port());
    EXPECT_EQ(ask(client, R"({"t":50,"number":"12345","text":"hi"})", kNotReady), kNotReady);
    EXPECT_EQ(ask(client, R"({"t":54})", kNotReady), kNotReady);
    EXPECT_TRUE(fronta_sms_raw.empty());
}

TEST_F(TcpRequestServerTest, AnSmsBeyondAThousandIsRefusedAndNoneIsLost) {
    constexpr char kRequest[] = R"({"t":50,"number":"1","text":"x"})";
    constexpr int kClients = 5;
    std::atomic<int> accepted{0};
    std::atomic<int> refused{0};
    std::vector<std::thread> clients;
    for (int i = 0; i < kClients; ++i) {
        clients.emplace_back([&] {
            const Client client(port());
            while (accepted + refused < 1100) {
                client.say(kRequest);
                // As long as the shorter of the two answers.
                const std::string begin = hear(client, sizeof kAccepted - 1);
                if (begin == kAccepted) {
                    ++accepted;
                } else {
                    const std::string rest = hear(client, sizeof kQueueFull - sizeof kAccepted);
                    EXPECT_EQ(begin + rest, kQueueFull);
                    ++refused;
                }
            }
        });
    }
    for (std::thread& client : clients) client.join();
    EXPECT_EQ(accepted, 1000);
    for (int look = 0; look < 2000 && fronta_sms_raw.size() < 1000; ++look) usleep(1000);
    EXPECT_EQ(fronta_sms_raw.size(), 1000);
    modemInit = false;
    const Client client(port());
    EXPECT_EQ(ask(client, kRequest, kNotReady), kNotReady);
}

TEST_F(TcpRequestServerTest, TheLastSmsIsTold) {
    const Client client(port());
    EXPECT_EQ(ask(client, R"({"t":54})", kNoSms), kNoSms);
    {
        MutexLock lock(last_sms_mutex);
        last_sms = {12, "+420", "%n%s%x"};
    }
    const std::string expected =
        "{\"r\":54,\"s\":1,\"d\":{\"Timestamp\":12,\"From\":\"+420\",\"Text\":\"%n%s%x\"}}\n";
    EXPECT_EQ(ask(client, R"({"t":54})", expected), expected);
    EXPECT_EQ(stop(), "pripojen klient:127.0.0.1:" + std::to_string(portOf(client)) +
                          "\nRequest protocol 54 (Read last receive SMS)\nResponse: " + kNoSms +
                          "\nRequest protocol 54 (Read last receive SMS)\nResponse: " + expected + "\n");
}

TEST_F(TcpRequestServerTest, WhatIsNoJsonGetsTheParseFailureWithoutALineFeed) {
    const Client client(port());
    EXPECT_EQ(ask(client, "not json", kParseFailure), kParseFailure);
    EXPECT_EQ(ask(client, "{", kParseFailure), kParseFailure);
    EXPECT_EQ(ask(client, R"({"t":54})", kNoSms), kNoSms);
}

TEST_F(TcpRequestServerTest, OtherProtocolsGetNoAnswer) {
    const Client client(port());
    client.say(R"({"t":51})");
    usleep(50000);  // a packet of its own
    EXPECT_EQ(ask(client, R"({"t":54})", kNoSms), kNoSms);
}

TEST_F(TcpRequestServerTest, TheAnswerGoesToTheAskingClientOnly) {
    const Client first(port());
    const Client second(port());
    EXPECT_EQ(ask(first, R"({"t":54})", kNoSms), kNoSms);
    pollfd event{second.descriptor(), POLLIN, 0};
    EXPECT_EQ(poll(&event, 1, 50), 0);
}

TEST_F(TcpRequestServerTest, PacketsOfOneByteAndOfOneMegabyteAreRead) {
    const Client bytes(port());
    for (const char byte : std::string("{}[]x")) {
        const std::string expected = kParseFailure;
        EXPECT_EQ(ask(bytes, {&byte, 1}, expected), expected);
    }
    const Client large(port());
    std::thread reader([&] { large.hearAll(1000); });
    large.say(std::string(1 << 20, 'x'));
    reader.join();
    const Client third(port());
    EXPECT_EQ(ask(third, R"({"t":54})", kNoSms), kNoSms);
}

TEST_F(TcpRequestServerTest, TwoHundredClientsAreServed) {
    std::vector<Client> clients;
    // One by one: three at most wait to be accepted.
    for (int i = 0; i < 200; ++i) {
        clients.emplace_back(port());
        ASSERT_EQ(ask(clients.back(), R"({"t":54})", kNoSms), kNoSms);
    }
    for (int round = 0; round < 3; ++round) {
        for (const Client& client : clients) client.say(R"({"t":54})");
        for (const Client& client : clients) ASSERT_EQ(hear(client, sizeof kNoSms - 1), kNoSms);
    }
}

TEST_F(TcpRequestServerTest, AClientThatNeverReadsDelaysNobodyElse) {
    {
        MutexLock lock(last_sms_mutex);
        last_sms.text = std::string(100000, 'x');
    }
    const Client deaf(port());
    const int small = 4096;
    setsockopt(deaf.descriptor(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    for (int i = 0; i < 100; ++i) {
        if (send(deaf.descriptor(), "{\"t\":54}", 8, MSG_NOSIGNAL | MSG_DONTWAIT) < 0) break;
        usleep(500);
    }
    const Client client(port());
    const auto start = time(nullptr);
    EXPECT_EQ(ask(client, "x", kParseFailure), kParseFailure);
    EXPECT_LE(time(nullptr) - start, 2);
}

TEST_F(TcpRequestServerTest, AStopWithClientsConnectedEnds) {
    std::vector<Client> clients;
    for (int i = 0; i < 20; ++i) {
        clients.emplace_back(port());
        ask(clients.back(), R"({"t":54})", kNoSms);
    }
    stop();
    for (const Client& client : clients) EXPECT_TRUE(client.closedWithin(1000));
}

TEST_F(TcpRequestServerTest, ItListensOnTheLoopbackOnly) {
    const Client client(port());
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getpeername(client.descriptor(), reinterpret_cast<sockaddr*>(&address), &length);
    const int other = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1);
    EXPECT_NE(connect(other, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    close(other);
}

}  // namespace
