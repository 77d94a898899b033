#include "knihovny/tcpserver3.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <optional>
#include <thread>

#include "knihovny/descriptor.h"
#include "tests/support/fake_syslog.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

using Calls = std::vector<std::string>;

// Writes down the hooks' calls; a test can give an answer to each packet.
class Server : public TcpServer3 {
  public:
    ~Server() { End(); }

    Calls calls() {
        MutexLock lock(mutex_);
        return calls_;
    }
    void waitForCall(const std::string& call) {
        for (;;) {
            const Calls all = calls();
            if (std::find(all.begin(), all.end(), call) != all.end()) return;
            usleep(1000);
        }
    }
    bool startLocal(int timeout = 15) {
        Init(0, timeout, true);
        Start(0);
        while (ListeningPort() == 0) usleep(1000);
        return true;
    }

    std::atomic<bool> write_down_all{false};
    std::function<void(const std::string& data, const std::string& ip, int port)>
        answer;  // set before the start

  protected:
    void ZpracujPacket(int length, const unsigned char* data) override {
        note("packet " + std::to_string(length) + " then " + std::to_string(data[length]));
    }
    void ZpracujPacket(int length, const unsigned char* /*data*/, const char* ip, int client_port) override {
        if (write_down_all) note("packet of text " + std::to_string(length) + peer(ip, client_port));
    }
    void ZpracujPacket(int length, const unsigned char* data, std::string ip, int client_port) override {
        if (write_down_all) note("packet of " + std::to_string(length) + peer(ip, client_port));
        if (answer)
            answer(std::string(reinterpret_cast<const char*>(data), static_cast<size_t>(length)), ip,
                   client_port);
    }
    void ZpracujByte(const char* oneChar) override {
        if (write_down_all) note("byte " + std::string(oneChar, 1) + " then " + std::to_string(oneChar[1]));
    }
    void ZpracujByte(const char* oneChar, std::string ip, int client_port) override {
        if (write_down_all) note("byte of " + std::string(oneChar, 1) + peer(ip, client_port));
    }
    void OnConnect() override { note("connect"); }
    void OnConnect(std::string ip, int client_port) override { note("connect of" + peer(ip, client_port)); }
    void OnClose() override { note("close"); }
    void OnClose(std::string ip, int client_port) override { note("close of" + peer(ip, client_port)); }

  private:
    static std::string peer(const std::string& ip, int port) { return " " + ip + ":" + std::to_string(port); }
    void note(const std::string& call) {
        MutexLock lock(mutex_);
        calls_.push_back(call);
    }

    Mutex mutex_;
    Calls calls_ GUARDED_BY(mutex_);
};

