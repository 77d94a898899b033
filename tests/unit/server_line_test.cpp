#include "alarmd/intake/server_line.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "alarmd/alarmd.h"
#include "knihovny/generalfce.h"

namespace {

// The test is the server.
class ServerLineTest : public testing::Test {
  protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        readok = true;
        setPending("");
        server_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(bind(server_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        ASSERT_EQ(listen(server_, 16), 0);
        socklen_t length = sizeof address;
        getsockname(server_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
    }
    void TearDown() override {
        close(server_);
        hangUp();
        readok = true;
        setPending("");
    }

    void connect(MyTcpClient& client) {
        client.Init("127.0.0.1", port_);
        acknowledge(client);
    }
    // Sends a request over a connection that is made for it.
    void acknowledge(MyTcpClient& client) {
        ASSERT_EQ(client.Send("t=11"), 4);
        hangUp();
        peer_ = accept4(server_, nullptr, nullptr, SOCK_CLOEXEC);
        ASSERT_GE(peer_, 0);
        char request[4];
        ASSERT_EQ(recv(peer_, request, sizeof request, MSG_WAITALL), 4);
    }
    void hangUp() {
        if (peer_ >= 0) close(peer_);
        peer_ = -1;
    }
    // False when the client has gone.
    bool say(const std::string& bytes) const {
        return send(peer_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    bool clientHasGone() const {
        char byte;
        return recv(peer_, &byte, 1, MSG_DONTWAIT) == 0;
    }
    // Says a byte now and then until the client goes.
    void trickle() const {
        while (!clientHasGone()) {
            if (!say("x")) break;
            usleep(20000);
        }
    }
    static void waitFor(bool wanted) {
        while (readok != wanted) usleep(1000);
    }
    static void waitForEnd(const MyTcpClient& client) {
        while (client.IsConnected()) usleep(1000);
    }
    static void setPending(const std::string& line) {
        MutexLock lock(data_rcv_mutex);
        data_rcv = line;
    }
    static std::string pending() {
        MutexLock lock(data_rcv_mutex);
        return data_rcv;
    }
    static void waitForPending(const std::string& line) {
        while (pending() != line) usleep(1000);
    }

    int server_ = -1;
    int peer_ = -1;
    int port_ = 0;
};

TEST_F(ServerLineTest, ALineWaitsForThePollWhenItIsWhole) {
    MyTcpClient client;
    connect(client);
    say("{\"d\":");
    waitFor(false);
    EXPECT_EQ(pending(), "");
    say("[]}\n");
    waitForPending("{\"d\":[]}");
    waitFor(true);
}

TEST_F(ServerLineTest, ALineThatIsTrickledWithoutAnEndIsDroppedWithItsConnectionAndTold) {
    testing::internal::CaptureStderr();
    MyTcpClient client(300);
    connect(client);
    const timeval begin = MonotonicTime();
    trickle();
    waitForEnd(client);
    const timeval end = MonotonicTime();
    EXPECT_TRUE(readok);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "alarmd: a line from 127.0.0.1:" + std::to_string(port_) +
                  " is unfinished after 0.3 s: dropped with its connection\n");
    EXPECT_GE((end.tv_sec - begin.tv_sec) * 1000000 + end.tv_usec - begin.tv_usec, 300000);

    // The next request connects anew, and nothing is left of that line.
    acknowledge(client);
    say("whole\n");
    waitForPending("whole");
}

TEST_F(ServerLineTest, ALineThatIsLeftUnfinishedInSilenceIsDroppedToo) {
    testing::internal::CaptureStderr();
    MyTcpClient client(300);
    connect(client);
    say("half");
    waitFor(false);
    waitForEnd(client);
    EXPECT_TRUE(readok);
    EXPECT_NE(testing::internal::GetCapturedStderr().find(" is unfinished after 0.3 s: "), std::string::npos);
}

TEST_F(ServerLineTest, LinesThatHoldUpThePollsOneBehindTheOtherAreDroppedWithTheirConnection) {
    testing::internal::CaptureStderr();
    MyTcpClient client(300);
    connect(client);
    client.PollIsHeldUp(true);
    while (!clientHasGone() && say("\ny")) usleep(20000);
    waitForEnd(client);
    EXPECT_TRUE(readok);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "alarmd: a line from 127.0.0.1:" + std::to_string(port_) +
                  ", one behind the other, holds up the polls since 0.3 s: dropped with its connection\n");
}

TEST_F(ServerLineTest, APollBetweenTwoLinesGivesTheNextOnesTheWholeTime) {
    MyTcpClient client(300);
    connect(client);
    for (int i = 0; i < 40; ++i) {
        client.PollIsHeldUp(i % 4 != 0);
        ASSERT_TRUE(say("\ny"));
        usleep(20000);
    }
    EXPECT_TRUE(client.IsConnected());
}

TEST_F(ServerLineTest, EachLineHasItsOwnTime) {
    testing::internal::CaptureStderr();
    MyTcpClient client(2000);
    connect(client);
    for (int i = 0; i < 12; ++i) {
        say("half of it, ");
        usleep(200000);
        say("and the rest\n");
    }
    EXPECT_TRUE(client.IsConnected());
    waitForPending("half of it, and the rest");
    client.Disconnect();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(ServerLineTest, NoLineIsOverdueWhileNoneHasBegun) {
    testing::internal::CaptureStderr();
    MyTcpClient client(1);
    connect(client);
    for (int i = 0; i < 20; ++i) {
        say("\n");
        usleep(10000);
    }
    EXPECT_TRUE(client.IsConnected());
    client.Disconnect();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(ServerLineTest, AnUnfinishedLineDiesInSilenceWithAConnectionThatThePeerCloses) {
    testing::internal::CaptureStderr();
    MyTcpClient client;
    connect(client);
    say("half");
    waitFor(false);
    hangUp();
    waitForEnd(client);
    EXPECT_TRUE(readok);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(pending(), "");
}

}  // namespace
