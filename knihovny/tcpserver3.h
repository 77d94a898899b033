#pragma once

#include <pthread.h>
#include <semaphore.h>

#include <atomic>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "knihovny/descriptor.h"
#include "knihovny/mutex.h"
#include "knihovny/thread3.h"

// A TCP server. Its own thread accepts; each client has a thread that reads its socket and hands what came to
// the hooks. There is no framing: what one read gave, up to 2048 bytes, is one packet. A client that is
// silent for longer than the inactivity timeout is dropped.
//
// Life: Init, Start, then NastavUkonceni(true) and Stop: the listening ends within about a second, the
// clients are asked to go and waited for, 10 seconds at most. Those four are for one controlling thread, the
// others for any.
//
// A derived class that overrides a hook calls End in its own destructor, and brings the other overloads of a
// hook's name into its scope ("using TcpServer3::ZpracujPacket;").
class TcpServer3 : public Thread3 {
  public:
    TcpServer3();
    ~TcpServer3();

    // Sets the port (0 lets the system choose one), the inactivity timeout in seconds (15 before) and whether
    // to listen on 127.0.0.1 only (false before), and clears the end flag. REQUIRES: not started.
    void Init(int listening_port, int timeout);
    void Init(int listening_port, int timeout, bool localOnly);

    // 0 is silent; above 2 the begin of each thread is printed.
    void SetDebugLevel(int level);

    void NastavUkonceni(bool value);

    // NastavUkonceni(true) and Stop; returns when the last client thread has ended.
    void End() EXCLUDES(mutex_);

    // The port that the server listens on, 0 while it does not.
    int ListeningPort() const { return listening_port_; }

    // Each sends to one or more clients, at most 3 seconds a client; a failed transfer is logged on standard
    // error, and the client stays. Returns what the last transfer gave: length, -2 when its time ran out, -1
    // or 0 when it failed; 0 without a client. To the own client when called on a client's thread, else to
    // all clients.
    int SendBinary(const char* data, int length) EXCLUDES(mutex_);
    // The same with the byte 3 as end mark behind text. REQUIRES: length is the length of text.
    int SendBinaryWithTextEnd(const char* text, int length) EXCLUDES(mutex_);
    // To the clients with this address and port.
    int SendBinary(std::string ip, int client_port, const char* data, int length) EXCLUDES(mutex_);
    int Send(std::string ip, int client_port, std::string data);
    int SendByte(std::string ip, int client_port, char c);

    // Asks the clients with this address and port to end; does not wait.
    void OdpojKlienta(std::string ip, int client_port) EXCLUDES(mutex_);
    // Asks all clients to end and waits until they are gone, at most 10 seconds. Not for a client's own
    // thread.
    void OdpojKlienta() EXCLUDES(mutex_);

    // True while there is a client.
    bool Connected() EXCLUDES(mutex_);

  protected:
    // The hooks do nothing by themselves, and their order stays. They are called on the client's thread,
    // those of several clients at once. A packet comes in all forms, with a zero byte behind it, then its
    // bytes one by one (oneChar[1] is 0).
    virtual void ZpracujByte(const char* oneChar);
    virtual void ZpracujByte(const char* oneChar, std::string ip, int client_port);
    virtual void ZpracujPacket(int length, const unsigned char* data);
    virtual void ZpracujPacket(int length, const unsigned char* data, const char* ip, int client_port);
    virtual void ZpracujPacket(int length, const unsigned char* data, std::string ip, int client_port);
    virtual void OnConnect();
    virtual void OnConnect(std::string ip, int client_port);
    virtual void OnClose();
    virtual void OnClose(std::string ip, int client_port);

    void ExecuteThread() override;

  private:
    struct Connection {
        Connection(int descriptor, std::string address, int client_port)
            : socket(descriptor), ip(std::move(address)), port(client_port) {}
        const Descriptor socket;
        const std::string ip;
        const int port;
        Mutex send_mutex;  // one transfer at a time
    };
    struct Client {
        std::shared_ptr<Connection> connection;
        pthread_t thread;
    };
    // What a new client thread gets.
    struct StartData {
        TcpServer3* server;
        std::shared_ptr<Connection> connection;
    };
    class ClientExit;

    using Connections = std::vector<std::shared_ptr<Connection>>;

    int openListeningSocket();
    void acceptClients(int listening);
    void startClient(std::shared_ptr<Connection> connection) EXCLUDES(mutex_);
    static void* clientEntry(void* data);
    void runClient(std::shared_ptr<Connection> connection) EXCLUDES(mutex_);
    void readClient(const Connection& connection) EXCLUDES(mutex_);
    void deliver(const Connection& connection, int length, char* data);
    bool takeDisconnectRequest() EXCLUDES(mutex_);
    void forgetClient() EXCLUDES(mutex_);
    // The own client on a client's thread, else all.
    Connections receivers() EXCLUDES(mutex_);
    Connections receivers(const std::string& ip, int client_port) EXCLUDES(mutex_);
    static int sendTo(const Connections& connections, const char* data, int length);

    std::atomic<int> debug_level_{0};
    Mutex mutex_;  // the clients; never held while sending
    std::list<pthread_t> disconnect_requests GUARDED_BY(mutex_);
    std::list<Client> clients GUARDED_BY(mutex_);
    bool no_clients GUARDED_BY(mutex_) = true;
    int client_threads_ GUARDED_BY(mutex_) = 0;  // those that may still use this object
    pthread_cond_t clients_changed = PTHREAD_COND_INITIALIZER;
    sem_t start_handshake;
    std::atomic<int> listening_port_{0};
    std::atomic<bool> end_flag{false};
    std::atomic<int> inactivity_timeout{15};
    int port = 0;
    bool local_only = false;
};
