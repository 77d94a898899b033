// The TCP request server: JSON requests of local clients, one a packet.
#pragma once

#include <string>

#include "knihovny/tcpserver3.h"

// Answers protocol 50 (send an SMS) and 54 (the last received SMS). To be started with Init(port, timeout,
// true), so that it listens on 127.0.0.1 only, and Start.
class myTcpServer final : public TcpServer3 {
  public:
    ~myTcpServer() { End(); }

  protected:
    void ZpracujPacket(int length, const unsigned char* data, std::string client_ip,
                       int client_port) override;
    using TcpServer3::ZpracujPacket;

    void OnConnect(std::string client_ip, int client_port) override;
    using TcpServer3::OnConnect;
};
