// gsm-modem-sim: the simulated GSM modem as a program.
#include <exception>

#include "knihovny/debugerror.h"
#include "sim/modem/gsm_modem.h"
#include "sim/modem/modem_events.h"
#include "sim/support/program.h"

namespace {

// Tells the device, answers, plays.
int serve(sim::Program& program, const sim::GsmModem::Options& options) {
    const sim::EventLog log(program.sink());
    sim::GsmModem modem(options, log);
    sim::Dispatcher dispatcher;
    sim::handleModemEvents(dispatcher, modem, log);
    Json::Value ready;
    ready["device"] = modem.device();
    ready["link"] = options.link;
    ready["model"] = options.model->name;
    log.tell("ready", "ready " + (options.link.empty() ? modem.device() : options.link), ready);
    modem.start();
    return program.run(dispatcher, log);
}

std::string takeModel(const std::string& name, sim::GsmModem::Options& options) {
    if (const sim::ModemModel* model = sim::findModel(name)) {
        options.model = model;
        return {};
    }
    std::string reason = "is no known model; known are";
    for (const sim::ModemModel& model : sim::modemModels()) reason += std::string(" ") + model.name;
    return reason;
}

}  // namespace

int main(int argc, char** argv) {
    sim::GsmModem::Options options;
    const auto text = [](std::string& place) {
        return [&place](const std::string& value) {
            place = value;
            return std::string();
        };
    };
    const auto off = [](bool& place) {
        return [&place](const std::string&) {
            place = false;
            return std::string();
        };
    };
    const auto model = [&](const std::string& name) { return takeModel(name, options); };
    sim::Program program("gsm-modem-sim",
                         "Simulates a GSM modem on a pseudo terminal, with a network and phones around it.",
                         {{"link", "PATH", "keep a symbolic link to the port there", text(options.link)},
                          {"model", "NAME", "model of the modem; default ME909u-521", model},
                          {"pin", "PIN", "the PIN that the SIM asks for; default none", text(options.pin)},
                          {"no-sim", nullptr, "no SIM is in", off(options.sim)},
                          {"unplugged", nullptr, "begin unplugged", off(options.plugged)}});
    if (const auto status = program.parse(argc, argv)) return *status;
    try {
        return serve(program, options);
    } catch (const std::exception& error) {
        PrintErrorLine("gsm-modem-sim: ", error.what());
        return 1;
    }
}
