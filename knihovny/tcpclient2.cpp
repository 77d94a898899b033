#include "knihovny/tcpclient2.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "knihovny/debugerror.h"
#include "knihovny/generalfce.h"
#include "knihovny/socketfce.h"

namespace {

constexpr int kShowReceived = 1 << 5;
constexpr int kTraceConnections = 1 << 25;
constexpr int kTraceLocks = 1 << 27;

constexpr int kBlock = 512;
constexpr int kConnectSeconds = 2;
constexpr int kSendSeconds = 3;
constexpr int kSilenceSeconds = 5;
constexpr long kConnectPauseNanoseconds = 100000000;
constexpr long kNotConnectedPauseNanoseconds = 10000000;
constexpr int kReadWaitMilliseconds = 50;

unsigned long ownThread() {
    return static_cast<unsigned long>(pthread_self());
}

template <class... Parts>
void trace(const Parts&... parts) {
    if ((debug_level & kTraceConnections) != 0) PrintLine(ownThread(), " TCPClient2: ", parts...);
}

timeval elapsedSince(timeval start) {
    timeval now = MonotonicTime();
    timeval elapsed{};
    TimevalMinus(&elapsed, &now, &start);
    return elapsed;
}

int number(const std::shared_ptr<Descriptor>& socket) {
    return socket ? socket->get() : 0;
}

}  // namespace

TcpClient2::~TcpClient2() {
    end_flag = true;
    Disconnect();
    Stop();
}

void TcpClient2::Init(const char* address, int server_port) {
    Init(std::string(address), server_port);
}

void TcpClient2::Init(std::string address, int server_port) {
    server_address = std::move(address);
    port = server_port;
}

void TcpClient2::SetConnectFailSleep(int /*seconds*/) {}

void TcpClient2::InstallEvents(TcpClient2Events* sink) {
    events = sink;
}

void TcpClient2::NastavUkonceni(bool value) {
    end_flag = value;
}

bool TcpClient2::Connect() {
    MutexLock lock(connect_mutex_);
    if (connected != 0) return true;
    // The thread of the connection before has nothing left to read. Its last hook comes before the first of
    // this one.
    Thread3::Stop();
    trace("Connecting to ", server_address, ":", port, " ... ");
    std::shared_ptr<Descriptor> socket;
    if (_FullConnect2(socket, server_address, port, kConnectSeconds, 0) != 1) return false;
    trace("Connected (socket ", number(socket), ")  to ", server_address, ":", port, " ... OK ");
    {
        MutexLock socket_lock(socket_mutex_);
        socket_ = socket;
    }
    last_activity = MonotonicTime();
    hang_up_ = false;
    connected = 1;
    OnConnect();
    Start(0);
    return connected != 0;
}

int TcpClient2::SendBinary(const char* data, int length) {
    Connect();
    MutexLock lock(send_mutex_);
    const std::shared_ptr<Descriptor> socket = currentSocket(__LINE__);
    if (!socket || end_flag) return 0;
    return SockWriteTimeout(socket->get(), data, static_cast<unsigned long>(std::max(length, 0)),
                            kSendSeconds, 0);
}

int TcpClient2::Send(std::string text) {
    return SendBinary(text.data(), static_cast<int>(text.size()));
}

bool TcpClient2::Disconnect() {
    MutexLock lock(connect_mutex_);
    if (connected != 0) {
        std::shared_ptr<Descriptor> socket = takeSocket();
        const bool ended_here = socket != nullptr;
        trace("disconnecting (socket ", number(socket), ")  from ", server_address, ":", port, " ... ");
        if (ended_here) _Disconnect(socket);
        disconnect_requested = true;
        Thread3::Stop();
        disconnect_requested = false;
        if (ended_here) OnDisconnect();
        connected = 0;
    }
    // A reading thread that ended the connection may still be on its way out.
    Thread3::Stop();
    return connected != 0;
}

void TcpClient2::Stop() {
    MutexLock lock(connect_mutex_);
    Thread3::Stop();
}

int TcpClient2::_FullConnect2(std::shared_ptr<Descriptor>& socket, const std::string& address,
                              int server_port, int seconds, int microseconds) {
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(static_cast<uint16_t>(server_port));
    if (inet_aton(address.c_str(), &server.sin_addr) == 0) {
        DumpError("Na vstupu ma byt ip adresa.\n");
        return -1;
    }
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    if (descriptor == -1) {
        DumpError("Nelze vytvorit soket\n", errno);
        return -1;
    }
    socket = std::make_shared<Descriptor>(descriptor);
    trace("Creating socket ", descriptor, " to ip ", address, ":", server_port, " ... ");
    if (_ConnectTime2(descriptor, server, seconds, microseconds) == -1) {
        trace("failed (socket ", descriptor, ")  connecting to ", address, ":", server_port,
              " ... disconnected ");
        _Disconnect(socket);
        return -1;
    }
    return 1;
}

