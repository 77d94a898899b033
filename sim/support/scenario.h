// Scenario files: what happens in the simulated world, and when.
//
//   {"duration": 60, "project": "7", "events": [
//     {"at": 3, "alarm": 12, "state": "activated", "value": 1.5},
//     {"at": 30, "server": "away"}, ...]}
//
// The same objects without "at" are commands that are carried out at once. One file may hold the events of
// several programs: each carries out its own. sim/README.md lists all kinds of events.
#pragma once

#include <json/value.h>

#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace sim {

// What a member of an event must be.
enum class MemberType {
    kText,
    kInteger,  // of 32 bits
    kNumber,
    kDuration,  // a number of seconds, not negative
    kFlag,      // true or false
    kMoment,    // [seconds, microseconds]
    kAny,
};

struct Member {
    const char* name;
    MemberType type;
};

// A kind of event is known by its key: an event is an object with exactly one of the keys, and, beside it,
// members that the kind has.
struct EventKind {
    const char* key;
    MemberType type;
    bool in_scenarios;  // false: a command only
    std::vector<Member> members;
    std::string (*check)(
        const Json::Value& event);  // what else is wrong with it, empty when nothing is; may be null
};

// All kinds that there are, of all programs.
const std::vector<EventKind>& eventKinds();

// The kind of an event; null when it has no key or more than one.
const EventKind* kindOf(const Json::Value& event);

// What is wrong with an event (or command): empty when nothing is. "at" is allowed when in_scenario, and then
// needed.
std::string checkEvent(const Json::Value& event, bool in_scenario);

struct ScenarioEvent {
    double at = 0;  // seconds since the scenario began
    Json::Value event;
};

struct Scenario {
    double duration = 0;                // seconds; 0: without an end
    std::string project;                // empty: not given
    std::vector<ScenarioEvent> events;  // by time, those of one time in the file's order
};

// Its text tells the file, the number of the event (counted from 1) and the reason.
struct ScenarioError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Throws ScenarioError. name stands for the file in the error's text.
Scenario parseScenario(const std::string& text, const std::string& name);
Scenario loadScenario(const std::string& path);

// The bytes of pairs of hexadecimal digits, which were checked to be such.
std::string bytesOfHex(const std::string& hex);

// The bytes that an event gives as "hex" or "text".
std::string eventBytes(const Json::Value& event);

// So many senseless bytes, the same in every run.
std::string noiseBytes(int count);

// Carries out events. For one thread.
class Dispatcher {
  public:
    // Carries out an event that was checked and returns the members of its answer (an object, or null for
    // none). May throw std::exception, whose text is then the error of the answer.
    using Action = std::function<Json::Value(const Json::Value& event)>;

    // REQUIRES: key is that of one of eventKinds().
    void handle(const std::string& key, Action action) { actions_[key] = std::move(action); }

    bool handles(const EventKind& kind) const { return actions_.contains(kind.key); }

    // Checks and carries out one command: {"ok":true, ...} or {"ok":false,"error":...}. A member "ref" of the
    // command is repeated in the answer.
    Json::Value run(const Json::Value& command) const;

    // The same for a line of JSON.
    Json::Value runLine(const std::string& line) const;

  private:
    std::map<std::string, Action> actions_;
};

// Plays a scenario. For one thread.
class Player {
  public:
    // Events that the dispatcher does not handle belong to other programs and are passed over.
    Player(Scenario scenario, const Dispatcher& dispatcher, bool loop)
        : scenario_(std::move(scenario)), dispatcher_(dispatcher), loop_(loop) {}

    // Carries out all that is due at this time (seconds since the play began). report is called with the
    // event and the answer when one failed.
    void play(double now, const std::function<void(const Json::Value&, const Json::Value&)>& report);

    // Seconds until the next event or the end, at the time now.
    double wait(double now) const;

    bool finished(double now) const { return !loop_ && scenario_.duration > 0 && now >= scenario_.duration; }

  private:
    const Scenario scenario_;
    const Dispatcher& dispatcher_;
    const bool loop_;
    double round_begin_ = 0;
    size_t next_ = 0;
};

}  // namespace sim
