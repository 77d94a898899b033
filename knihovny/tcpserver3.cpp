#include "knihovny/tcpserver3.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "knihovny/debugerror.h"
#include "knihovny/error_repeats.h"
#include "knihovny/generalfce.h"
#include "knihovny/socketfce.h"

namespace {

constexpr char kIdentity[] = "tcpserver3";
constexpr int kBacklog = 3;
constexpr int kBlock = 2048;
constexpr int kSendSeconds = 3;
constexpr int kDisconnectSeconds = 10;
constexpr long kAcceptFailedNanoseconds = 100000000;
constexpr char kTextEnd = 3;

// Waits up to a second for something to read. The result of select.
int waitReadable(int descriptor) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(descriptor, &set);
    timeval limit{1, 0};
    return select(FD_SETSIZE, &set, nullptr, nullptr, &limit);
}

bool fitsDescriptorSet(int descriptor) {
    return descriptor < FD_SETSIZE;
}

int logFailure(const char* text) {
    systemLogAndPrint(kIdentity, text);
    return -1;
}

std::string dottedAddress(const sockaddr_in& address) {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return text;
}

}  // namespace

TcpServer3::TcpServer3() {
    sem_init(&start_handshake, 0, 0);
}

TcpServer3::~TcpServer3() {
    End();
    sem_destroy(&start_handshake);
    pthread_cond_destroy(&clients_changed);
}

void TcpServer3::Init(int listening_port, int timeout) {
    end_flag = false;
    port = listening_port;
    inactivity_timeout = timeout;
}

void TcpServer3::Init(int listening_port, int timeout, bool localOnly) {
    Init(listening_port, timeout);
    local_only = localOnly;
}

void TcpServer3::SetDebugLevel(int level) {
    debug_level_ = level;
}

void TcpServer3::NastavUkonceni(bool value) {
    end_flag = value;
}

void TcpServer3::End() {
    NastavUkonceni(true);
    Stop();
    MutexLock lock(mutex_);
    while (client_threads_ > 0) pthread_cond_wait(&clients_changed, mutex_.native());
}

// ---------------------------------------------------------------------------------------------------------------
// Accepting.

