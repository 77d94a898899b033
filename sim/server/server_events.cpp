#include "sim/server/server_events.h"

#include <stdexcept>
#include <string>

namespace sim {
namespace {

int stateOf(const Json::Value& state) {
    if (state.isInt()) return state.asInt();
    const std::string word = state.asString();
    if (word == "activated") return AlarmChange::kActivated;
    return word == "deactivated" ? AlarmChange::kDeactivated : AlarmChange::kAcknowledged;
}

Json::Value alarm(KorvatoServer& server, const Json::Value& event) {
    AlarmChange change;
    change.id = event["alarm"].asInt();
    change.state = stateOf(event["state"]);
    change.value = event["value"].asDouble();
    change.user = event["user"].asString();
    if (event.isMember("project")) change.project = event["project"].asString();
    if (event.isMember("time")) {
        change.time = event["time"][0].asInt64() * 1000000 + event["time"][1].asInt64();
    } else if (event.isMember("ago")) {
        change.time = realMicroseconds() - static_cast<int64_t>(event["ago"].asDouble() * 1e6);
    }
    const int count = event.get("count", 1).asInt();
    for (int i = 0; i < count; ++i) {
        server.change(change);
        if (change.time) ++*change.time;
    }
    return {};
}

std::string repeated(const std::string& text, int times) {
    std::string all;
    all.reserve(text.size() * static_cast<size_t>(times));
    for (int i = 0; i < times; ++i) all += text;
    return all;
}

Json::Value behave(KorvatoServer& server, const Json::Value& event) {
    Behaviour behaviour;
    if (event.isMember("raw")) {
        behaviour.mode = Behaviour::kRaw;
        behaviour.body = event["raw"].asString();
    } else {
        behaviourMode(event["server"].asString(), behaviour.mode);
        behaviour.body =
            event.isMember("hex") ? bytesOfHex(event["hex"].asString()) : event["body"].asString();
    }
    behaviour.body = repeated(behaviour.body, event.get("repeat", 1).asInt());
    behaviour.seconds = event["seconds"].asDouble();
    behaviour.status = event.get("status", 200).asInt();
    behaviour.times = event["times"].asInt();
    behaviour.content_type = event.get("type", behaviour.content_type).asString();
    server.behave(behaviour);
    return {};
}

std::string pushText(const Json::Value& event, const char* key) {
    return repeated(event[key].asString(), event.get("repeat", 1).asInt()) +
           (event.get("newline", true).asBool() ? "\n" : "");
}

Json::Value push(KorvatoServer& server, const Json::Value& event) {
    const size_t clients = server.tcp().push(pushText(event, "push"));
    if (clients == 0) throw std::runtime_error("no client is connected");
    Json::Value answer;
    answer["clients"] = Json::UInt64{clients};
    return answer;
}

Json::Value greet(KorvatoServer& server, const Json::Value& event) {
    const bool none = event["greet"].asString().empty();
    server.tcp().greet(none ? "" : pushText(event, "greet"));
    return {};
}

Json::Value query(KorvatoServer& server, const Json::Value& event) {
    Json::Value answer;
    const std::string word = event["query"].asString();
    if (word != "polls" && word != "acks" && word != "state") {
        throw std::runtime_error("\"query\": \"" + word + "\" is not for this program");
    }
    if (word == "polls") {
        answer["polls"] = Json::arrayValue;
        for (const PollRecord& poll : server.polls()) answer["polls"].append(pollJson(poll));
    } else if (word == "acks") {
        answer["acks"] = Json::arrayValue;
        for (const AckRecord& ack : server.acks()) answer["acks"].append(ackJson(ack));
    }
    answer["poll_count"] = Json::UInt64{server.pollCount()};
    answer["ack_count"] = Json::UInt64{server.acks().size()};
    answer["history"] = Json::UInt64{server.history().size()};
    answer["connections"] = Json::UInt64{server.httpsConnections()};
    answer["tcp_connections"] = Json::UInt64{server.tcp().connections()};
    return answer;
}

Json::Value clear(KorvatoServer& server, const Json::Value& event) {
    const std::string word = event["clear"].asString();
    if (word == "history") {
        server.history().clear();
    } else if (word == "requests") {
        server.forgetRequests();
    } else {
        throw std::runtime_error("\"clear\": \"" + word + "\" is not for this program");
    }
    return {};
}

Json::Value tcp(KorvatoServer& server, const Json::Value& event) {
    TcpPort::Mode mode{};
    tcpMode(event["tcp"].asString(), mode);
    server.behaveTcp(mode);
    return {};
}

}  // namespace

void handleServerEvents(Dispatcher& dispatcher, KorvatoServer& server) {
    static constexpr struct {
        const char* key;
        Json::Value (*action)(KorvatoServer&, const Json::Value&);
    } kActions[] = {
        {"alarm", alarm}, {"server", behave}, {"raw", behave},  {"tcp", tcp},
        {"push", push},   {"greet", greet},   {"query", query}, {"clear", clear},
    };
    for (const auto& entry : kActions) {
        dispatcher.handle(entry.key, [&server, action = entry.action](const Json::Value& event) {
            return action(server, event);
        });
    }
}

}  // namespace sim
