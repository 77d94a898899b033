// gps-sim: the simulated GPS receiver as a program.
#include <exception>

#include "knihovny/debugerror.h"
#include "sim/gps/gps_receiver.h"
#include "sim/support/program.h"

namespace {

// Tells the device, answers, plays.
int serve(sim::Program& program, const sim::GpsReceiver::Options& options) {
    const sim::EventLog log(program.sink());
    sim::GpsReceiver receiver(options, log);
    sim::Dispatcher dispatcher;
    sim::handleGpsEvents(dispatcher, receiver, log);
    Json::Value ready;
    ready["device"] = receiver.device();
    ready["link"] = options.link;
    log.tell("ready", "ready " + (options.link.empty() ? receiver.device() : options.link), ready);
    receiver.start();
    return program.run(dispatcher, log);
}

}  // namespace

int main(int argc, char** argv) {
    sim::GpsReceiver::Options options;
    const auto link = [&](const std::string& value) {
        options.link = value;
        return std::string();
    };
    const auto put = [](bool& place, bool on) {
        return [&place, on](const std::string&) {
            place = on;
            return std::string();
        };
    };
    sim::Program program(
        "gps-sim", "Simulates a GPS receiver on a pseudo terminal.",
        {{"link", "PATH", "keep a symbolic link to the port there", link},
         {"glonass", nullptr, "two satellite systems: talkers GN, GP and GL", put(options.glonass, true)},
         {"unplugged", nullptr, "begin unplugged", put(options.plugged, false)}});
    if (const auto status = program.parse(argc, argv)) return *status;
    try {
        return serve(program, options);
    } catch (const std::exception& error) {
        PrintErrorLine("gps-sim: ", error.what());
        return 1;
    }
}
