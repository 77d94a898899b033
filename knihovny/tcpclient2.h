#pragma once

#include <netinet/in.h>
#include <sys/time.h>

#include <atomic>
#include <memory>
#include <string>

#include "knihovny/descriptor.h"
#include "knihovny/mutex.h"
#include "knihovny/thread3.h"

// Hears what a client receives, on the client's reading thread: each received block in both forms.
class TcpClient2Events {
  public:
    virtual ~TcpClient2Events() = default;
    virtual void ZpracujPacket(int length, const unsigned char* data) = 0;
    virtual void ZpracujPacket(const std::string& data) = 0;
};

// A TCP client that connects when something is to be sent, and reads on a thread of its own until the server
// closes, a read fails or nothing came for more than 5 seconds. The next send connects anew.
//
// Send, SendBinary, Connect, Disconnect, IsConnected and Stop may be called from any thread but the reading
// one.
//
// A derived class that overrides a hook calls Disconnect in its own destructor, and brings the other
// overloads of a hook's name into its scope ("using TcpClient2::ZpracujByte;").
//
// Bits of debug_level: 32 prints what is received, 33554432 traces connections, 134217728 traces locks.
class TcpClient2 : public virtual Thread3 {
  public:
    TcpClient2() = default;
    ~TcpClient2();

    // Set the server: a dotted IPv4 address and a port. Before that it is 127.0.0.1 port 502. REQUIRES: not
    // connected.
    void Init(const char* address, int server_port);
    void Init(std::string address, int server_port);

    // Accepts a pause after a failed connection and does nothing with it.
    void SetConnectFailSleep(int seconds);

    // Has the events told of what is received; null ends that. REQUIRES: not connected.
    void InstallEvents(TcpClient2Events* sink);

    // Unless connected, tries to connect for 2 seconds. Returns whether it is connected.
    bool Connect() EXCLUDES(connect_mutex_, socket_mutex_);

    // Connects if need be and sends, for at most 3 seconds. Returns length; 0 when nothing was written
    // because the client could not connect or is ending; -2 when the time ran out; -1 when a write failed
    // (logged).
    int SendBinary(const char* data, int length) EXCLUDES(connect_mutex_, send_mutex_, socket_mutex_);
    int Send(std::string text);

    // Closes the connection and joins the reading thread. Returns whether it is still connected.
    bool Disconnect() EXCLUDES(connect_mutex_, socket_mutex_);

    // Sets the end flag: true ends the reading thread and keeps sends from writing.
    void NastavUkonceni(bool value);

    // Joins the reading thread, which ends when the end flag is set. The connection stays open.
    void Stop() EXCLUDES(connect_mutex_);

    bool IsConnected() const { return connected != 0; }

  protected:
    // The virtual functions come in an order that stays; a new one goes behind the others.
    void ExecuteThread() override;

    // The hooks do nothing by themselves.
    // Each received block of up to 512 bytes, with a zero byte behind it, in both forms, then its bytes one
    // by one. On the reading thread.
    virtual void ZpracujPacket(int length, const unsigned char* data);
    virtual void ZpracujPacket(std::string data);
    virtual void ZpracujByte(char* oneChar);  // oneChar[1] is 0
    virtual void ZpracujByte(unsigned char byte);
    // A connection was made. On the connecting thread, before the first byte is read.
    virtual void OnConnect();
    // What each read gave: a byte count, 0 nothing now, -1 failed, -3 closed by the server. On the reading
    // thread, before the block's other hooks.
    virtual void AfterRead(int result, char* buffer);
    // A connection ended; nothing of it is delivered any more, and no new one is made until this returns. On
    // the reading thread or in Disconnect. Must not call the client's other functions.
    virtual void OnDisconnect();

    // For a hook of the reading thread: ends the connection, and the thread with it, when AfterRead calls
    // this as soon as it returns (what was read is not delivered any more), else behind the last hook of the
    // received block. OnDisconnect follows, and the next send connects anew.
    void HangUp() { hang_up_ = true; }

    // The server's address and port: "127.0.0.1:502". For hooks, and for what may call Init.
    std::string ServerName() const;

    // One read of the reading thread: what was received, empty when nothing came. Ends the thread with the
    // connection.
    std::string Read() EXCLUDES(socket_mutex_);

  private:
    // Opens a connection into socket. 1, or -1: an error other than a server that does not answer was logged.
    int _FullConnect2(std::shared_ptr<Descriptor>& socket, const std::string& address, int server_port,
                      int seconds, int microseconds);
    // 0, or -1 when the time ran out.
    int _ConnectTime2(int descriptor, const sockaddr_in& server, int seconds, int microseconds);
    // Ends the connection for all threads, and lets go of socket: the last thread to do so closes it. 1.
    int _Disconnect(std::shared_ptr<Descriptor>& socket);
    int _SockRead3(int descriptor, char* buffer, unsigned long length);

    std::shared_ptr<Descriptor> currentSocket(int line) EXCLUDES(socket_mutex_);
    // Takes the connection away from other threads. Null when another thread has done so.
    std::shared_ptr<Descriptor> takeSocket() EXCLUDES(socket_mutex_);
    bool silentTooLong() const;
    void endReading(const char* reason) EXCLUDES(socket_mutex_);
    void deliver(int length, char* data);

    TcpClient2Events* events = nullptr;
    std::atomic<int> connected{0};
    int port = 502;
    std::string server_address = "127.0.0.1";
    timeval last_activity{};  // this and the next: written before the reading thread begins, then by it
    bool hang_up_ = false;

    // Lock order: connect, then socket; send, then socket.
    Mutex send_mutex_;     // one transfer at a time
    Mutex connect_mutex_;  // one connecting, disconnecting or joining at a time
    Mutex socket_mutex_;
    std::shared_ptr<Descriptor> socket_ GUARDED_BY(socket_mutex_);

    std::atomic<bool> end_flag{false};
    std::atomic<bool> disconnect_requested{false};
};
