#include "alarmd/intake/alarm_parser.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include "alarmd/alarmd.h"
#include "tests/support/intake_fixture.h"

namespace {

using States = std::vector<std::pair<int, int>>;
using testing::Eq;
using testing::KilledBySignal;

constexpr char kCheckAndMail[] =
    ":: Check alarm (sms,email) if configured for queue...\n"
    "::-> Saving MAIL into fronta_mail\n";

class AlarmParser : public IntakeFixture {
  protected:
    static std::string parse(const std::string& text) {
        return printedBy([&text] { json_parse(text.c_str()); });
    }

    static void expectStartPoint(int64_t seconds, int64_t microseconds) {
        EXPECT_EQ(last_timestamp, seconds);
        EXPECT_EQ(last_timestamp_ms, microseconds);
    }

    // No entry of the text was new, and the start point is still the fixture's.
    static void expectNothingHappened() {
        expectStartPoint(kStart, 0);
        EXPECT_TRUE(fronta_mail.empty());
        EXPECT_TRUE(fronta_sms.empty());
        EXPECT_EQ(thr_lock, false);
    }

    // Parsing text ends the process with that reason on standard error.
    static void expectEnd(const std::string& text, const std::string& reason) {
        EXPECT_EXIT(json_parse(text.c_str()), KilledBySignal(SIGABRT),
                    Eq("alarmd: history answer, " + reason + "\n"))
            << text;
    }
};

using AlarmParserDeathTest = AlarmParser;

constexpr char kFullEntry[] =
    "{\"id\":12,\"name\":\"ignored\",\"cell\":{\"acktm\":[1700000002,5],\"ackv\":-0.5,\"atm\":[1700000000,"
    "250000],\"av\":98.7654321,\"dtm\":[0,5],\"dv\":1000000,\"stat\":1,\"user\":\"Jana\",\"other\":[1]}}";

_alarm_def pumpDefinition() {
    _alarm_def definition = mailDefinition();
    definition.id = 12;
    definition.severity = 3;
    definition.area = "Hall A";
    definition.message = "Pump stopped";
    definition.device = "P-101";
    return definition;
}

// ---------------------------------------------------------------------------------------------------------------
// What is read and printed

TEST_F(AlarmParser, ANewAlarmIsCheckedQueuedAndPrintedAsABlock) {
    define(12, pumpDefinition());
    const std::string text = historyAnswer({kFullEntry});
    EXPECT_EQ(parse(text), "JSON : " + text + "\n" + kCheckAndMail +
                               "---------------NEW ALARM-----------------------\n"
                               "id: 12\n"
                               "acktm: 1700000002.5(1.7e+09)\n"
                               "ackv: -0.5\n"
                               "area: Hall A\n"
                               "atm: 1700000000.250000(1.7e+09)\n"
                               "av: 98.7654\n"
                               "dev: P-101\n"
                               "dtm: 0.5(5e-06)\n"
                               "dv: 1e+06\n"
                               "stat: 1\n"
                               "sv: 3\n"
                               "user: Jana\n"
                               "--------------------------------------------\n");
}

TEST_F(AlarmParser, AQueuedAlarmHoldsTheEntryAndTheTextsOfItsDefinition) {
    define(12, pumpDefinition());
    parse(historyAnswer({kFullEntry}));
    const std::vector<_alarm_tag> queued = takeAll(fronta_mail);
    ASSERT_EQ(queued.size(), 1U);
    const _alarm_tag& tag = queued[0];
    EXPECT_EQ(tag.id, 12);
    EXPECT_EQ(tag.stat, 1);
    EXPECT_EQ(tag.sv, 3);
    EXPECT_EQ(std::vector<int64_t>(tag.acktm, tag.acktm + 3), (std::vector<int64_t>{1700000002, 5, 0}));
    EXPECT_EQ(std::vector<int64_t>(tag.atm, tag.atm + 3), (std::vector<int64_t>{1700000000, 250000, 0}));
    EXPECT_EQ(std::vector<int64_t>(tag.dtm, tag.dtm + 3), (std::vector<int64_t>{0, 5, 0}));
    EXPECT_EQ((std::vector<double>{tag.ackv, tag.av, tag.dv}), (std::vector<double>{-0.5, 98.7654321, 1e6}));
    EXPECT_EQ(tag.area, "Hall A");
    EXPECT_EQ(tag.msg, "Pump stopped");
    EXPECT_EQ(tag.dev, "P-101");
    EXPECT_EQ(tag.user, "Jana");
    expectStartPoint(1700000000, 250001);
}

TEST_F(AlarmParser, AnEntryThatIsNotNewPrintsNothing) {
    const std::string text = historyAnswer({historyEntry(12, 1, kStart - 1, 0)});
    EXPECT_EQ(parse(text), "JSON : " + text + "\n");
}

TEST_F(AlarmParser, WhatAnEntryLacksIsEmptyAndNeverLeftFromTheEntryBefore) {
    define(12, pumpDefinition());
    alarm_tag.atm[2] = 77;
    alarm_tag.ak = "kept";
    parse(historyAnswer({kFullEntry, "{\"cell\":{\"stat\":3}}"}));
    EXPECT_EQ(alarm_tag.id, 0);
    EXPECT_EQ(alarm_tag.stat, 3);
    EXPECT_EQ(alarm_tag.sv, 0);
    EXPECT_EQ(std::vector<int64_t>(alarm_tag.atm, alarm_tag.atm + 3), (std::vector<int64_t>{0, 0, 77}));
    EXPECT_EQ(alarm_tag.acktm[0] + alarm_tag.acktm[1] + alarm_tag.dtm[0] + alarm_tag.dtm[1], 0);
    EXPECT_EQ((std::vector<double>{alarm_tag.ackv, alarm_tag.av, alarm_tag.dv}), std::vector<double>(3, 0.0));
    EXPECT_EQ(alarm_tag.user + alarm_tag.area + alarm_tag.msg + alarm_tag.dev, "");
    EXPECT_EQ(alarm_tag.ak, "kept");
}

TEST_F(AlarmParser, ValuesOfAnotherTypeAreConvertedWhereTheyCanBe) {
    parse(
        "{\"d\":[{\"id\":12.9,\"cell\":{\"stat\":true,\"atm\":[1700000001.7],\"av\":true,\"dv\":null,"
        "\"user\":42}}]}");
    EXPECT_EQ(alarm_tag.id, 12);
    EXPECT_EQ(alarm_tag.stat, 1);
    EXPECT_EQ(alarm_tag.av, 1.0);
    EXPECT_EQ(alarm_tag.dv, 0.0);
    EXPECT_EQ(alarm_tag.user, "42");
    expectStartPoint(1700000001, 1);
}

TEST_F(AlarmParser, SecondsOfMoreThan32BitsAreReadComparedAndPrintedAndMoveTheStartPoint) {
    constexpr int64_t kFar = int64_t{1} << 33;
    define(12, mailDefinition());
    int64_t last = (int64_t{1} << 31) - 1;
    last_timestamp = last;
    for (const int64_t seconds : {last + 1, last + 3, kFar}) {
        for (const int stat : {0, 1, 2, 8}) {
            last_timestamp = last;
            last_timestamp_ms = 999999;
            const std::string output =
                parse(historyAnswer({historyEntry(12, stat, last, 0), historyEntry(12, stat, seconds, 5)}));
            EXPECT_EQ(takeStates(fronta_mail), (States{{12, stat}})) << seconds;
            EXPECT_NE(output.find("tm: " + std::to_string(seconds) + ".5("), std::string::npos) << output;
            expectStartPoint(seconds, 6);
            parse(historyAnswer({historyEntry(12, stat, seconds, 5)}));
            EXPECT_TRUE(fronta_mail.empty());
        }
        last = seconds;
    }
    EXPECT_EQ(alarm_tag.acktm[0], kFar);
}

TEST_F(AlarmParser, TheLastOfAllSecondsIsReadToo) {
    define(12, mailDefinition());
    parse(historyAnswer({historyEntry(12, 1, INT64_MAX, 2147483647)}));
    EXPECT_EQ(takeStates(fronta_mail), (States{{12, 1}}));
    expectStartPoint(INT64_MAX, int64_t{1} << 31);
}

TEST_F(AlarmParser, BytesOfAUserNameAreKeptAsTheyAre) {
    define(12, mailDefinition());
    const std::string user = "\xC5\xBDofie\xFF\xC3(";
    const std::string output =
        parse("{\"d\":[{\"id\":12,\"cell\":{\"atm\":[1700000001,0],\"stat\":1,\"user\":\"" + user + "\"}}]}");
    EXPECT_NE(output.find("user: " + user + "\n"), std::string::npos);
    const std::vector<_alarm_tag> queued = takeAll(fronta_mail);
    ASSERT_EQ(queued.size(), 1U);
    EXPECT_EQ(queued[0].user, user);
}

TEST_F(AlarmParser, AnUnknownAlarmIsPrintedGetsOneEmptyDefinitionAndIsNotQueued) {
    for (const int id : {99, -7, 2000000000}) {
        const std::string output = parse(historyAnswer({historyEntry(id, 1, last_timestamp + 1, 0)}));
        EXPECT_NE(output.find("NEW ALARM-----------------------\nid: " + std::to_string(id) + "\n"),
                  std::string::npos);
    }
    EXPECT_EQ(definitionCount(), 3U);
    EXPECT_TRUE(fronta_mail.empty());
    EXPECT_TRUE(fronta_sms.empty());
}

// ---------------------------------------------------------------------------------------------------------------
// What is new, and how the start point moves

TEST_F(AlarmParser, AnEmptyArrayOrNoArrayChangesNothing) {
    for (const char* text : {"{\"d\":[]}", "{}", "{\"d\":null}", "{\"d\":\"text\"}", "{\"d\":5}", "null"}) {
        EXPECT_EQ(parse(text), std::string("JSON : ") + text + "\n");
        expectNothingHappened();
    }
    EXPECT_EQ(definitionCount(), 0U);
}

TEST_F(AlarmParser, EachStateIsDatedByItsOwnTime) {
    define(12, mailDefinition());
    const int64_t late = kStart + 10;
    for (const int stat : {0, 1, 2, 8}) {
        last_timestamp = kStart;
        // All three times are there, and only the one that belongs to the state is later than the start.
        const std::string old = "[1600000000,0]";
        const std::string now = "[" + std::to_string(late) + ",7]";
        parse("{\"d\":[{\"id\":12,\"cell\":{\"dtm\":" + (stat == 0 ? now : old) +
              ",\"atm\":" + (stat == 1 ? now : old) + ",\"acktm\":" + (stat == 2 || stat == 8 ? now : old) +
              ",\"stat\":" + std::to_string(stat) + "}}]}");
        EXPECT_EQ(takeStates(fronta_mail), (States{{12, stat}}));
        expectStartPoint(late, 8);
    }
}

TEST_F(AlarmParser, OnlyTheNewOneOfTwoIsQueuedAndTheStartPointMovesToTheLastEvenWhenItIsOlder) {
    define(12, mailDefinition());
    define(13, mailDefinition());
    parse(historyAnswer({historyEntry(12, 1, kStart + 5, 0), historyEntry(13, 0, kStart - 5, 10)}));
    EXPECT_EQ(takeStates(fronta_mail), (States{{12, 1}}));
    expectStartPoint(kStart - 5, 11);
}

TEST_F(AlarmParser, AStateOfNoTimeAtTheEndLeavesTheStartPointSoTheSameAlarmsAreNewAgain) {
    define(12, mailDefinition());
    const std::string text =
        historyAnswer({historyEntry(12, 1, kStart + 5, 0), historyEntry(12, 3, kStart + 6, 0)});
    parse(text);
    EXPECT_EQ(takeStates(fronta_mail), (States{{12, 1}}));
    expectStartPoint(kStart, 0);
    parse(text);
    EXPECT_EQ(takeStates(fronta_mail), (States{{12, 1}}));
}

TEST_F(AlarmParser, OtherStatesAreNeverNew) {
    define(12, mailDefinition());
    for (const int stat : {-1, 3, 4, 5, 6, 7, 9, 2147483647}) {
        parse(
            "{\"d\":[{\"id\":12,\"cell\":{\"dtm\":[1800000000,0],\"atm\":[1800000000,0],\"acktm\":["
            "1800000000,0],"
            "\"stat\":" +
            std::to_string(stat) + "}}]}");
        expectNothingHappened();
    }
}

TEST_F(AlarmParser, AnAlarmExactlyAtTheStartPointIsNotNewAndOneMicrosecondLaterIs) {
    define(12, mailDefinition());
    last_timestamp_ms = 250000;
    parse(historyAnswer({historyEntry(12, 1, kStart, 250000)}));
    EXPECT_TRUE(fronta_mail.empty());
    expectStartPoint(kStart, 250001);
    last_timestamp_ms = 250000;
    parse(historyAnswer({historyEntry(12, 1, kStart, 250001)}));
    EXPECT_EQ(takeStates(fronta_mail), (States{{12, 1}}));
    expectStartPoint(kStart, 250002);
}

TEST_F(AlarmParser, TheSameAnswerASecondTimeHoldsNothingNew) {
    define(12, mailDefinition());
    const std::string text =
        historyAnswer({historyEntry(12, 1, kStart + 1, 999999), historyEntry(12, 0, kStart + 2, 999999)});
    parse(text);
    EXPECT_EQ(takeStates(fronta_mail), (States{{12, 1}, {12, 0}}));
    expectStartPoint(kStart + 2, 1000000);
    parse(text);
    EXPECT_TRUE(fronta_mail.empty());
    expectStartPoint(kStart + 2, 1000000);
}

TEST_F(AlarmParser, AStartPointInTheFutureLetsNothingBeNewAndTheLastEntrySetsItBack) {
    define(12, mailDefinition());
    last_timestamp = kStart + 86400;
    parse(historyAnswer({historyEntry(12, 1, kStart + 1, 0), historyEntry(12, 0, kStart + 2, 0)}));
    EXPECT_TRUE(fronta_mail.empty());
    expectStartPoint(kStart + 2, 1);
    parse(historyAnswer({historyEntry(12, 1, kStart + 3, 0)}));
    EXPECT_EQ(takeStates(fronta_mail), (States{{12, 1}}));
}

TEST_F(AlarmParser, AnEntryOfNullsReadsAsADeactivationOfAlarm0AtTime0) {
    parse("{\"d\":[null]}");
    EXPECT_TRUE(fronta_mail.empty());
    EXPECT_EQ(definitionCount(), 1U);
    expectStartPoint(0, 1);
}

TEST_F(AlarmParser, NegativeTimesAreOld) {
    define(12, mailDefinition());
    parse(historyAnswer({historyEntry(12, 1, -5, -10)}));
    EXPECT_TRUE(fronta_mail.empty());
    expectStartPoint(-5, -9);
}

TEST_F(AlarmParser, TenThousandEntriesAreQueuedInOrder) {
    _alarm_def definition = mailDefinition();
    definition.smsact = true;
    std::vector<std::string> entries;
    for (int i = 0; i < 10000; ++i) {
        define(i, definition);
        entries.push_back(historyEntry(i, 1, kStart + 1, i));
    }
    parse(historyAnswer(entries));
    for (Fronta<_alarm_tag>* queue : {&fronta_mail, &fronta_sms}) {
        const std::vector<_alarm_tag> queued = takeAll(*queue);
        ASSERT_EQ(queued.size(), 10000U);
        for (int i = 0; i < 10000; ++i) ASSERT_EQ(queued[static_cast<size_t>(i)].id, i);
    }
    expectStartPoint(kStart + 1, 10000);
}

// ---------------------------------------------------------------------------------------------------------------
// What is no JSON

TEST_F(AlarmParser, TextThatIsNoJsonIsToldAndChangesNothing) {
    EXPECT_EQ(parse("<html>"),
              "JSON : <html>\n"
              "Failed to parse JSON\n"
              "* Line 1, Column 1\n"
              "  Syntax error: value, object or array expected.\n"
              "\n");
    expectNothingHappened();
}

TEST_F(AlarmParser, GarbageIsNoJson) {
    define(12, mailDefinition());
    const std::string good = historyAnswer({historyEntry(12, 1, kStart + 1, 0)});
    for (const std::string& text :
         {std::string(), std::string(" \n"), std::string("\x01\x02\xFF"), std::string("\xEF\xBB\xBF") + good,
          "x" + good, std::string("{\"d\":[,]}"), std::string("{\"d\":[}"), std::string(200000, '{')}) {
        const std::string output = parse(text);
        EXPECT_EQ(output.find("JSON : " + text + "\nFailed to parse JSON\n* "), 0U) << text.substr(0, 40);
        expectNothingHappened();
    }
}

TEST_F(AlarmParser, NestingTooDeepIsNoJson) {
    const std::string text = "{\"d\":" + std::string(5000, '[') + std::string(5000, ']') + "}";
    EXPECT_EQ(parse(text).find("JSON : " + text + "\nFailed to parse JSON\n* "), 0U);
    expectNothingHappened();
}

TEST_F(AlarmParser, AnAnswerCutAtAnyByteChangesNothing) {
    define(12, mailDefinition());
    const std::string text = historyAnswer({kFullEntry, historyEntry(12, 0, kStart + 9, 1)});
    for (size_t length = 0; length < text.size(); ++length) {
        const std::string output = parse(text.substr(0, length));
        EXPECT_NE(output.find("\nFailed to parse JSON\n* Line 1, Column "), std::string::npos) << length;
        expectNothingHappened();
    }
    parse(text);
    EXPECT_EQ(takeStates(fronta_mail), (States{{12, 1}, {12, 0}}));
}

TEST_F(AlarmParser, AnAnswerWithAnyOneByteSpoiltIsReadOrToldAndDoesNoHarm) {
    define(12, mailDefinition());
    const std::string text = historyAnswer({historyEntry(12, 1, kStart + 9, 1)});
    const size_t cell = text.find("cell");
    // Inside the names every byte will do but one that ends the name or escapes its end.
    for (int byte = 1; byte < 256; ++byte) {
        if (byte == '"' || byte == '\\') continue;
        std::string spoilt = text;
        spoilt[cell] = static_cast<char>(byte);
        parse(spoilt);
        last_timestamp = kStart;
        last_timestamp_ms = 0;
        EXPECT_EQ(takeStates(fronta_mail), byte == 'c' ? States({{12, 1}}) : States()) << byte;
    }
}

// ---------------------------------------------------------------------------------------------------------------
// What has a wrong shape

TEST_F(AlarmParserDeathTest, ARootThatIsNoObjectEndsTheProcess) {
    const std::string reason =
        "the whole: in Json::Value::find(begin, end): requires objectValue or nullValue";
    for (const char* text : {"[]", "[1,2]", "404 Not Found", "\"text\"", "true"}) expectEnd(text, reason);
}

TEST_F(AlarmParserDeathTest, AnEntryThatIsNoObjectEndsTheProcess) {
    const std::string reason = "entry 0: in Json::Value::find(begin, end): requires objectValue or nullValue";
    for (const char* text : {"{\"d\":[5]}", "{\"d\":[[]]}", "{\"d\":[\"\"]}", "{\"d\":[{\"cell\":[]}]}"}) {
        expectEnd(text, reason);
    }
}

TEST_F(AlarmParserDeathTest, AnObjectOfEntriesEndsTheProcess) {
    expectEnd("{\"d\":{\"0\":{}}}",
              "the whole: in Json::Value::operator[](ArrayIndex)const: requires arrayValue");
}

TEST_F(AlarmParserDeathTest, AMemberThatDoesNotConvertEndsTheProcess) {
    struct {
        const char* cell;
        const char* reason;
    } const cases[] = {
        {"{\"atm\":5}", "in Json::Value::operator[](ArrayIndex)const: requires arrayValue"},
        {"{\"dtm\":{}}", "in Json::Value::operator[](ArrayIndex)const: requires arrayValue"},
        {"{\"acktm\":[\"5\"]}", "Value is not convertible to Int64."},
        {"{\"acktm\":[5,\"5\"]}", "Value is not convertible to Int."},
        {"{\"atm\":[9223372036854775808,0]}", "LargestUInt out of Int64 range"},
        {"{\"atm\":[1e300,0]}", "double out of Int64 range"},
        {"{\"atm\":[0,2147483648]}", "LargestUInt out of Int range"},
        {"{\"atm\":[0,-2147483649]}", "LargestInt out of Int range"},
        {"{\"stat\":\"1\"}", "Value is not convertible to Int."},
        {"{\"stat\":18446744073709551615}", "LargestUInt out of Int range"},
        {"{\"av\":\"1.5\"}", "Value is not convertible to double."},
        {"{\"user\":[]}", "Type is not convertible to string"},
    };
    for (const auto& wrong : cases) {
        expectEnd(std::string("{\"d\":[{\"id\":1,\"cell\":") + wrong.cell + "}]}",
                  std::string("entry 0: ") + wrong.reason);
    }
}

TEST_F(AlarmParserDeathTest, EntriesBeforeTheBadOneWereQueuedAndAllThatWasPrintedIsOut) {
    define(12, mailDefinition());
    const std::string text = "{\"d\":[" + historyEntry(12, 1, kStart + 1, 0) + ",17]}";
    const std::string printed = parse(historyAnswer({historyEntry(12, 1, kStart + 1, 0)}));
    const std::string block = printed.substr(printed.find('\n') + 1);
    last_timestamp = kStart;
    last_timestamp_ms = 0;
    const auto parseWithBothStreamsInOne = [&text] {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        setvbuf(stdout, nullptr, _IOFBF, 1 << 16);
        json_parse(text.c_str());
    };
    EXPECT_EXIT(
        parseWithBothStreamsInOne(), KilledBySignal(SIGABRT),
        Eq("JSON : " + text + "\n" + block +
           "alarmd: history answer, entry 1: in Json::Value::find(begin, end): requires objectValue or "
           "nullValue\n"));
}

}  // namespace
