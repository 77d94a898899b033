// korvato-server-sim: the simulated Korvato server as a program.
#include <exception>

#include "knihovny/debugerror.h"
#include "sim/server/korvato_server.h"
#include "sim/server/server_events.h"
#include "sim/support/program.h"

namespace {

// Tells the ports, serves, plays.
int serve(sim::Program& program, const sim::KorvatoServer::Options& options) {
    const sim::EventLog log(program.sink());
    sim::KorvatoServer server(options, log);
    sim::Dispatcher dispatcher;
    sim::handleServerEvents(dispatcher, server);
    Json::Value ready;
    ready["https"] = server.httpsPort();
    ready["tcp"] = server.tcpPort();
    ready["project"] = options.project;
    log.tell("ready",
             "ready https " + std::to_string(server.httpsPort()) + " tcp " + std::to_string(server.tcpPort()),
             ready);
    return program.run(dispatcher, log);
}

}  // namespace

int main(int argc, char** argv) {
    sim::KorvatoServer::Options options{.https_port = 0, .tcp_port = 11010, .project = ""};
    const auto port = [](int& number) {
        return [&number](const std::string& text) { return sim::takeNumber(text, 0, 65535, number); };
    };
    const auto project = [&](const std::string& text) {
        options.project = text;
        return std::string();
    };
    sim::Program program(
        "korvato-server-sim",
        "Simulates the Korvato server: the alarm history over HTTPS, and the TCP port that takes\n"
        "acknowledgements, both on 127.0.0.1.",
        {{"port", "N", "HTTPS port; 0, the default, takes any free one", port(options.https_port)},
         {"tcp-port", "N", "TCP port; 0 takes any free one; default 11010", port(options.tcp_port)},
         {"project", "ID", "project id; default the scenario's, else 1", project}});
    if (const auto status = program.parse(argc, argv)) return *status;
    if (options.project.empty() && program.scenario()) options.project = program.scenario()->project;
    if (options.project.empty()) options.project = "1";
    try {
        return serve(program, options);
    } catch (const std::exception& error) {
        PrintErrorLine("korvato-server-sim: ", error.what());
        return 1;
    }
}
