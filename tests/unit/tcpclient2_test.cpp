#include "knihovny/tcpclient2.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <optional>
#include <thread>
#include <vector>

#include "knihovny/debugerror.h"

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

using Calls = std::vector<std::string>;

std::string threadText(pthread_t thread) {
    return std::to_string(static_cast<unsigned long>(thread));
}

// Writes down the hooks' calls.
class Client : public TcpClient2 {
  public:
    ~Client() { Disconnect(); }

    Calls calls() {
        MutexLock lock(mutex_);
        return calls_;
    }
    void waitForCalls(size_t count) {
        while (calls().size() < count) usleep(1000);
    }
    std::string received() {
        MutexLock lock(mutex_);
        return received_;
    }
    void waitForReceived(size_t length) {
        while (received().size() < length) usleep(1000);
    }
    void waitForEnd() const {
        while (IsConnected()) usleep(1000);
    }
    void note(const std::string& call) {
        MutexLock lock(mutex_);
        calls_.push_back(call);
    }

    std::atomic<bool> write_down_data{true};

  protected:
    void ZpracujPacket(int length, const unsigned char* data) override {
        if (write_down_data)
            note("packet " + std::to_string(length) + " then " + std::to_string(data[length]));
        MutexLock lock(mutex_);
        received_.append(reinterpret_cast<const char*>(data), static_cast<size_t>(length));
    }
    void ZpracujPacket(std::string data) override {
        if (write_down_data) note("packet " + data);
    }
    void ZpracujByte(char* oneChar) override {
        if (write_down_data) note("text " + std::string(1, *oneChar) + " then " + std::to_string(oneChar[1]));
    }
    void ZpracujByte(unsigned char byte) override {
        if (write_down_data) note("byte " + std::to_string(byte));
    }
    void AfterRead(int result, char* /*buffer*/) override {
        if (result != 0 && write_down_data) note("read " + std::to_string(result));
    }
    void OnConnect() override { note("connect"); }
    void OnDisconnect() override { note("disconnect"); }

  private:
    Mutex mutex_;
    Calls calls_ GUARDED_BY(mutex_);
    std::string received_ GUARDED_BY(mutex_);
};

