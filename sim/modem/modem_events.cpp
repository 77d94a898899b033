#include "sim/modem/modem_events.h"

#include <stdexcept>

namespace sim {
namespace {

struct Target {
    GsmModem& modem;
    const EventLog& log;
};

// ---------------------------------------------------------------------------------------------------------------
// Phones and the network

Json::Value phone(const Target& target, const Json::Value& event) {
    const std::string number = event["phone"].asString();
    target.modem.call([&](AtModem& modem) {
        if (event.isMember("sends")) {
            modem.deliver({.state = StoredMessage::kUnread,
                           .number = number,
                           .name = event["name"].asString(),
                           .stamp = event["stamp"].asString(),
                           .text = event["sends"].asString()});
        } else if (event.isMember("answers")) {
            modem.answerFrom(number, event["answers"].asString(), event["after"].asDouble());
        } else {
            modem.unsolicited("RING");
        }
    });
    return {};
}

Json::Value network(const Target& target, const Json::Value& event) {
    const std::string word = event["network"].asString();
    std::string line = "network " + word;
    if (word == "refuses") line += " the next " + std::to_string(event["count"].asInt());
    target.log.tell("network", line, event);
    target.modem.call([&](AtModem& modem) {
        ModemWorld& world = modem.world;
        if (word == "refuses") {
            world.refusals = event["count"].asInt();
            world.refusal_code = event.get("code", 38).asInt();
        } else if (word == "slow") {
            world.sending = event["seconds"].asDouble();
        } else if (word == "away") {
            world.network = false;
        } else {
            world.network = true;
            world.refusals = 0;
            world.sending = 0;
        }
    });
    return {};
}

// ---------------------------------------------------------------------------------------------------------------
// The modem itself

void unplug(GsmModem& modem, const Json::Value& event) {
    if (event.isMember("after")) {
        modem.unplugAfter(event["after"].asString());
    } else {
        modem.unplug();
    }
}

void plug(GsmModem& modem, const Json::Value&) {
    modem.plug();
}

void restart(GsmModem& modem, const Json::Value&) {
    modem.call([](AtModem& at) {
        if (at.powered()) at.powerUp();
    });
}

void mute(GsmModem& modem, const Json::Value&) {
    modem.call([](AtModem& at) { at.world.mute = true; });
}

void deaf(GsmModem& modem, const Json::Value&) {
    modem.setDeaf(true);
}

void slow(GsmModem& modem, const Json::Value& event) {
    modem.call([&](AtModem& at) { at.world.slow = event["seconds"].asDouble(); });
}

void chatter(GsmModem& modem, const Json::Value& event) {
    modem.call([&](AtModem& at) { at.world.chatter = event["seconds"].asDouble(); });
}

void normal(GsmModem& modem, const Json::Value&) {
    modem.setDeaf(false);
    modem.call([](AtModem& at) {
        at.world.mute = false;
        at.world.slow = 0;
        at.world.chatter = 0;
        at.world.quiet = 0;
        at.world.instead.clear();
    });
}

void quiet(GsmModem& modem, const Json::Value& event) {
    modem.call([&](AtModem& at) { at.world.quiet = event["count"].asInt(); });
}

void instead(GsmModem& modem, const Json::Value& event) {
    modem.call(
        [&](AtModem& at) { at.world.instead.emplace_back(event["seconds"].asDouble(), eventBytes(event)); });
}

void noise(GsmModem& modem, const Json::Value& event) {
    modem.call([&](AtModem& at) { at.say(noiseBytes(event["count"].asInt())); });
}

void say(GsmModem& modem, const Json::Value& event) {
    modem.call([&](AtModem& at) { at.say(eventBytes(event)); });
}

void line(GsmModem& modem, const Json::Value& event) {
    modem.call([&](AtModem& at) { at.unsolicited(event["text"].asString()); });
}

void reply(GsmModem& modem, const Json::Value& event) {
    modem.call([&](AtModem& at) {
        at.replyTo(event["to"].asString(), eventBytes(event), event.get("times", 1).asInt());
    });
}

void model(GsmModem& modem, const Json::Value& event) {
    modem.call([&](AtModem& at) { at.setModel(*findModel(event["name"].asString())); });
}

void simCard(GsmModem& modem, const Json::Value& event) {
    modem.call([&](AtModem& at) {
        at.world.sim = event["modem"].asString() == "sim";
        at.world.pin = event["pin"].asString();
        at.world.tries_left = 3;
        if (at.powered()) at.powerUp();
    });
}

constexpr struct {
    const char* word;
    void (*action)(GsmModem&, const Json::Value&);
} kModemActions[] = {
    {"unplug", unplug}, {"plug", plug},       {"restart", restart}, {"mute", mute},   {"deaf", deaf},
    {"slow", slow},     {"chatter", chatter}, {"normal", normal},   {"noise", noise}, {"says", say},
    {"line", line},     {"reply", reply},     {"model", model},     {"sim", simCard}, {"no sim", simCard},
    {"quiet", quiet},   {"instead", instead},
};

Json::Value modemEvent(const Target& target, const Json::Value& event) {
    const std::string word = event["modem"].asString();
    target.log.tell("modem", "modem " + word, event);
    for (const auto& entry : kModemActions) {
        if (word == entry.word) entry.action(target.modem, event);
    }
    return {};
}

// ---------------------------------------------------------------------------------------------------------------
// Queries

Json::Value storeJson(const MessageStore& store) {
    Json::Value json = Json::arrayValue;
    for (const auto& [index, message] : store.messages()) {
        Json::Value entry;
        entry["index"] = index;
        entry["state"] = stateWord(message.state);
        entry["number"] = message.number;
        entry["stamp"] = message.stamp;
        entry["text"] = message.text;
        json.append(entry);
    }
    return json;
}

Json::Value query(const Target& target, const Json::Value& event) {
    const std::string word = event["query"].asString();
    Json::Value answer;
    if (word == "line") {
        answer["line"] = Json::arrayValue;
        for (const LineRecord& record : target.modem.line()) answer["line"].append(lineJson(record));
        return answer;
    }
    if (word != "sms" && word != "store" && word != "state") {
        throw std::runtime_error("\"query\": \"" + word + "\" is not for this program");
    }
    const std::string device = target.modem.device();
    target.modem.call([&](AtModem& modem) {
        if (word == "sms") {
            answer["sms"] = Json::arrayValue;
            for (const SentMessage& message : modem.sentMessages()) answer["sms"].append(sentJson(message));
        } else if (word == "store") {
            answer["store"] = storeJson(modem.store());
        } else {
            answer["device"] = device;
            answer["plugged"] = !device.empty();
            answer["model"] = modem.model().name;
            answer["echo"] = modem.echo();
            answer["sim_ready"] = modem.simReady();
            answer["registered"] = modem.registered();
            answer["tries_left"] = modem.world.tries_left;
        }
    });
    return answer;
}

Json::Value clear(const Target& target, const Json::Value& event) {
    const std::string word = event["clear"].asString();
    if (word == "line") {
        target.modem.forgetLine();
    } else if (word == "sms") {
        target.modem.call([](AtModem& modem) { modem.forgetSent(); });
    } else {
        throw std::runtime_error("\"clear\": \"" + word + "\" is not for this program");
    }
    return {};
}

}  // namespace

void handleModemEvents(Dispatcher& dispatcher, GsmModem& modem, const EventLog& log) {
    static constexpr struct {
        const char* key;
        Json::Value (*action)(const Target&, const Json::Value&);
    } kActions[] = {
        {"phone", phone}, {"network", network}, {"modem", modemEvent}, {"query", query}, {"clear", clear},
    };
    for (const auto& entry : kActions) {
        dispatcher.handle(entry.key, [target = Target{modem, log}, action = entry.action](
                                         const Json::Value& event) { return action(target, event); });
    }
}

}  // namespace sim
