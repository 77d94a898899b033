#include "alarmd/requests/tcp_request_server.h"

#include <utility>

#include "alarmd/alarmd.h"
#include "alarmd/requests/answers.h"
#include "alarmd/requests/daemon_state.h"
#include "knihovny/debugerror.h"

void myTcpServer::ZpracujPacket(int length, const unsigned char* data, std::string client_ip,
                                int client_port) {
    const std::string request(reinterpret_cast<const char*>(data), static_cast<size_t>(length));
    Answer answer = answerTcpRequest(request, takeRequestState(), modemInit);
    SmsPlace place = takePlace(answer, client_ip, client_port);
    if (!answer.log.empty()) Print(answer.log);
    if (!answer.body.empty()) Send(client_ip, client_port, answer.body);
    carryOut(answer, std::move(place));
    pauseAfter(answer);
}

void myTcpServer::OnConnect(std::string client_ip, int client_port) {
    PrintLine("pripojen klient:", client_ip, ":", client_port);
}