// The test is the server.
class TcpClient2Test : public testing::Test {
  protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        server_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(bind(server_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        socklen_t length = sizeof address;
        getsockname(server_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        CaptureStdout();
    }
    void TearDown() override {
        debug_level = 0;
        const std::string text = output();
        if (HasFailure()) fputs(text.c_str(), stderr);
        hangUp();
        close(server_);
    }

    void listenNow() const { ASSERT_EQ(listen(server_, 16), 0); }
    void acceptClient() {
        pollfd readable{server_, POLLIN, 0};
        ASSERT_EQ(poll(&readable, 1, 30000), 1);
        peer_ = accept4(server_, nullptr, nullptr, SOCK_CLOEXEC);
        ASSERT_GE(peer_, 0);
    }
    void hangUp() {
        if (peer_ >= 0) close(peer_);
        peer_ = -1;
    }
    // Ends the connection with a reset.
    void reset() {
        const linger at_once{1, 0};
        setsockopt(peer_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        hangUp();
    }
    void sendToClient(const std::string& text) const {
        ASSERT_EQ(write(peer_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    // What came from the client, at least so many bytes unless it hung up.
    std::string receive(size_t length) const {
        std::string text;
        char block[65536];
        pollfd readable{peer_, POLLIN, 0};
        while (text.size() < length && poll(&readable, 1, 30000) == 1) {
            const ssize_t count = read(peer_, block, sizeof block);
            if (count <= 0) break;
            text.append(block, static_cast<size_t>(count));
        }
        return text;
    }
    void connect(Client& client) {
        listenNow();
        client.Init("127.0.0.1", port_);
        ASSERT_TRUE(client.Connect());
        acceptClient();
    }
    const std::string& output() {
        if (!output_) output_ = GetCapturedStdout();
        return *output_;
    }
    std::string where() const { return "127.0.0.1:" + std::to_string(port_); }

    int server_ = -1;
    int peer_ = -1;
    int port_ = 0;

  private:
    std::optional<std::string> output_;
};

#if defined(__x86_64__)
// The position of a virtual function in its class's table, as the Itanium C++ ABI puts it into a pointer to
// the function: one more than its offset in bytes.
template <class Function>
size_t slotOf(Function function) {
    size_t parts[2];
    static_assert(sizeof parts == sizeof function);
    memcpy(parts, &function, sizeof parts);
    return (parts[0] - 1) / sizeof(void*);
}

TEST(TcpClient2Slots, TheVirtualFunctionsStandInTheirOrder) {
    struct Slots : TcpClient2 {
        static std::vector<size_t> all() {
            return {
                slotOf(&Slots::ExecuteThread),
                slotOf<void (TcpClient2::*)(int, const unsigned char*)>(&Slots::ZpracujPacket),
                slotOf<void (TcpClient2::*)(std::string)>(&Slots::ZpracujPacket),
                slotOf<void (TcpClient2::*)(char*)>(&Slots::ZpracujByte),
                slotOf<void (TcpClient2::*)(unsigned char)>(&Slots::ZpracujByte),
                slotOf(&Slots::OnConnect),
                slotOf(&Slots::AfterRead),
            };
        }
    };
    EXPECT_EQ(Slots::all(), (std::vector<size_t>{0, 1, 2, 3, 4, 5, 6}));
}
#endif

size_t openDescriptors() {
    const std::filesystem::directory_iterator folder("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(folder), end(folder)));
}

TEST_F(TcpClient2Test, TheFirstSendConnectsStartsTheReaderAndWrites) {
    listenNow();
    Client client;
    client.Init("127.0.0.1", port_);
    EXPECT_FALSE(client.IsConnected());
    EXPECT_EQ(client.threadID(), 0U);
    EXPECT_EQ(client.SendBinary("a\0b\x03", 4), 4);
    EXPECT_TRUE(client.IsConnected());
    EXPECT_NE(client.threadID(), 0U);
    acceptClient();
    EXPECT_EQ(receive(4), std::string("a\0b\x03", 4));
    EXPECT_EQ(output(), "");
}

TEST_F(TcpClient2Test, FurtherSendsUseTheConnection) {
    Client client;
    connect(client);
    EXPECT_EQ(client.Send("one"), 3);
    EXPECT_EQ(client.Send(std::string("\0two", 4)), 4);
    EXPECT_EQ(receive(7), std::string("one\0two", 7));
    EXPECT_EQ(client.calls(), Calls{"connect"});
}

TEST_F(TcpClient2Test, ReceivedDataGoesToTheHooksInOrder) {
    Client client;
    connect(client);
    sendToClient("A\n");
    client.waitForCalls(8);
    EXPECT_EQ(client.calls(), (Calls{"connect", "read 2", "packet 2 then 0", "packet A\n", "text A then 0",
                                     "byte 65", "text \n then 0", "byte 10"}));
}

TEST_F(TcpClient2Test, EventsHearOfABlockBeforeItsBytes) {
    class Events : public TcpClient2Events {
      public:
        explicit Events(Client& client) : client_(client) {}
        void ZpracujPacket(int length, const unsigned char* data) override {
            client_.note("event " + std::to_string(length) + " " + std::to_string(data[0]));
        }
        void ZpracujPacket(const std::string& data) override { client_.note("event " + data); }

      private:
        Client& client_;
    };
    Client client;
    Events events(client);
    client.InstallEvents(&events);
    connect(client);
    sendToClient("A");
    client.waitForCalls(8);
    EXPECT_EQ(client.calls(), (Calls{"connect", "read 1", "packet 1 then 0", "packet A", "event 1 65",
                                     "event A", "text A then 0", "byte 65"}));
    client.Disconnect();  // its thread ends before the events' object
}

TEST_F(TcpClient2Test, ReadsAtMost512BytesAtOnce) {
    Client client;
    client.write_down_data = false;
    connect(client);
    class Sizes : public TcpClient2Events {
      public:
        void ZpracujPacket(int length, const unsigned char* /*data*/) override {
            if (length > largest) largest = length;
        }
        void ZpracujPacket(const std::string& /*data*/) override {}
        std::atomic<int> largest{0};
    };
    client.Disconnect();
    hangUp();
    Sizes sizes;
    client.InstallEvents(&sizes);
    connect(client);
    std::string text;
    for (int i = 0; i < 5000000; ++i) text += static_cast<char>(i * 7);
    std::thread sender([&] { sendToClient(text); });
    client.waitForReceived(text.size());
    sender.join();
    EXPECT_TRUE(client.received() == text);
    EXPECT_EQ(sizes.largest, 512);
    client.Disconnect();  // its thread ends before the events' object
}

TEST_F(TcpClient2Test, ASilentServerIsLeftAfterFiveSecondsAndMetAgainByTheNextSend) {
    Client client;
    connect(client);
    sendToClient("half a line");
    EXPECT_EQ(receive(1), "");  // ends when the client hangs up
    client.waitForEnd();
    EXPECT_EQ(client.calls().back(), "disconnect");
    hangUp();
    EXPECT_EQ(client.Send("again"), 5);
    acceptClient();
    EXPECT_EQ(receive(5), "again");
    EXPECT_EQ(output(), "");
}

TEST_F(TcpClient2Test, AServerThatClosesEndsTheConnectionAndTheReader) {
    Client client;
    connect(client);
    sendToClient("x");
    hangUp();
    client.waitForEnd();
    EXPECT_EQ(client.calls(), (Calls{"connect", "read 1", "packet 1 then 0", "packet x", "text x then 0",
                                     "byte 120", "read -3", "disconnect"}));
    EXPECT_EQ(output(), "");
}

TEST_F(TcpClient2Test, TheNextSendConnectsAgainAfterTheServerClosed) {
    Client client;
    connect(client);
    for (int i = 0; i < 5; ++i) {
        hangUp();
        client.waitForEnd();
        EXPECT_EQ(client.Send("again"), 5);
        acceptClient();
        EXPECT_EQ(receive(5), "again");
    }
    EXPECT_EQ(client.calls().size(), 16U);  // six connects, five ends with their reads
}

TEST_F(TcpClient2Test, AResetConnectionIsToldAndEnded) {
    Client client;
    connect(client);
    const pthread_t reader = client.threadID();
    reset();
    client.waitForEnd();
    EXPECT_EQ(client.calls(), (Calls{"connect", "read -1", "disconnect"}));
    EXPECT_EQ(output(), "ERROR: SockRead jina chyba. , in thread " + threadText(reader) + "\n");
}

TEST_F(TcpClient2Test, DisconnectClosesTheConnectionAndJoinsTheReader) {
    Client client;
    client.write_down_data = false;
    connect(client);
    EXPECT_FALSE(client.Disconnect());
    EXPECT_FALSE(client.IsConnected());
    EXPECT_EQ(client.threadID(), 0U);
    EXPECT_EQ(receive(1), "");
    EXPECT_EQ(client.calls(), (Calls{"connect", "disconnect"}));
    EXPECT_FALSE(client.Disconnect());
    EXPECT_EQ(client.calls().size(), 2U);
    hangUp();
    EXPECT_EQ(client.Send("again"), 5);
    acceptClient();
    EXPECT_EQ(receive(5), "again");
}

TEST_F(TcpClient2Test, AnEndingClientWritesNothing) {
    Client client;
    connect(client);
    client.NastavUkonceni(true);
    EXPECT_EQ(client.Send("x"), 0);
    client.Stop();
    EXPECT_EQ(client.threadID(), 0U);
    EXPECT_EQ(client.Send("x"), 0);
    client.Disconnect();
    EXPECT_EQ(receive(1), "");
}

TEST_F(TcpClient2Test, StopWithoutAConnectionDoesNothing) {
    Client client;
    client.NastavUkonceni(true);
    client.Stop();
    EXPECT_EQ(client.calls(), Calls{});
}

TEST_F(TcpClient2Test, NobodyListeningGivesZeroAndNoLine) {
    Client client;
    client.Init(std::string("127.0.0.1"), port_);
    client.SetConnectFailSleep(10);
    EXPECT_EQ(client.Send("x"), 0);
    EXPECT_FALSE(client.IsConnected());
    EXPECT_EQ(client.calls(), Calls{});
    EXPECT_EQ(output(), "");
}

TEST_F(TcpClient2Test, AServerThatComesUpMeanwhileIsConnectedTo) {
    Client client;
    client.Init("127.0.0.1", port_);
    std::thread server([&] {
        usleep(150000);
        listenNow();
    });
    EXPECT_TRUE(client.Connect());
    server.join();
}

TEST_F(TcpClient2Test, AnAddressThatIsNotDottedIsTold) {
    Client client;
    client.Init("localhost", port_);
    EXPECT_FALSE(client.Connect());
    EXPECT_EQ(client.Send("x"), 0);
    const std::string line =
        "ERROR: Na vstupu ma byt ip adresa.\n , in thread " + threadText(pthread_self()) + "\n";
    EXPECT_EQ(output(), line + line);
}

TEST_F(TcpClient2Test, WithoutDescriptorsTheFailureIsTold) {
    Client client;
    client.Init("127.0.0.1", port_);
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none{0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_FALSE(client.Connect());
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(output(), "ERROR: Nelze vytvorit soket\n , in thread " + threadText(pthread_self()) + "\n");
}

TEST_F(TcpClient2Test, AServerThatNeverReadsBlocksASendForThreeSeconds) {
    Client client;
    connect(client);
    const std::string much(20000000, 'x');
    EXPECT_EQ(client.Send(much), -2);
}

// Hangs up in a hook.
class HangingUp : public Client {
  public:
    ~HangingUp() { Disconnect(); }
    std::atomic<bool> in_after_read{false};
    std::atomic<bool> in_bytes{false};

  protected:
    void AfterRead(int result, char* buffer) override {
        Client::AfterRead(result, buffer);
        if (in_after_read && result > 0) HangUp();
    }
    void ZpracujByte(unsigned char byte) override {
        Client::ZpracujByte(byte);
        if (in_bytes) HangUp();
    }
    using Client::ZpracujByte;
};

TEST_F(TcpClient2Test, AHookBehindAReadEndsTheConnectionBeforeThatIsDelivered) {
    HangingUp client;
    connect(client);
    client.in_after_read = true;
    for (int i = 0; i < 2; ++i) {
        sendToClient("lost");
        client.waitForEnd();
        client.in_after_read = i == 0;
        hangUp();
        EXPECT_EQ(client.Send("again"), 5);
        acceptClient();
        EXPECT_EQ(receive(5), "again");
    }
    EXPECT_EQ(client.calls(),
              (Calls{"connect", "read 4", "disconnect", "connect", "read 4", "disconnect", "connect"}));
    EXPECT_EQ(client.received(), "");
    EXPECT_EQ(output(), "");
}

TEST_F(TcpClient2Test, AHookOfAByteEndsTheConnectionBehindTheBlock) {
    HangingUp client;
    client.in_bytes = true;
    connect(client);
    sendToClient("AB");
    EXPECT_EQ(receive(1), "");
    client.waitForEnd();
    EXPECT_EQ(client.calls(), (Calls{"connect", "read 2", "packet 2 then 0", "packet AB", "text A then 0",
                                     "byte 65", "text B then 0", "byte 66", "disconnect"}));
}

TEST_F(TcpClient2Test, SendsOfSeveralThreadsAreNotMixed) {
    constexpr size_t kLength = 100000;
    listenNow();
    Client client;
    client.Init("127.0.0.1", port_);
    std::vector<std::thread> senders;
    for (char name = 'a'; name < 'e'; ++name) {
        senders.emplace_back([&client, name] { client.Send(std::string(kLength, name)); });
    }
    acceptClient();
    const std::string text = receive(4 * kLength);
    for (std::thread& sender : senders) sender.join();
    ASSERT_EQ(text.size(), 4 * kLength);
    for (size_t i = 0; i < text.size(); i += kLength) {
        EXPECT_TRUE(text.substr(i, kLength) == std::string(kLength, text[i]));
    }
    EXPECT_EQ(client.calls(), Calls{"connect"});
}

TEST_F(TcpClient2Test, EndsByServerAndByClientAtOnceAreToldOnce) {
    listenNow();
    for (int i = 0; i < 20; ++i) {
        Client client;
        client.Init("127.0.0.1", port_);
        ASSERT_TRUE(client.Connect());
        acceptClient();
        std::thread server([&] { hangUp(); });
        client.Disconnect();
        server.join();
        const Calls calls = client.calls();
        EXPECT_EQ(std::count(calls.begin(), calls.end(), "disconnect"), 1);
        EXPECT_EQ(calls.back(), "disconnect");
    }
}

TEST_F(TcpClient2Test, ConnectionsAreCloseOnExecAndLeaveNothingOpen) {
    const size_t before = openDescriptors();
    {
        Client client;
        connect(client);
        for (int i = 0; i < 5; ++i) {
            hangUp();
            client.waitForEnd();
            client.Connect();
            acceptClient();
        }
        int sockets = 0;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code error;
            const std::string target = std::filesystem::read_symlink(entry.path(), error);
            if (target.rfind("socket:", 0) != 0) continue;
            ++sockets;
            EXPECT_NE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC, 0);
        }
        EXPECT_GE(sockets, 3);
        hangUp();
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(TcpClient2Test, TracesConnectionsWhenAskedTo) {
    debug_level = 33554432;
    listenNow();
    Client client;
    client.Init("127.0.0.1", port_);
    client.Connect();
    acceptClient();
    const std::string reader = threadText(client.threadID());
    hangUp();
    client.waitForEnd();
    const std::string own = threadText(pthread_self());
    std::string text = output();
    const size_t begin = text.find("socket ") + 7;
    const std::string socket = text.substr(begin, text.find(' ', begin) - begin);
    EXPECT_EQ(text, own + " TCPClient2: Connecting to " + where() + " ... \n" +                             //
                        own + " TCPClient2: Creating socket " + socket + " to ip " + where() + " ... \n" +  //
                        own + " TCPClient2: Connected (socket " + socket + ")  to " + where() + " ... OK \n" +
                        reader + " TCPClient2: resread == -3 " + where() + " (socket " + socket + ")\n" +
                        reader + " TCPClient2: _Disconnect() (socket " + socket + ") from " + where() +
                        " ... \n");
}

TEST_F(TcpClient2Test, TracesDisconnectingAndFailedConnecting) {
    Client client;
    connect(client);
    debug_level = 33554432;
    client.Disconnect();
    hangUp();
    close(server_);
    server_ = -1;
    client.Connect();
    const std::string text = output();
    const std::string own = threadText(pthread_self()) + " TCPClient2: ";
    EXPECT_NE(text.find(own + "disconnecting (socket "), std::string::npos) << text;
    EXPECT_NE(text.find(")  from " + where() + " ... \n"), std::string::npos) << text;
    EXPECT_NE(text.find(own + "failed (socket "), std::string::npos) << text;
    EXPECT_NE(text.find(")  connecting to " + where() + " ... disconnected \n"), std::string::npos) << text;
}

TEST_F(TcpClient2Test, ShowsWhatIsReceivedWhenAskedTo) {
    debug_level = 32;
    Client client;
    connect(client);
    sendToClient("ok\n%s");
    client.waitForReceived(5);
    client.Disconnect();
    EXPECT_EQ(output(), "TCPClient2: recvd in text: ok 0A%s\n");
}

TEST_F(TcpClient2Test, TracesLocksWhenAskedTo) {
    debug_level = 134217728;
    Client client;
    connect(client);
    client.Send("x");
    client.Disconnect();
    const std::string text = output();
    EXPECT_NE(text.find("SendRead Lock (fd: "), std::string::npos) << text;
    EXPECT_NE(text.find(") line "), std::string::npos) << text;
    EXPECT_NE(text.find("\nlocked\n"), std::string::npos) << text;
}

}  // namespace
