#include <gtest/gtest.h>
#include <json/reader.h>

#include <memory>
#include <string>

#include "sim/server/alarm_history.h"
#include "sim/support/event_log.h"

namespace {

using sim::AlarmChange;
using sim::AlarmHistory;
using sim::HistoryRequest;

AlarmChange changeAt(int id, int state, int64_t time) {
    AlarmChange change;
    change.id = id;
    change.state = state;
    change.time = time;
    return change;
}

constexpr int64_t kSecond = 1000000;
constexpr int64_t kEver = INT64_MIN;

TEST(HistoryRequestTest, ReadsTheSubSecondPartAsPlainMicroseconds) {
    const auto request = sim::parseHistoryRequest("t=30&prj=7&start=1700000000.5&limit=10000");
    ASSERT_TRUE(request);
    EXPECT_EQ(request->project, "7");
    EXPECT_EQ(request->start, 1700000000 * kSecond + 5);
    EXPECT_EQ(request->limit, 10000);
}

TEST(HistoryRequestTest, ASubSecondPartOfAMillionIsTheNextSecond) {
    EXPECT_EQ(sim::parseHistoryRequest("t=30&prj=7&start=3.1000000&limit=1")->start, 4 * kSecond);
}

TEST(HistoryRequestTest, RefusesWhatIsNoHistoryRequest) {
    for (const char* body :
         {"", "t=30", "t=11&prj=7&start=1.0&limit=5", "t=30&start=1.0&limit=5", "t=30&prj=7&start=1&limit=5",
          "t=30&prj=7&start=1.x&limit=5", "t=30&prj=7&start=1.0&limit=", "t=30&prj=7&start=1.0&limit=-1",
          "t=30&prj=7&start=99999999999999.0&limit=1", "{\"t\":30}", "&&&=&="}) {
        EXPECT_FALSE(sim::parseHistoryRequest(body)) << body;
    }
}

TEST(AlarmHistoryTest, AnEmptyHistoryAnswersAnEmptyArray) {
    size_t entries = 99;
    EXPECT_EQ(AlarmHistory("7").answer({"7", 0, 10}, &entries), "{\"d\":[]}");
    EXPECT_EQ(entries, 0u);
}

TEST(AlarmHistoryTest, EachChangeIsAnEntryWithTheTimesKnownByThen) {
    AlarmHistory history("7");
    AlarmChange change = changeAt(12, AlarmChange::kActivated, 100 * kSecond + 250000);
    change.value = 1.5;
    history.add(change);
    change = changeAt(12, AlarmChange::kAcknowledged, 110 * kSecond);
    change.user = "novak";
    change.value = 2;
    history.add(change);
    change = changeAt(12, AlarmChange::kDeactivated, 120 * kSecond + 7);
    change.value = 0.1;
    history.add(change);
    EXPECT_EQ(history.answer({"7", 0, 10}),
              "{\"d\":["
              "{\"cell\":{\"acktm\":[0,0],\"ackv\":0.0,\"atm\":[100,250000],\"av\":1.5,\"dtm\":[0,0],\"dv\":"
              "0.0,\"stat\":1,"
              "\"user\":\"\"},\"id\":12},"
              "{\"cell\":{\"acktm\":[110,0],\"ackv\":2.0,\"atm\":[100,250000],\"av\":1.5,\"dtm\":[0,0],"
              "\"dv\":0.0,\"stat\":2,"
              "\"user\":\"novak\"},\"id\":12},"
              "{\"cell\":{\"acktm\":[110,0],\"ackv\":2.0,\"atm\":[100,250000],\"av\":1.5,\"dtm\":[120,7],"
              "\"dv\":0.1,\"stat\":0,"
              "\"user\":\"novak\"},\"id\":12}]}");
}

TEST(AlarmHistoryTest, AnActivationBeginsTheAlarmAnew) {
    AlarmHistory history("7");
    history.add(changeAt(1, AlarmChange::kActivated, 1 * kSecond));
    history.add(changeAt(1, AlarmChange::kDeactivated, 2 * kSecond));
    history.add(changeAt(1, AlarmChange::kActivated, 3 * kSecond));
    EXPECT_EQ(history.answer({"7", 3 * kSecond, 10}),
              "{\"d\":[{\"cell\":{\"acktm\":[0,0],\"ackv\":0.0,\"atm\":[3,0],\"av\":0.0,\"dtm\":[0,0],\"dv\":"
              "0.0,\"stat\":1,"
              "\"user\":\"\"},\"id\":1}]}");
}

TEST(AlarmHistoryTest, TheStartPointItselfBelongsToTheAnswer) {
    AlarmHistory history("7");
    history.add(changeAt(1, AlarmChange::kActivated, 5 * kSecond + 10));
    size_t entries = 0;
    history.answer({"7", 5 * kSecond + 10, 10}, &entries);
    EXPECT_EQ(entries, 1u);
    history.answer({"7", 5 * kSecond + 11, 10}, &entries);
    EXPECT_EQ(entries, 0u);
}

TEST(AlarmHistoryTest, TheLimitKeepsTheOldest) {
    AlarmHistory history("7");
    for (int i = 1; i <= 5; ++i) history.add(changeAt(i, AlarmChange::kActivated, i * kSecond));
    size_t entries = 0;
    const std::string answer = history.answer({"7", kEver, 2}, &entries);
    EXPECT_EQ(entries, 2u);
    EXPECT_NE(answer.find("\"id\":1}"), std::string::npos);
    EXPECT_NE(answer.find("\"id\":2}"), std::string::npos);
    EXPECT_EQ(history.answer({"7", kEver, 0}), "{\"d\":[]}");
}

TEST(AlarmHistoryTest, AnotherProjectHasItsOwnAlarms) {
    AlarmHistory history("7");
    AlarmChange change = changeAt(1, AlarmChange::kActivated, kSecond);
    change.project = "8";
    history.add(change);
    size_t entries = 0;
    history.answer({"7", kEver, 10}, &entries);
    EXPECT_EQ(entries, 0u);
    history.answer({"8", kEver, 10}, &entries);
    EXPECT_EQ(entries, 1u);
    EXPECT_FALSE(history.active(1));
}

TEST(AlarmHistoryTest, AnEntryOfAnEarlierTimeComesBeforeTheOthers) {
    AlarmHistory history("7");
    history.add(changeAt(1, AlarmChange::kActivated, 9 * kSecond));
    history.add(changeAt(2, AlarmChange::kActivated, 8 * kSecond));
    const std::string answer = history.answer({"7", kEver, 10});
    EXPECT_LT(answer.find("\"id\":2}"), answer.find("\"id\":1}"));
}

TEST(AlarmHistoryTest, TimesFromTheClockAreUniqueAndIncrease) {
    AlarmHistory history("7");
    const int64_t before = sim::realMicroseconds();
    int64_t last = before - 1;
    AlarmChange change;
    for (int i = 0; i < 1000; ++i) {
        const int64_t time = history.add(change);
        EXPECT_GT(time, last);
        last = time;
    }
    EXPECT_LT(last, sim::realMicroseconds() + 1000);
}

TEST(AlarmHistoryTest, AnyOtherStateIsAnEntryThatMovesNoTimes) {
    AlarmHistory history("7");
    history.add(changeAt(1, AlarmChange::kActivated, kSecond));
    history.add(changeAt(1, 3, 2 * kSecond));
    EXPECT_EQ(history.answer({"7", 2 * kSecond, 10}),
              "{\"d\":[{\"cell\":{\"acktm\":[0,0],\"ackv\":0.0,\"atm\":[1,0],\"av\":0.0,\"dtm\":[0,0],\"dv\":"
              "0.0,\"stat\":3,"
              "\"user\":\"\"},\"id\":1}]}");
    EXPECT_TRUE(history.active(1));
}

TEST(AlarmHistoryTest, AUserIsEscapedAsJson) {
    AlarmHistory history("7");
    AlarmChange change = changeAt(1, AlarmChange::kAcknowledged, kSecond);
    change.user = "a\"b\\\n";
    history.add(change);
    Json::Value answer;
    const std::string text = history.answer({"7", kEver, 10});
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    ASSERT_TRUE(reader->parse(text.data(), text.data() + text.size(), &answer, nullptr));
    EXPECT_EQ(answer["d"][0]["cell"]["user"].asString(), "a\"b\\\n");
}

}  // namespace
