#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim/support/event_log.h"
#include "sim/support/scenario.h"

namespace {

using sim::Dispatcher;
using sim::parseScenario;
using sim::Player;
using sim::Scenario;
using sim::ScenarioError;

std::string errorOf(const std::string& text) {
    try {
        parseScenario(text, "plant.json");
    } catch (const ScenarioError& error) {
        return error.what();
    }
    return "no error";
}

std::string eventError(const std::string& event) {
    return errorOf("{\"duration\":60,\"events\":[" + event + "]}");
}

TEST(ScenarioTest, ReadsDurationProjectAndEventsByTime) {
    const Scenario scenario = parseScenario(R"({"duration": 60, "project": "7", "events": [
        {"at": 20, "alarm": 12, "state": "deactivated"},
        {"at": 3, "alarm": 12, "state": "activated", "value": 1.5},
        {"at": 3, "server": "away"}]})",
                                            "plant.json");
    EXPECT_EQ(scenario.duration, 60);
    EXPECT_EQ(scenario.project, "7");
    ASSERT_EQ(scenario.events.size(), 3u);
    EXPECT_EQ(scenario.events[0].at, 3);
    EXPECT_EQ(scenario.events[0].event["state"].asString(), "activated");
    EXPECT_FALSE(scenario.events[0].event.isMember("at"));
    EXPECT_EQ(scenario.events[1].event["server"].asString(), "away");
    EXPECT_EQ(scenario.events[2].at, 20);
}

TEST(ScenarioTest, AnErrorTellsFileEventAndReason) {
    EXPECT_EQ(eventError(R"({"at":1,"server":"back"},{"at":2,"server":"awya"})"),
              "plant.json: event 2: \"server\": \"awya\" is not known; known are normal, back, away, slow, "
              "hang, cut, "
              "status, raw, redirect, reset, deaf");
    EXPECT_EQ(eventError(R"({"at":1,"alarm":"x","state":"activated"})"),
              "plant.json: event 1: \"alarm\" is no whole number");
    EXPECT_EQ(eventError(R"({"at":1,"alarm":1})"), "plant.json: event 1: \"state\" is missing");
    EXPECT_EQ(eventError(R"({"at":1,"alarm":1,"state":"on"})"),
              "plant.json: event 1: \"state\": \"on\" is not known; known are activated, deactivated, "
              "acknowledged");
    EXPECT_EQ(eventError(R"({"alarm":1,"state":1})"), "plant.json: event 1: \"at\" is missing");
    EXPECT_EQ(eventError(R"({"at":-1,"alarm":1,"state":1})"),
              "plant.json: event 1: \"at\" is no number of seconds");
    EXPECT_EQ(eventError(R"({"at":61,"alarm":1,"state":1})"),
              "plant.json: event 1: \"at\" lies behind the scenario's duration");
    EXPECT_EQ(eventError(R"({"at":1,"alarm":1,"state":1,"vlaue":2})"),
              "plant.json: event 1: \"vlaue\" does not belong to an event of kind \"alarm\"");
    EXPECT_EQ(eventError(R"({"at":1,"alarm":1,"server":"away"})"),
              "plant.json: event 1: it is of two kinds, \"alarm\" and \"server\"");
    EXPECT_EQ(eventError(R"({"at":1,"server":"slow"})"), "plant.json: event 1: \"seconds\" is missing");
    EXPECT_EQ(eventError(R"({"at":1,"server":"raw","hex":"0g"})"),
              "plant.json: event 1: \"hex\" is not made of pairs of hexadecimal digits");
    EXPECT_EQ(eventError(R"({"at":1,"query":"polls"})"), "plant.json: event 1: \"query\" is a command only");
    EXPECT_EQ(eventError("7"), "plant.json: event 1: it is no object");
}

TEST(ScenarioTest, AnUnknownKindIsAnErrorThatListsTheKnownOnes) {
    const std::string error = eventError(R"({"at":1,"volcano":"erupts"})");
    EXPECT_EQ(
        error.rfind("plant.json: event 1: it is of no known kind; one of these keys is needed: alarm server",
                    0),
        0u)
        << error;
}

TEST(ScenarioTest, AnErrorOfTheWholeTellsTheFile) {
    EXPECT_EQ(errorOf("[]"), "plant.json: it is no JSON object");
    EXPECT_EQ(errorOf(R"({"duraton":5})"),
              "plant.json: \"duraton\" is not known; known are duration, project, events");
    EXPECT_EQ(errorOf(R"({"events":{}})"), "plant.json: \"events\" is no array");
    EXPECT_EQ(errorOf(R"({"duration":"x"})"), "plant.json: \"duration\" is no number of seconds");
    EXPECT_EQ(errorOf("{\"events\":[").rfind("plant.json: * Line 1, Column 12", 0), 0u);
    EXPECT_EQ(errorOf(std::string(100000, '[')).rfind("plant.json: ", 0), 0u);
}