int TcpClient2::_ConnectTime2(int descriptor, const sockaddr_in& server, int seconds, int microseconds) {
    if (fcntl(descriptor, F_SETFL, O_NONBLOCK) == -1) PrintSystemError("Nelze nastavit NONBLOCK ...");
    timeval limit{seconds, microseconds};
    const timeval start = MonotonicTime();
    while (connect(descriptor, reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0) {
        MySleep(0, kConnectPauseNanoseconds);
        timeval elapsed = elapsedSince(start);
        if (!TimevalMensi(&elapsed, &limit)) return -1;
    }
    return 0;
}

int TcpClient2::_Disconnect(std::shared_ptr<Descriptor>& socket) {
    trace("_Disconnect() (socket ", number(socket), ") from ", server_address, ":", port, " ... ");
    int previous = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
    shutdown(socket->get(), SHUT_RDWR);
    socket.reset();
    pthread_setcancelstate(previous, nullptr);
    return 1;
}

int TcpClient2::_SockRead3(int descriptor, char* buffer, unsigned long length) {
    pollfd readable{descriptor, POLLIN, 0};
    if (poll(&readable, 1, kReadWaitMilliseconds) == 0) return 0;
    return SockRead3(descriptor, buffer, length);
}

std::shared_ptr<Descriptor> TcpClient2::currentSocket(int line) {
    const bool tracing = (debug_level & kTraceLocks) != 0;
    std::shared_ptr<Descriptor> socket;
    {
        MutexLock lock(socket_mutex_);
        socket = socket_;
    }
    if (tracing) {
        PrintLine(ownThread(), " SendRead Lock (fd: ", number(socket), ") line ", line, "\nlocked");
    }
    return socket;
}

std::shared_ptr<Descriptor> TcpClient2::takeSocket() {
    std::shared_ptr<Descriptor> socket;
    MutexLock lock(socket_mutex_);
    socket.swap(socket_);
    return socket;
}

bool TcpClient2::silentTooLong() const {
    timeval limit{kSilenceSeconds, 0};
    timeval elapsed = elapsedSince(last_activity);
    return TimevalMensi(&limit, &elapsed);
}

void TcpClient2::endReading(const char* reason) {
    std::shared_ptr<Descriptor> socket = takeSocket();
    trace(reason, server_address, ":", port, " (socket ", number(socket), ")");
    // When another thread ends the connection, it also logs that.
    if (socket) {
        _Disconnect(socket);
        OnDisconnect();
        connected = 0;
    }
    Exit();
}

std::string TcpClient2::ServerName() const {
    return server_address + ":" + std::to_string(port);
}

std::string TcpClient2::Read() {
    char buffer[kBlock + 1];
    int result = 0;
    if (connected != 0) {
        const std::shared_ptr<Descriptor> socket = currentSocket(__LINE__);
        if (!socket) endReading("Other thread disconected us ");
        result = socket ? _SockRead3(socket->get(), buffer, kBlock) : 0;
        AfterRead(result, buffer);
    }
    if (hang_up_) endReading("hung up by a hook ");
    if (result == 0 && silentTooLong()) endReading("bToutElapsad ");
    if (result == kSockFailed) endReading("resread == -1 ");
    if (result == kSockPeerClosed) endReading("resread == -3 ");
    if (result < 1) return "";
    last_activity = MonotonicTime();
    deliver(result, buffer);
    if (hang_up_) endReading("hung up by a hook ");
    return std::string(buffer, static_cast<size_t>(result));
}

void TcpClient2::deliver(int length, char* data) {
    data[length] = '\0';
    const auto* const bytes = reinterpret_cast<const unsigned char*>(data);
    const std::string block(data, static_cast<size_t>(length));
    if ((debug_level & kShowReceived) != 0) {
        PrintLine("TCPClient2: recvd in text: ", binHex2(length, data));
    }
    ZpracujPacket(length, bytes);
    ZpracujPacket(block);
    if (events != nullptr) {
        events->ZpracujPacket(length, bytes);
        events->ZpracujPacket(block);
    }
    char one[2] = {0, 0};
    for (int i = 0; i < length; ++i) {
        one[0] = data[i];
        one[1] = '\0';
        ZpracujByte(one);
        ZpracujByte(bytes[i]);
    }
}

void TcpClient2::ExecuteThread() {
    while (!end_flag && !disconnect_requested) {
        if (connected == 0) {
            MySleep(0, kNotConnectedPauseNanoseconds);
        } else {
            Read();
        }
    }
    disconnect_requested = false;
}

void TcpClient2::ZpracujPacket(int /*length*/, const unsigned char* /*data*/) {}
void TcpClient2::ZpracujPacket(std::string /*data*/) {}
void TcpClient2::ZpracujByte(char* /*oneChar*/) {}
void TcpClient2::ZpracujByte(unsigned char /*byte*/) {}
void TcpClient2::OnConnect() {}
void TcpClient2::AfterRead(int /*result*/, char* /*buffer*/) {}
void TcpClient2::OnDisconnect() {}