// One client.
class Peer {
  public:
    Peer(int port, const char* address = "127.0.0.1") : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in server{};
        server.sin_family = AF_INET;
        server.sin_port = htons(static_cast<uint16_t>(port));
        inet_aton(address, &server.sin_addr);
        connected_ = connect(fd_.get(), reinterpret_cast<sockaddr*>(&server), sizeof server) == 0;
        sockaddr_in own{};
        socklen_t length = sizeof own;
        getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&own), &length);
        port_ = ntohs(own.sin_port);
    }

    void hangUp() { fd_.reset(); }
    bool connected() const { return connected_; }
    int port() const { return port_; }
    std::string name() const { return "127.0.0.1:" + std::to_string(port_); }
    void send(const std::string& text) const {
        ASSERT_EQ(write(fd_.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    // What comes, at least so many bytes unless the server hangs up.
    std::string receive(size_t length) const {
        std::string text;
        char block[65536];
        pollfd readable{fd_.get(), POLLIN, 0};
        while (text.size() < length && poll(&readable, 1, 30000) == 1) {
            const ssize_t count = read(fd_.get(), block, sizeof block);
            if (count <= 0) break;
            text.append(block, static_cast<size_t>(count));
        }
        return text;
    }
    // True when the server hung up without sending anything more.
    bool isLeft() const {
        char byte = 0;
        pollfd readable{fd_.get(), POLLIN, 0};
        return poll(&readable, 1, 30000) == 1 && read(fd_.get(), &byte, 1) <= 0;
    }

  private:
    Descriptor fd_;
    bool connected_ = false;
    int port_ = 0;
};

class TcpServer3Test : public testing::Test {
  protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        CaptureStdout();
        CaptureStderr();
    }
    void TearDown() override {
        const std::string text = output();
        const std::string errors = errorOutput();
        if (HasFailure()) fputs((text + errors).c_str(), stderr);
        fake_syslog.take();
    }
    const std::string& output() {
        if (!output_) output_ = GetCapturedStdout();
        return *output_;
    }
    const std::string& errorOutput() {
        if (!errors_) errors_ = GetCapturedStderr();
        return *errors_;
    }

  private:
    std::optional<std::string> output_;
    std::optional<std::string> errors_;
};

size_t openDescriptors() {
    const std::filesystem::directory_iterator folder("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(folder), end(folder)));
}

// ---------------------------------------------------------------------------------------------------------------
// Reading.

TEST_F(TcpServer3Test, APacketGoesToTheHooksInOrder) {
    Server server;
    server.write_down_all = true;
    server.startLocal();
    Peer peer(server.ListeningPort());
    peer.send("ab");
    peer.hangUp();
    server.waitForCall("close of " + peer.name());
    EXPECT_EQ(server.calls(), (Calls{"connect", "connect of " + peer.name(), "packet 2 then 0",
                                     "packet of text 2 " + peer.name(), "packet of 2 " + peer.name(),
                                     "byte a then 0", "byte of a " + peer.name(), "byte b then 0",
                                     "byte of b " + peer.name(), "close", "close of " + peer.name()}));
    EXPECT_EQ(errorOutput(), "");
    EXPECT_EQ(output(), "");
}

TEST_F(TcpServer3Test, APacketHasAtMost2048BytesAndAZeroBehindIt) {
    Server server;
    std::atomic<int> bytes{0};
    server.answer = [&](const std::string& data, const std::string&, int) {
        bytes += static_cast<int>(data.size());
    };
    server.startLocal();
    const Peer peer(server.ListeningPort());
    peer.send(std::string(2048, 'x'));
    while (bytes < 2048) usleep(1000);
    EXPECT_EQ(server.calls().back(), "packet 2048 then 0");
    peer.send(std::string(1000000, 'x'));
    while (bytes < 1002048) usleep(1000);
    for (const std::string& call : server.calls()) {
        if (call.rfind("packet ", 0) != 0) continue;
        EXPECT_LE(std::stoi(call.substr(7)), 2048);
    }
}

TEST_F(TcpServer3Test, ASilentClientIsDroppedAfterMoreThanTheTimeout) {
    Server server;
    server.startLocal(1);
    const Peer peer(server.ListeningPort());
    EXPECT_TRUE(peer.isLeft());
    server.waitForCall("close of " + peer.name());
    EXPECT_EQ(errorOutput(), "");
}

TEST_F(TcpServer3Test, ByDefaultASilentClientIsDroppedAfterFifteenSeconds) {
    Server server;
    server.NastavUkonceni(false);
    server.startLocal();
    const time_t start = time(nullptr);
    const Peer peer(server.ListeningPort());
    EXPECT_TRUE(peer.isLeft());
    EXPECT_GE(time(nullptr) - start, 15);
    server.waitForCall("close of " + peer.name());
}

TEST_F(TcpServer3Test, AClientThatTalksIsNotDropped) {
    Server server;
    server.answer = [&](const std::string& data, const std::string&, int) {
        server.SendBinary(data.data(), 1);
    };
    server.startLocal(1);
    const Peer peer(server.ListeningPort());
    for (int i = 0; i < 6; ++i) {
        peer.send("x");
        ASSERT_EQ(peer.receive(1), "x");
        usleep(400000);
    }
}

// ---------------------------------------------------------------------------------------------------------------
// Sending.

TEST_F(TcpServer3Test, ASendFromElsewhereGoesToEveryClient) {
    Server server;
    server.startLocal();
    const Peer first(server.ListeningPort());
    const Peer second(server.ListeningPort());
    server.waitForCall("connect of " + first.name());
    server.waitForCall("connect of " + second.name());
    EXPECT_EQ(server.SendBinary("a\0b", 3), 3);
    EXPECT_EQ(first.receive(3), std::string("a\0b", 3));
    EXPECT_EQ(second.receive(3), std::string("a\0b", 3));
}

TEST_F(TcpServer3Test, ASendFromAHandlerGoesToTheAskingClientOnly) {
    Server server;
    server.answer = [&](const std::string& data, const std::string&, int) {
        server.SendBinary(data.data(), static_cast<int>(data.size()));
    };
    server.startLocal();
    const Peer asking(server.ListeningPort());
    const Peer other(server.ListeningPort());
    server.waitForCall("connect of " + other.name());
    asking.send("question");
    EXPECT_EQ(asking.receive(8), "question");
    server.SendBinary("all", 3);
    EXPECT_EQ(other.receive(3), "all");
}

TEST_F(TcpServer3Test, ASendWithoutClientsGivesZero) {
    Server server;
    server.startLocal();
    EXPECT_EQ(server.SendBinary("x", 1), 0);
    EXPECT_EQ(server.SendBinary("127.0.0.1", 1, "x", 1), 0);
    EXPECT_EQ(errorOutput(), "");
}

TEST_F(TcpServer3Test, ATextEndsWithTheByteThree) {
    Server server;
    server.startLocal();
    const Peer peer(server.ListeningPort());
    server.waitForCall("connect of " + peer.name());
    EXPECT_EQ(server.SendBinaryWithTextEnd("ab", 2), 3);
    EXPECT_EQ(server.SendBinaryWithTextEnd("", 0), 1);
    EXPECT_EQ(server.SendBinaryWithTextEnd("xyz", 1), 2);
    EXPECT_EQ(peer.receive(6), "ab\x03\x03xy");
}

TEST_F(TcpServer3Test, ASendToAnAddressReachesThatClientOnly) {
    Server server;
    server.startLocal();
    const Peer first(server.ListeningPort());
    const Peer second(server.ListeningPort());
    server.waitForCall("connect of " + first.name());
    server.waitForCall("connect of " + second.name());
    EXPECT_EQ(server.SendBinary("127.0.0.1", first.port(), "abc", 3), 3);
    EXPECT_EQ(server.Send("127.0.0.1", first.port(), std::string("d\0", 2)), 2);
    EXPECT_EQ(server.SendByte("127.0.0.1", first.port(), 'e'), 1);
    EXPECT_EQ(server.Send("127.0.0.2", first.port(), "wrong address"), 0);
    server.SendBinary("!", 1);
    EXPECT_EQ(first.receive(7), std::string("abcd\0e!", 7));
    EXPECT_EQ(second.receive(1), "!");
}

TEST_F(TcpServer3Test, AClientThatNeverReadsIsToldAndTheOthersAreServed) {
    Server server;
    server.startLocal();
    const Peer slow(server.ListeningPort());
    const Peer other(server.ListeningPort());
    server.waitForCall("connect of " + slow.name());
    server.waitForCall("connect of " + other.name());
    const std::string much(20000000, 'x');
    std::thread sender([&] { EXPECT_EQ(server.Send("127.0.0.1", slow.port(), much), -2); });
    EXPECT_EQ(server.Send("127.0.0.1", other.port(), "served"), 6);
    EXPECT_EQ(other.receive(6), "served");
    const Peer late(server.ListeningPort());
    server.waitForCall("connect of " + late.name());
    sender.join();
    EXPECT_EQ(errorOutput().rfind("SockWriteERRor:: ", 0), 0U) << errorOutput();
    EXPECT_TRUE(server.Connected());
}

// ---------------------------------------------------------------------------------------------------------------
// Disconnecting.

TEST_F(TcpServer3Test, OneClientIsAskedToEnd) {
    Server server;
    server.startLocal();
    const Peer first(server.ListeningPort());
    const Peer second(server.ListeningPort());
    server.waitForCall("connect of " + first.name());
    server.waitForCall("connect of " + second.name());
    server.OdpojKlienta("127.0.0.1", first.port());
    EXPECT_TRUE(first.isLeft());
    server.waitForCall("close of " + first.name());
    EXPECT_TRUE(server.Connected());
    server.SendBinary("x", 1);
    EXPECT_EQ(second.receive(1), "x");
}

TEST_F(TcpServer3Test, AllClientsAreAskedToEndAndWaitedFor) {
    Server server;
    server.startLocal();
    const Peer first(server.ListeningPort());
    const Peer second(server.ListeningPort());
    server.waitForCall("connect of " + first.name());
    server.waitForCall("connect of " + second.name());
    EXPECT_TRUE(server.Connected());
    server.OdpojKlienta();
    EXPECT_FALSE(server.Connected());
    EXPECT_TRUE(first.isLeft());
    EXPECT_TRUE(second.isLeft());
    EXPECT_EQ(errorOutput(), "");
}

TEST_F(TcpServer3Test, DisconnectingWithoutClientsReturnsAtOnce) {
    Server server;
    EXPECT_FALSE(server.Connected());
    server.OdpojKlienta();
    server.OdpojKlienta("127.0.0.1", 1);
    EXPECT_EQ(errorOutput(), "");
}

TEST_F(TcpServer3Test, AClientThatDoesNotGoInTenSecondsIsTold) {
    Server server;
    std::atomic<bool> busy{true};
    server.answer = [&](const std::string&, const std::string&, int) {
        while (busy) usleep(1000);
    };
    server.startLocal();
    const Peer peer(server.ListeningPort());
    peer.send("x");
    server.waitForCall("packet 1 then 0");
    server.OdpojKlienta();
    EXPECT_EQ(errorOutput(), "Nepodarilo se odpojit vsechny klienty:: Connection timed out\n");
    busy = false;
}

// ---------------------------------------------------------------------------------------------------------------
// Listening and stopping.

TEST_F(TcpServer3Test, StopEndsTheListeningAndTheClients) {
    Server server;
    server.startLocal();
    const int port = server.ListeningPort();
    const Peer peer(port);
    server.waitForCall("connect of " + peer.name());
    server.NastavUkonceni(true);
    server.Stop();
    EXPECT_TRUE(peer.isLeft());
    EXPECT_FALSE(server.Connected());
    EXPECT_EQ(server.ListeningPort(), 0);
    EXPECT_FALSE(Peer(port).connected());
    EXPECT_EQ(errorOutput(), "");
}

TEST_F(TcpServer3Test, CanBeStartedAgainOnTheSamePort) {
    Server server;
    server.startLocal();
    const int port = server.ListeningPort();
    const Peer peer(port);
    server.waitForCall("connect of " + peer.name());
    server.NastavUkonceni(true);
    server.Stop();
    server.Init(port, 15);
    server.Start(0);
    while (server.ListeningPort() == 0) usleep(1000);
    const Peer again(port);
    EXPECT_TRUE(again.connected());
    server.waitForCall("connect of " + again.name());
}

TEST_F(TcpServer3Test, AUsedPortIsLoggedAndEndsTheThread) {
    Server first;
    first.startLocal();
    Server second;
    second.Init(first.ListeningPort(), 15, true);
    second.Start(0);
    second.Stop();
    EXPECT_EQ(second.ListeningPort(), 0);
    EXPECT_EQ(output(), "Problem s pojmenovanim soketu.\n");
    const std::vector<SyslogEntry> entries = fake_syslog.take();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].identity, "tcpserver3");
    EXPECT_EQ(entries[0].message, "Problem s pojmenovanim soketu.");
    second.startLocal();
    EXPECT_TRUE(Peer(second.ListeningPort()).connected());
}