TEST(ScenarioTest, AFileThatIsNotThereIsToldWithItsPath) {
    try {
        sim::loadScenario("/nonexistent/plant.json");
        FAIL();
    } catch (const ScenarioError& error) {
        EXPECT_STREQ(error.what(), "/nonexistent/plant.json: No such file or directory");
    }
    try {
        sim::loadScenario("/");
        FAIL();
    } catch (const ScenarioError& error) {
        EXPECT_STREQ(error.what(), "/: Is a directory");
    }
}

// Records what it is asked to do.
struct Recorder {
    Dispatcher dispatcher;
    std::vector<int> alarms;

    Recorder() {
        dispatcher.handle("alarm", [this](const Json::Value& event) {
            if (event["alarm"].asInt() == 13) throw std::runtime_error("unlucky");
            alarms.push_back(event["alarm"].asInt());
            Json::Value answer;
            answer["count"] = Json::UInt64{alarms.size()};
            return answer;
        });
    }
};

TEST(DispatcherTest, AnswersACommandAndRepeatsItsReference) {
    Recorder recorder;
    EXPECT_EQ(sim::compactJson(recorder.dispatcher.runLine(R"({"alarm":5,"state":1,"ref":"x"})")),
              R"({"count":1,"ok":true,"ref":"x"})");
    EXPECT_EQ(recorder.alarms, std::vector<int>({5}));
}

TEST(DispatcherTest, AnswersWhatIsWrong) {
    Recorder recorder;
    EXPECT_EQ(sim::compactJson(recorder.dispatcher.runLine(R"({"alarm":13,"state":1})")),
              R"({"error":"unlucky","ok":false})");
    EXPECT_EQ(sim::compactJson(recorder.dispatcher.runLine(R"({"server":"away"})")),
              R"({"error":"\"server\" is not for this program","ok":false})");
    EXPECT_EQ(sim::compactJson(recorder.dispatcher.runLine(R"({"at":1,"alarm":1,"state":1})")),
              R"({"error":"\"at\" does not belong to an event of kind \"alarm\"","ok":false})");
    EXPECT_FALSE(recorder.dispatcher.runLine("{").get("ok", true).asBool());
    EXPECT_FALSE(recorder.dispatcher.runLine("5").get("ok", true).asBool());
    EXPECT_TRUE(recorder.alarms.empty());
}

constexpr const char* kThree = R"({"duration": 10, "events": [
    {"at": 1, "alarm": 1, "state": 1}, {"at": 5, "alarm": 2, "state": 1}, {"at": 5, "server": "away"}, {"at": 10, "alarm": 3, "state": 1}]})";

void noReport(const Json::Value&, const Json::Value&) {
    FAIL() << "an event failed";
}

TEST(PlayerTest, PlaysWhatIsDueAndPassesOverOthersEvents) {
    Recorder recorder;
    Player player(parseScenario(kThree, ""), recorder.dispatcher, false);
    player.play(0, noReport);
    EXPECT_TRUE(recorder.alarms.empty());
    EXPECT_EQ(player.wait(0), 1);
    player.play(6, noReport);
    EXPECT_EQ(recorder.alarms, std::vector<int>({1, 2}));
    EXPECT_FALSE(player.finished(6));
    EXPECT_EQ(player.wait(6), 4);
    player.play(10, noReport);
    EXPECT_EQ(recorder.alarms, std::vector<int>({1, 2, 3}));
    EXPECT_TRUE(player.finished(10));
}

TEST(PlayerTest, ALoopBeginsAgainAndNeverEnds) {
    Recorder recorder;
    Player player(parseScenario(kThree, ""), recorder.dispatcher, true);
    player.play(16, noReport);
    EXPECT_EQ(recorder.alarms, std::vector<int>({1, 2, 3, 1, 2}));
    EXPECT_FALSE(player.finished(16));
    EXPECT_EQ(player.wait(16), 4);
}

TEST(PlayerTest, AnEventThatFailsIsReportedAndTheNextOnesGoOn) {
    Recorder recorder;
    Player player(
        parseScenario(
            R"({"events": [{"at": 0, "alarm": 13, "state": 1}, {"at": 0, "alarm": 14, "state": 1}]})", ""),
        recorder.dispatcher, false);
    std::string error;
    player.play(0,
                [&](const Json::Value&, const Json::Value& answer) { error = answer["error"].asString(); });
    EXPECT_EQ(error, "unlucky");
    EXPECT_EQ(recorder.alarms, std::vector<int>({14}));
}

TEST(PlayerTest, WithoutADurationItDoesNotEnd) {
    Recorder recorder;
    Player player(parseScenario("{}", ""), recorder.dispatcher, false);
    player.play(1e6, noReport);
    EXPECT_FALSE(player.finished(1e6));
}

}  // namespace