int TcpServer3::openListeningSocket() {
    const int listening = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    if (listening == -1) return logFailure("Nelze vytvorit soket");
    const int on = 1;
    if (setsockopt(listening, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == -1) logFailure("Setsockopt");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(local_only ? INADDR_LOOPBACK : INADDR_ANY);
    const char* failure = nullptr;
    if (!fitsDescriptorSet(listening)) {
        failure = "Nelze vytvorit soket";
    } else if (bind(listening, reinterpret_cast<sockaddr*>(&address), sizeof address) == -1) {
        failure = "Problem s pojmenovanim soketu.";
    } else {
        if (fcntl(listening, F_SETFL, O_NONBLOCK) == -1) logFailure("Nelze nastavit NONBLOCK.");
        if (listen(listening, kBacklog) == -1) failure = "Problem s vytvorenim fronty";
    }
    if (failure != nullptr) {
        close(listening);
        return logFailure(failure);
    }
    socklen_t length = sizeof address;
    if (getsockname(listening, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        listening_port_ = ntohs(address.sin_port);
    }
    return listening;
}

void TcpServer3::ExecuteThread() {
    if (debug_level_ >= 3) PrintLine("TcpServer3::ExecuteThread");
    // Clients are served while the server has a thread: the starting thread has yet to write that down.
    while (threadID() == 0 && !end_flag) MySleep(0, 10000);
    const int listening = openListeningSocket();
    if (listening == -1) return;
    acceptClients(listening);
    OdpojKlienta();
    listening_port_ = 0;
    if (shutdown(listening, SHUT_RDWR) == -1) PrintSystemError("Shutdown:");
    if (close(listening) == -1) PrintSystemError("Close:");
}

void TcpServer3::acceptClients(int listening) {
    ErrorRepeats repeats;
    while (!end_flag) {
        const int ready = waitReadable(listening);
        if (ready == -1) PrintSystemError("select mainSocket");
        if (ready < 1) continue;
        sockaddr_in address{};
        socklen_t length = sizeof address;
        const int descriptor =
            accept4(listening, reinterpret_cast<sockaddr*>(&address), &length, SOCK_CLOEXEC);
        if (descriptor == -1) {
            // Without descriptors left, the client keeps waiting and the next accept fails at once.
            if (repeats.due(errno)) PrintSystemError("Accept mainSocket failed");
            MySleep(0, kAcceptFailedNanoseconds);
            continue;
        }
        startClient(
            std::make_shared<Connection>(descriptor, dottedAddress(address), ntohs(address.sin_port)));
    }
}

void TcpServer3::startClient(std::shared_ptr<Connection> connection) {
    const int descriptor = connection->socket.get();
    if (!fitsDescriptorSet(descriptor)) {
        PrintErrorLine("Accept mainSocket failed: descriptor ", descriptor, " is too high");
        return;
    }
    if (fcntl(descriptor, F_SETFL, O_NONBLOCK) == -1) PrintSystemError("Nelze nastavit NONBLOCK");
    {
        MutexLock lock(mutex_);
        ++client_threads_;
    }
    auto data = std::make_unique<StartData>(StartData{this, std::move(connection)});
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread = 0;
    const int result = pthread_create(&thread, &attributes, clientEntry, data.get());
    pthread_attr_destroy(&attributes);
    if (result != 0) {
        errno = result;
        PrintSystemError("ClientThread failed creating thread");
        MutexLock lock(mutex_);
        --client_threads_;
        return;
    }
    static_cast<void>(data.release());  // the thread's now
    while (sem_wait(&start_handshake) == -1 && errno == EINTR) {
    }
}

// ---------------------------------------------------------------------------------------------------------------
// A client's thread.

// Signs a client off when its thread leaves, also when the thread is cancelled or a hook ends it.
class TcpServer3::ClientExit {
  public:
    ClientExit(TcpServer3& server, std::shared_ptr<Connection> connection)
        : server_(server), connection_(std::move(connection)) {}
    ~ClientExit() {
        server_.OnClose();
        server_.OnClose(connection_->ip, connection_->port);
        server_.forgetClient();
        connection_.reset();
        // The server may be gone as soon as the lock is given back.
        MutexLock lock(server_.mutex_);
        --server_.client_threads_;
        pthread_cond_broadcast(&server_.clients_changed);
    }
    ClientExit(const ClientExit&) = delete;
    ClientExit& operator=(const ClientExit&) = delete;

  private:
    TcpServer3& server_;
    std::shared_ptr<Connection> connection_;
};

void* TcpServer3::clientEntry(void* data) {
    const std::unique_ptr<StartData> start(static_cast<StartData*>(data));
    start->server->runClient(std::move(start->connection));
    return nullptr;
}

void TcpServer3::runClient(std::shared_ptr<Connection> connection) {
    const Connection& own = *connection;
    const ClientExit exit(*this, connection);
    {
        MutexLock lock(mutex_);
        clients.push_back({std::move(connection), pthread_self()});
        no_clients = clients.empty();
        pthread_cond_broadcast(&clients_changed);
    }
    sem_post(&start_handshake);
    if (debug_level_ > 2) PrintLine("TcpServer3::ClientThread");
    OnConnect();
    OnConnect(own.ip, own.port);
    readClient(own);
}

void TcpServer3::readClient(const Connection& connection) {
    const int descriptor = connection.socket.get();
    char data[kBlock + 1];
    time_t last_activity = MonotonicTime().tv_sec;
    while (!takeDisconnectRequest()) {
        const int ready = waitReadable(descriptor);
        if (ready == -1) PrintSystemError("select client");
        if (ready == 0 && MonotonicTime().tv_sec - last_activity > inactivity_timeout) return;
        if (ready < 1) continue;
        const int length = SockRead3(descriptor, data, kBlock);
        if (length < 0) return;
        if (length == 0 || threadID() == 0) continue;
        deliver(connection, length, data);
        last_activity = MonotonicTime().tv_sec;
    }
}

void TcpServer3::deliver(const Connection& connection, int length, char* data) {
    data[length] = '\0';
    const auto* const bytes = reinterpret_cast<const unsigned char*>(data);
    ZpracujPacket(length, bytes);
    ZpracujPacket(length, bytes, connection.ip.c_str(), connection.port);
    ZpracujPacket(length, bytes, connection.ip, connection.port);
    char one[2] = {0, 0};
    for (int i = 0; i < length; ++i) {
        one[0] = data[i];
        ZpracujByte(one);
        ZpracujByte(one, connection.ip, connection.port);
    }
}

bool TcpServer3::takeDisconnectRequest() {
    MutexLock lock(mutex_);
    return disconnect_requests.remove(pthread_self()) > 0;
}

void TcpServer3::forgetClient() {
    MutexLock lock(mutex_);
    // A request that came too late must not meet a later thread with the same id.
    disconnect_requests.remove(pthread_self());
    const auto own = std::find_if(clients.begin(), clients.end(),
                                  [](const Client& client) { return client.thread == pthread_self(); });
    if (own != clients.end()) clients.erase(own);
    no_clients = clients.empty();
    pthread_cond_broadcast(&clients_changed);
}

// ---------------------------------------------------------------------------------------------------------------
// Sending and disconnecting, from any thread.

TcpServer3::Connections TcpServer3::receivers() {
    Connections all;
    MutexLock lock(mutex_);
    for (const Client& client : clients) {
        if (client.thread == pthread_self()) return {client.connection};
        all.push_back(client.connection);
    }
    return all;
}

TcpServer3::Connections TcpServer3::receivers(const std::string& ip, int client_port) {
    Connections matching;
    MutexLock lock(mutex_);
    for (const Client& client : clients) {
        if (client.connection->ip == ip && client.connection->port == client_port) {
            matching.push_back(client.connection);
        }
    }
    return matching;
}

int TcpServer3::sendTo(const Connections& connections, const char* data, int length) {
    int result = 0;
    for (const std::shared_ptr<Connection>& connection : connections) {
        MutexLock lock(connection->send_mutex);
        result = SockWriteTimeout(connection->socket.get(), data,
                                  static_cast<unsigned long>(std::max(length, 0)), kSendSeconds, 0);
        if (result < 1) PrintSystemError("SockWriteERRor:");
    }
    return result;
}

int TcpServer3::SendBinary(const char* data, int length) {
    return sendTo(receivers(), data, length);
}

int TcpServer3::SendBinaryWithTextEnd(const char* text, int length) {
    std::string buffer(text);
    buffer += kTextEnd;
    return SendBinary(buffer.c_str(), std::min(length, static_cast<int>(buffer.size())) + 1);
}

int TcpServer3::SendBinary(std::string ip, int client_port, const char* data, int length) {
    return sendTo(receivers(ip, client_port), data, length);
}

int TcpServer3::Send(std::string ip, int client_port, std::string data) {
    return SendBinary(std::move(ip), client_port, data.data(), static_cast<int>(data.size()));
}

int TcpServer3::SendByte(std::string ip, int client_port, char c) {
    return SendBinary(std::move(ip), client_port, &c, 1);
}

void TcpServer3::OdpojKlienta(std::string ip, int client_port) {
    MutexLock lock(mutex_);
    for (const Client& client : clients) {
        if (client.connection->ip == ip && client.connection->port == client_port) {
            disconnect_requests.push_back(client.thread);
        }
    }
}

void TcpServer3::OdpojKlienta() {
    {
        MutexLock lock(mutex_);
        for (const Client& client : clients) disconnect_requests.push_back(client.thread);
    }
    const int result = waitOnCondition(&no_clients, &clients_changed, mutex_.native(), kDisconnectSeconds);
    if (result == 0) return;
    errno = result;
    PrintSystemError("Nepodarilo se odpojit vsechny klienty:");
}

bool TcpServer3::Connected() {
    MutexLock lock(mutex_);
    return !clients.empty();
}

void TcpServer3::ZpracujByte(const char* /*oneChar*/) {}
void TcpServer3::ZpracujByte(const char* /*oneChar*/, std::string /*ip*/, int /*client_port*/) {}
void TcpServer3::ZpracujPacket(int /*length*/, const unsigned char* /*data*/) {}
void TcpServer3::ZpracujPacket(int /*length*/, const unsigned char* /*data*/, const char* /*ip*/,
                               int /*client_port*/) {}
void TcpServer3::ZpracujPacket(int /*length*/, const unsigned char* /*data*/, std::string /*ip*/,
                               int /*client_port*/) {}
void TcpServer3::OnConnect() {}
void TcpServer3::OnConnect(std::string /*ip*/, int /*client_port*/) {}
void TcpServer3::OnClose() {}
void TcpServer3::OnClose(std::string /*ip*/, int /*client_port*/) {}
