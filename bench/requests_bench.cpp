// Requests a second (items/s), in the daemon's own process and over real sockets.
//
// FastCGI: the responder beside a minimal one that calls libfcgi in a loop, answers the same text and makes
// the same pause of 50 us. One client asks again and again, or eight do at once. What else runs on the
// machine disturbs both, so run them interleaved and compare the medians:
// --benchmark_filter=Fcgi --benchmark_enable_random_interleaving=true --benchmark_repetitions=15
//
// TCP: 100 connected clients at once, each with 100 requests, all answered; the server pauses for 50 us
// behind each.
#include <benchmark/benchmark.h>
#include <fcgiapp.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "alarmd/alarmd.h"
#include "alarmd/requests/fcgi_responder.h"
#include "alarmd/requests/tcp_request_server.h"
#include "bench/quiet.h"
#include "knihovny/generalfce.h"
#include "tests/support/fcgi_client.h"

namespace {

constexpr char kRequest[] = "{\"t\":54}";
constexpr char kAnswer[] = "{\"r\":54,\"s\":1,\"d\":{\"Timestamp\":0,\"From\":\"\",\"Text\":\"\"}}\n";
constexpr int kMinimalPort = 11992;

const bool kNoSigpipe = signal(SIGPIPE, SIG_IGN) != SIG_ERR;

// Both responders run until the process ends.
int daemonPort() {
    static FcgiGate gate(1 << 20);
    static const int started = [] {
        FCGX_Init();
        if (gate.listenOn(0) != 0) abort();
        std::thread([] { serveRequests(gate); }).detach();
        return gate.listeningPort();
    }();
    return started;
}

void serveMinimally(int listening) {
    FCGX_Request request;
    FCGX_InitRequest(&request, listening, 0);
    while (FCGX_Accept_r(&request) == 0) {
        char body[512];
        while (FCGX_GetStr(body, sizeof body, request.in) > 0) {
        }
        FCGX_FPrintF(request.out, "\n%s", kAnswer);
        MySleep(0, 50000);
    }
}

int minimalPort() {
    static const int listening = [] {
        FCGX_Init();
        const int descriptor = FCGX_OpenSocket(("127.0.0.1:" + std::to_string(kMinimalPort)).c_str(), 400);
        std::thread([descriptor] { serveMinimally(descriptor); }).detach();
        return descriptor;
    }();
    return listening < 0 ? 0 : kMinimalPort;
}

void askOnce(int to_port) {
    static const std::string request = fcgi::request(kRequest);
    const fcgi::Client client(to_port);
    client.say(request);
    if (client.hear().out != std::string("\n") + kAnswer) abort();
}

void askInTurn(benchmark::State& state, int to_port) {
    Quiet quiet;
    for (auto _ : state) askOnce(to_port);
    state.SetItemsProcessed(state.iterations());
}

void askAtOnce(benchmark::State& state, int to_port) {
    constexpr int kClients = 8;
    constexpr int kEach = 25;
    Quiet quiet;
    for (auto _ : state) {
        std::vector<std::thread> clients;
        for (int i = 0; i < kClients; ++i) {
            clients.emplace_back([=] {
                for (int k = 0; k < kEach; ++k) askOnce(to_port);
            });
        }
        for (std::thread& client : clients) client.join();
    }
    state.SetItemsProcessed(state.iterations() * kClients * kEach);
}

void BM_FcgiMinimal(benchmark::State& state) {
    askInTurn(state, minimalPort());
}
void BM_FcgiDaemon(benchmark::State& state) {
    askInTurn(state, daemonPort());
}
void BM_FcgiMinimalEightClients(benchmark::State& state) {
    askAtOnce(state, minimalPort());
}
void BM_FcgiDaemonEightClients(benchmark::State& state) {
    askAtOnce(state, daemonPort());
}
BENCHMARK(BM_FcgiMinimal)->UseRealTime();
BENCHMARK(BM_FcgiDaemon)->UseRealTime();
BENCHMARK(BM_FcgiMinimalEightClients)->UseRealTime();
BENCHMARK(BM_FcgiDaemonEightClients)->UseRealTime();

bool hearAnswer(const fcgi::Client& client) {
    std::string answer;
    char block[256];
    while (answer.size() < sizeof kAnswer - 1) {
        const ssize_t count = recv(client.descriptor(), block, sizeof block, 0);
        if (count <= 0) return false;
        answer.append(block, static_cast<size_t>(count));
    }
    return answer == kAnswer;
}

int answered(const fcgi::Client& client, int requests) {
    int count = 0;
    for (int k = 0; k < requests && client.say(kRequest) && hearAnswer(client); ++k) ++count;
    return count;
}

void BM_TcpHundredClients(benchmark::State& state) {
    constexpr int kClients = 100;
    constexpr int kEach = 100;
    Quiet quiet;
    modemInit = true;
    myTcpServer server;
    server.Init(0, 15, true);
    server.Start(0);
    while (server.ListeningPort() == 0) MySleep(0, 1000000);
    // One by one: no more than three connections wait to be accepted, a fourth is tried again after a second.
    std::vector<fcgi::Client> connections;
    for (int i = 0; i < kClients; ++i) {
        if (answered(connections.emplace_back(server.ListeningPort()), 1) != 1) abort();
    }
    for (auto _ : state) {
        std::atomic<int> all{0};
        std::vector<std::thread> clients;
        for (const fcgi::Client& connection : connections) {
            clients.emplace_back([&] { all += answered(connection, kEach); });
        }
        for (std::thread& client : clients) client.join();
        if (all != kClients * kEach) state.SkipWithError("not all requests were answered");
    }
    state.SetItemsProcessed(state.iterations() * kClients * kEach);
}
BENCHMARK(BM_TcpHundredClients)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace
