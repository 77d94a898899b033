#include "sim/support/scenario.h"

#include <json/reader.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>

#include "sim/support/modem_models.h"

namespace sim {
namespace {

// ---------------------------------------------------------------------------------------------------------------
// The kinds of events

template <class Word>
std::string unknownWord(const char* key, const std::string& word, const Word& known) {
    std::string reason = std::string("\"") + key + "\": \"" + word + "\" is not known; known are";
    const char* separator = " ";
    for (const char* one : known) {
        reason += separator + std::string(one);
        separator = ", ";
    }
    return reason;
}

std::string checkAlarm(const Json::Value& event) {
    static constexpr const char* kStates[] = {"activated", "deactivated", "acknowledged"};
    const Json::Value& state = event["state"];
    if (state.isNull()) return "\"state\" is missing";
    if (!state.isString() && !state.isInt()) return "\"state\" is neither a word nor a number";
    if (state.isString() && std::none_of(std::begin(kStates), std::end(kStates),
                                         [&](const char* known) { return state.asString() == known; })) {
        return unknownWord("state", state.asString(), kStates);
    }
    if (event.isMember("time") && event.isMember("ago")) return "\"time\" and \"ago\" exclude each other";
    if (event.get("count", 1).asInt() < 1) return "\"count\" is below 1";
    return {};
}

std::string checkBody(const Json::Value& event) {
    if (event.isMember("hex")) {
        const std::string hex = event["hex"].asString();
        const bool digits = std::all_of(hex.begin(), hex.end(),
                                        [](char c) { return isxdigit(static_cast<unsigned char>(c)); });
        if (hex.size() % 2 != 0 || !digits) return "\"hex\" is not made of pairs of hexadecimal digits";
    }
    if (event.get("repeat", 1).asInt() < 0) return "\"repeat\" is negative";
    if (event.get("times", 1).asInt() < 1) return "\"times\" is below 1";
    const int status = event.get("status", 200).asInt();
    if (status < 200 || status > 599) return "\"status\" is no HTTP status from 200 to 599";
    return {};
}

template <class Words>
std::string checkWord(const Json::Value& event, const char* key, const Words& known) {
    const std::string word = event[key].asString();
    const bool found = std::find(std::begin(known), std::end(known), word) != std::end(known);
    return found ? "" : unknownWord(key, word, known);
}

std::string checkServer(const Json::Value& event) {
    static constexpr const char* kKnown[] = {"normal", "back", "away",     "slow",  "hang", "cut",
                                             "status", "raw",  "redirect", "reset", "deaf"};
    const std::string word = event["server"].asString();
    if (word == "slow" && !event.isMember("seconds")) return "\"seconds\" is missing";
    if (word == "status" && !event.isMember("status")) return "\"status\" is missing";
    const std::string reason = checkWord(event, "server", kKnown);
    return reason.empty() ? checkBody(event) : reason;
}

std::string checkTcp(const Json::Value& event) {
    static constexpr const char* kKnown[] = {"normal", "back", "away", "deaf", "reset"};
    return checkWord(event, "tcp", kKnown);
}

std::string checkQuery(const Json::Value& event) {
    static constexpr const char* kKnown[] = {"polls", "acks", "line", "sms", "store", "state"};
    return checkWord(event, "query", kKnown);
}

std::string checkClear(const Json::Value& event) {
    static constexpr const char* kKnown[] = {"requests", "history", "line", "sms"};
    return checkWord(event, "clear", kKnown);
}

std::string checkPhone(const Json::Value& event) {
    const bool calls = event.isMember("calls") && event["calls"].asBool();
    const int things = event.isMember("sends") + event.isMember("answers") + calls;
    return things == 1 ? "" : "one of \"sends\", \"answers\" and \"calls\": true is needed";
}

std::string checkNetwork(const Json::Value& event) {
    static constexpr const char* kKnown[] = {"normal", "back", "away", "refuses", "slow"};
    const std::string word = event["network"].asString();
    if (word == "refuses" && event["count"].asInt() < 1) return "\"count\" is missing or below 1";
    if (word == "slow" && !event.isMember("seconds")) return "\"seconds\" is missing";
    return checkWord(event, "network", kKnown);
}

std::string checkModem(const Json::Value& event) {
    static constexpr struct {
        const char* word;
        const char* needs;
    } kNeeds[] = {{"slow", "seconds"},    {"chatter", "seconds"}, {"noise", "count"}, {"quiet", "count"},
                  {"instead", "seconds"}, {"line", "text"},       {"reply", "to"}};
    static constexpr const char* kKnown[] = {"unplug", "plug",    "restart", "mute",  "deaf",   "normal",
                                             "slow",   "chatter", "noise",   "says",  "line",   "reply",
                                             "model",  "sim",     "no sim",  "quiet", "instead"};
    const std::string word = event["modem"].asString();
    for (const auto& entry : kNeeds) {
        if (word == entry.word && !event.isMember(entry.needs))
            return std::string("\"") + entry.needs + "\" is missing";
    }
    if ((word == "says" || word == "reply" || word == "instead") && !event.isMember("text") &&
        !event.isMember("hex")) {
        return "\"text\" or \"hex\" is missing";
    }
    if (word == "model" && !findModel(event["name"].asString())) {
        return "\"name\": \"" + event["name"].asString() + "\" is no known model";
    }
    const std::string reason = checkBody(event);
    return reason.empty() ? checkWord(event, "modem", kKnown) : reason;
}

std::string checkGps(const Json::Value& event) {
    static constexpr const char* kKnown[] = {"unplug", "plug", "silent", "corrupt", "no fix",
                                             "normal", "at",   "noise",  "says",    "line"};
    const std::string word = event["gps"].asString();
    if (word == "noise" && !event.isMember("count")) return "\"count\" is missing";
    if (word == "line" && !event.isMember("text")) return "\"text\" is missing";
    if (word == "says" && !event.isMember("text") && !event.isMember("hex")) {
        return "\"text\" or \"hex\" is missing";
    }
    if (word == "at" && !(event.isMember("latitude") && event.isMember("longitude"))) {
        return "\"latitude\" or \"longitude\" is missing";
    }
    if (std::abs(event["latitude"].asDouble()) > 90) return "\"latitude\" is outside -90 to 90";
    if (std::abs(event["longitude"].asDouble()) > 180) return "\"longitude\" is outside -180 to 180";
    const std::string reason = checkBody(event);
    return reason.empty() ? checkWord(event, "gps", kKnown) : reason;
}

using enum MemberType;

// ---------------------------------------------------------------------------------------------------------------
// Checks

std::string typeError(const std::string& name, const Json::Value& value, MemberType type) {
    switch (type) {
        case kText:
            return value.isString() ? "" : "\"" + name + "\" is no text";
        case kInteger:
            return value.isInt() ? "" : "\"" + name + "\" is no whole number";
        case kNumber:
            return value.isNumeric() ? "" : "\"" + name + "\" is no number";
        case kDuration:
            return value.isNumeric() && value.asDouble() >= 0 ? ""
                                                              : "\"" + name + "\" is no number of seconds";
        case kFlag:
            return value.isBool() ? "" : "\"" + name + "\" is neither true nor false";
        case kMoment:
            return value.isArray() && value.size() == 2 && value[0].isInt64() && value[1].isInt64()
                       ? ""
                       : "\"" + name + "\" is no array of seconds and microseconds";
        case kAny:
            break;
    }
    return {};
}

const Member* findMember(const EventKind& kind, const std::string& name) {
    for (const Member& member : kind.members) {
        if (name == member.name) return &member;
    }
    return nullptr;
}

std::string checkMember(const EventKind& kind, const std::string& name, const Json::Value& value,
                        bool in_scenario) {
    if (name == kind.key) return typeError(name, value, kind.type);
    if (in_scenario && name == "at") return typeError(name, value, kDuration);
    if (!in_scenario && name == "ref") return {};
    const Member* member = findMember(kind, name);
    if (!member) return "\"" + name + "\" does not belong to an event of kind \"" + kind.key + "\"";
    return typeError(name, value, member->type);
}

std::string noKind(const Json::Value& event) {
    std::string found;
    for (const EventKind& kind : eventKinds()) {
        if (!event.isMember(kind.key)) continue;
        if (!found.empty()) return "it is of two kinds, \"" + found + "\" and \"" + kind.key + "\"";
        found = kind.key;
    }
    std::string reason = "it is of no known kind; one of these keys is needed:";
    for (const EventKind& kind : eventKinds()) reason += std::string(" ") + kind.key;
    return reason;
}

bool parseJson(const std::string& text, Json::Value& value, std::string& error) {
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    try {
        if (reader->parse(text.data(), text.data() + text.size(), &value, &error)) return true;
    } catch (const std::exception& exception) {  // nested too deeply
        error = exception.what();
    }
    std::replace(error.begin(), error.end(), '\n', ' ');
    error.erase(error.find_last_not_of(' ') + 1);
    return false;
}

}  // namespace

const std::vector<EventKind>& eventKinds() {
    static const std::vector<EventKind> kinds = {
        // The server
        {"alarm",
         kInteger,
         true,
         {{"state", kAny},
          {"value", kNumber},
          {"user", kText},
          {"time", kMoment},
          {"ago", kNumber},
          {"project", kText},
          {"count", kInteger}},
         checkAlarm},
        {"server",
         kText,
         true,
         {{"seconds", kDuration},
          {"status", kInteger},
          {"body", kText},
          {"hex", kText},
          {"repeat", kInteger},
          {"type", kText},
          {"times", kInteger}},
         checkServer},
        {"raw",
         kText,
         true,
         {{"status", kInteger}, {"repeat", kInteger}, {"type", kText}, {"times", kInteger}},
         checkBody},
        {"tcp", kText, true, {}, checkTcp},
        {"push", kText, true, {{"newline", kFlag}, {"repeat", kInteger}}, checkBody},
        {"greet", kText, true, {{"newline", kFlag}, {"repeat", kInteger}}, checkBody},
        // The modem, its network and the phones in it
        {"phone",
         kText,
         true,
         {{"sends", kText},
          {"name", kText},
          {"stamp", kText},
          {"answers", kText},
          {"after", kDuration},
          {"calls", kFlag}},
         checkPhone},
        {"network",
         kText,
         true,
         {{"count", kInteger}, {"code", kInteger}, {"seconds", kDuration}},
         checkNetwork},
        {"modem",
         kText,
         true,
         {{"after", kText},
          {"seconds", kDuration},
          {"count", kInteger},
          {"text", kText},
          {"hex", kText},
          {"to", kText},
          {"times", kInteger},
          {"name", kText},
          {"pin", kText}},
         checkModem},
        // The GPS receiver
        {"gps",
         kText,
         true,
         {{"text", kText},
          {"hex", kText},
          {"count", kInteger},
          {"latitude", kNumber},
          {"longitude", kNumber}},
         checkGps},
        // All
        {"query", kText, false, {}, checkQuery},
        {"clear", kText, true, {}, checkClear},
    };
    return kinds;
}

const EventKind* kindOf(const Json::Value& event) {
    const EventKind* found = nullptr;
    for (const EventKind& kind : eventKinds()) {
        if (!event.isMember(kind.key)) continue;
        if (found) return nullptr;
        found = &kind;
    }
    return found;
}

std::string checkEvent(const Json::Value& event, bool in_scenario) {
    if (!event.isObject()) return "it is no object";
    const EventKind* kind = kindOf(event);
    if (!kind) return noKind(event);
    for (const std::string& name : event.getMemberNames()) {
        std::string reason = checkMember(*kind, name, event[name], in_scenario);
        if (!reason.empty()) return reason;
    }
    if (in_scenario && !event.isMember("at")) return "\"at\" is missing";
    if (in_scenario && !kind->in_scenarios) return std::string("\"") + kind->key + "\" is a command only";
    return kind->check ? kind->check(event) : "";
}

// ---------------------------------------------------------------------------------------------------------------
// Files

namespace {

void readHead(const Json::Value& root, const std::string& name, Scenario& scenario) {
    for (const std::string& member : root.getMemberNames()) {
        std::string reason;
        if (member == "duration") {
            reason = typeError(member, root[member], kDuration);
        } else if (member == "project") {
            reason = typeError(member, root[member], kText);
        } else if (member == "events") {
            if (!root[member].isArray()) reason = "\"events\" is no array";
        } else {
            reason = "\"" + member + "\" is not known; known are duration, project, events";
        }
        if (!reason.empty()) throw ScenarioError(std::string(name).append(": ").append(reason));
    }
    scenario.duration = root.get("duration", 0).asDouble();
    scenario.project = root.get("project", "").asString();
}

void readEvent(const Json::Value& event, const std::string& where, Scenario& scenario) {
    const std::string reason = checkEvent(event, true);
    if (!reason.empty()) throw ScenarioError(where + reason);
    const double at = event["at"].asDouble();
    if (scenario.duration > 0 && at > scenario.duration) {
        throw ScenarioError(where + "\"at\" lies behind the scenario's duration");
    }
    Json::Value command = event;
    command.removeMember("at");
    scenario.events.push_back({at, command});
}

}  // namespace

Scenario parseScenario(const std::string& text, const std::string& name) {
    Json::Value root;
    std::string error;
    if (!parseJson(text, root, error)) throw ScenarioError(name + ": " + error);
    if (!root.isObject()) throw ScenarioError(name + ": it is no JSON object");
    Scenario scenario;
    readHead(root, name, scenario);
    const Json::Value& events = root["events"];
    for (Json::ArrayIndex i = 0; i < events.size(); ++i) {
        readEvent(events[i], name + ": event " + std::to_string(i + 1) + ": ", scenario);
    }
    std::stable_sort(scenario.events.begin(), scenario.events.end(),
                     [](const ScenarioEvent& a, const ScenarioEvent& b) { return a.at < b.at; });
    return scenario;
}

Scenario loadScenario(const std::string& path) {
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    if (!file || !(text << file.rdbuf())) {
        throw ScenarioError(path + ": " + (errno != 0 ? strerror(errno) : "it is empty"));
    }
    return parseScenario(text.str(), path);
}

std::string bytesOfHex(const std::string& hex) {
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

std::string eventBytes(const Json::Value& event) {
    return event.isMember("hex") ? bytesOfHex(event["hex"].asString()) : event["text"].asString();
}

std::string noiseBytes(int count) {
    std::minstd_rand random(1);
    std::string bytes;
    for (int i = count; i > 0; --i) bytes += static_cast<char>(random() >> 8);
    return bytes;
}

// ---------------------------------------------------------------------------------------------------------------
// Carrying out

Json::Value Dispatcher::run(const Json::Value& command) const {
    Json::Value answer;
    std::string error = checkEvent(command, false);
    if (error.empty()) {
        const EventKind* kind = kindOf(command);
        const auto action = actions_.find(kind->key);
        if (action == actions_.end()) {
            error = std::string("\"") + kind->key + "\" is not for this program";
        } else {
            try {
                answer = action->second(command);
            } catch (const std::exception& exception) {
                error = exception.what();
            }
        }
    }
    if (!error.empty()) answer["error"] = error;
    answer["ok"] = error.empty();
    if (command.isObject() && command.isMember("ref")) answer["ref"] = command["ref"];
    return answer;
}

Json::Value Dispatcher::runLine(const std::string& line) const {
    Json::Value command;
    std::string error;
    if (parseJson(line, command, error)) return run(command);
    Json::Value answer;
    answer["ok"] = false;
    answer["error"] = error;
    return answer;
}

void Player::play(double now, const std::function<void(const Json::Value&, const Json::Value&)>& report) {
    for (;;) {
        while (next_ < scenario_.events.size() && round_begin_ + scenario_.events[next_].at <= now) {
            const Json::Value& event = scenario_.events[next_++].event;
            if (!dispatcher_.handles(*kindOf(event))) continue;
            const Json::Value answer = dispatcher_.run(event);
            if (!answer["ok"].asBool()) report(event, answer);
        }
        if (!loop_ || scenario_.duration <= 0 || now < round_begin_ + scenario_.duration) return;
        round_begin_ += scenario_.duration;
        next_ = 0;
    }
}

double Player::wait(double now) const {
    double next = 1e9;
    if (next_ < scenario_.events.size()) next = round_begin_ + scenario_.events[next_].at;
    if (scenario_.duration > 0) next = std::min(next, round_begin_ + scenario_.duration);
    return std::max(0.0, next - now);
}

}  // namespace sim