TEST_F(TcpServer3Test, WithoutDescriptorsTheThreadEndsAfterALine) {
    Server server;
    server.Init(0, 15, true);
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none{0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    server.Start(0);
    server.Stop();
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(output(), "Nelze vytvorit soket\n");
}

TEST_F(TcpServer3Test, ALocalServerListensOnTheLoopbackAddressOnly) {
    Server local;
    local.startLocal();
    EXPECT_FALSE(Peer(local.ListeningPort(), "127.0.0.2").connected());
    Server open;
    open.Init(0, 15, false);
    open.Start(0);
    while (open.ListeningPort() == 0) usleep(1000);
    EXPECT_TRUE(Peer(open.ListeningPort(), "127.0.0.2").connected());
}

TEST_F(TcpServer3Test, PrintsTheBeginOfItsThreadsWhenAskedTo) {
    Server server;
    server.SetDebugLevel(3);
    server.startLocal();
    const Peer peer(server.ListeningPort());
    server.waitForCall("connect");
    EXPECT_EQ(output(), "TcpServer3::ExecuteThread\nTcpServer3::ClientThread\n");
}

TEST_F(TcpServer3Test, PrintsNothingAtALowerLevel) {
    Server server;
    server.SetDebugLevel(2);
    server.startLocal();
    const Peer peer(server.ListeningPort());
    server.waitForCall("connect");
    EXPECT_EQ(output(), "");
}

TEST_F(TcpServer3Test, ManyClientsAreServedAtOnce) {
    constexpr int kClients = 20;
    Server server;
    server.answer = [&](const std::string& data, const std::string& ip, int port) {
        server.Send(ip, port, data);
    };
    server.startLocal();
    std::vector<std::unique_ptr<Peer>> peers;
    for (int i = 0; i < kClients; ++i) peers.push_back(std::make_unique<Peer>(server.ListeningPort()));
    for (int round = 0; round < 5; ++round) {
        for (const auto& peer : peers) peer->send("request of " + peer->name());
        for (const auto& peer : peers) {
            const std::string expected = "request of " + peer->name();
            EXPECT_EQ(peer->receive(expected.size()), expected);
        }
    }
}

TEST_F(TcpServer3Test, ADescriptorThatIsTooHighIsRefused) {
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    if (before.rlim_max < 1100) GTEST_SKIP() << "the limit of descriptors cannot be raised above 1024";
    Server server;
    server.startLocal();
    const Peer early(server.ListeningPort());
    server.waitForCall("connect of " + early.name());
    const rlimit enough{1100, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &enough);
    std::vector<int> fillers;
    while (fillers.empty() || fillers.back() < 1023) fillers.push_back(fcntl(0, F_DUPFD_CLOEXEC, 0));
    const Peer late(server.ListeningPort());
    EXPECT_TRUE(late.isLeft());
    for (const int filler : fillers) close(filler);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(errorOutput(), "Accept mainSocket failed: descriptor 1025 is too high\n");
    server.SendBinary("x", 1);
    EXPECT_EQ(early.receive(1), "x");
}

TEST_F(TcpServer3Test, WithoutDescriptorsAClientWaitsAndTheLogGetsOneLine) {
    Server server;
    server.startLocal();
    const int port = server.ListeningPort();
    const Peer early(port);
    server.waitForCall("connect of " + early.name());
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const int highest = fcntl(0, F_DUPFD_CLOEXEC, 0);
    close(highest);
    const rlimit one_more{static_cast<rlim_t>(highest) + 1, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &one_more);
    const Peer late(port);  // takes the last one
    usleep(350000);         // some tries
    setrlimit(RLIMIT_NOFILE, &before);
    server.waitForCall("connect of " + late.name());
    EXPECT_EQ(errorOutput(), "Accept mainSocket failed: Too many open files\n");
}

TEST_F(TcpServer3Test, SocketsAreCloseOnExecAndNothingStaysOpen) {
    const size_t before = openDescriptors();
    {
        Server server;
        server.startLocal();
        const Peer first(server.ListeningPort());
        const Peer second(server.ListeningPort());
        server.waitForCall("connect of " + second.name());
        int sockets = 0;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code error;
            const std::string target = std::filesystem::read_symlink(entry.path(), error);
            if (target.rfind("socket:", 0) != 0) continue;
            ++sockets;
            EXPECT_NE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC, 0);
        }
        EXPECT_GE(sockets, 5);
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(TcpServer3Test, ClientsThatComeAndGoAtOnceLeaveNobody) {
    Server server;
    server.startLocal();
    const int port = server.ListeningPort();
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([port] {
            for (int k = 0; k < 10; ++k) {
                const Peer peer(port);
                if (k % 2 == 0) peer.send("half a request");
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    while (server.calls().size() < 3 * 10 * 4 || server.Connected()) usleep(1000);
}

}  // namespace
