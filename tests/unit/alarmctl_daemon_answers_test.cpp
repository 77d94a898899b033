#include <gtest/gtest.h>

#include "alarmctl/daemon/daemon_answers.h"
#include "alarmd/requests/answers.h"

namespace {

// What the responder answers in this state, as it goes out.
std::string answerOf(int protocol, const RequestState& state) {
    return answerFcgiRequest("{\"t\":" + std::to_string(protocol) + "}", state).body;
}

Json::Value lastSms(const std::string& from, const std::string& text) {
    RequestState state;
    state.last_sms.timestamp = 1795236963;
    state.last_sms.from = from;
    state.last_sms.text = text;
    const auto answer = readAnswer(54, answerOf(54, state));
    return answer ? (*answer)["d"] : Json::Value();
}

TEST(ReadAnswerTest, TheLastSmsIsReadAsItCame) {
    const std::string texts[] = {"ACK:101",
                                 "",
                                 "say \"hi\"",
                                 "\\",
                                 "a\\n\\u0041",
                                 "\"",
                                 "}}",
                                 "\"}}",
                                 "x\",\"Text\":\"y",
                                 "{\"r\":54,\"s\":1,\"d\":{\"Timestamp\":1",
                                 "50 % off",
                                 "\xc5\x99\xe2\x82\xac\xf0\x9f\x98\x80",
                                 "a\tb"};
    for (const std::string& text : texts) {
        const Json::Value data = lastSms("+420601000001", text);
        EXPECT_EQ(data["Text"], text);
        EXPECT_EQ(data["From"], "+420601000001") << text;
        EXPECT_EQ(data["Timestamp"].asInt64(), 1795236963) << text;
    }
}

TEST(ReadAnswerTest, ATextCannotPassForAnotherSender) {
    const Json::Value data = lastSms("+420777777777", "x\",\"From\":\"+420601000001");
    EXPECT_EQ(data["From"], "+420777777777");
    EXPECT_EQ(data["Text"], "x\",\"From\":\"+420601000001");
}

TEST(ReadAnswerTest, WhatThePrintDoesIsUndone) {
    for (const std::string text : {"%s", "a %s b", "%n%s%x", "100%% %s %s", "%s\"}}", "\"}}%s", "%%s %s"}) {
        EXPECT_EQ(lastSms("+420601000001", text)["Text"], text);
    }
    EXPECT_EQ(lastSms("+420601000001", "100%%")["Text"], "100%");  // that is lost
}

TEST(ReadAnswerTest, BytesThatAreNoUtf8AreReplaced) {
    const std::string replaced = "\xef\xbf\xbd";
    EXPECT_EQ(lastSms("1", "a\xe9z")["Text"], "a" + replaced + "z");
    EXPECT_EQ(lastSms("1", "\xc0\xaf")["Text"], replaced + replaced);
    EXPECT_EQ(lastSms("1", "\xed\xa0\x80")["Text"], replaced + replaced + replaced);
    EXPECT_EQ(lastSms("1", "\xe2\x82")["Text"], replaced + replaced);
}

TEST(ReadAnswerTest, TheModemsStatusMayHoldAnything) {
    RequestState state;
    state.modemTyp = 3;
    state.sms_counter = 14;
    state.status.COPS = "0,0,\"Operator\",7";
    state.status.CREG = "0,1";
    const auto answer = readAnswer(51, answerOf(51, state));
    ASSERT_TRUE(answer);
    EXPECT_EQ((*answer)["s"], 1);
    const Json::Value& data = (*answer)["d"];
    EXPECT_EQ(data["TYPE"], "3");
    EXPECT_EQ(data["IMEI"], "");
    EXPECT_EQ(data["COPS"], "0,0,\"Operator\",7");
    EXPECT_EQ(data["CREG"], "0,1");
    EXPECT_EQ(data["SMSCOUNT"], "14");
    EXPECT_EQ(data["UPDATED"], "0");
    EXPECT_EQ(data.size(), 14U);
}

RequestState withGps() {
    RequestState state;
    state.gps_enable = true;
    state.gps.GPGGA = "$GPGGA,045606.00,5004.5859,N,01426.2802,W,1,07,0.9,235.4,M,44.7,M,,*7F";
    state.gps.GPGSA = "$GPGSA,A,3,02,05,12,15,20,25,29,,,,,,1.6,0.9,1.3*30";
    state.gps.GPRMC = "$GPRMC,045606.00,A,5004.5859,N,01426.2802,W,12.0,17.0,211126,,,A*46";
    state.gps.GPVTG = "$GPVTG,17.0,T,,M,12.0,N,22.2,K,A*3A";
    state.gps.GPGSV_count = 2;
    state.gps.GPGSV[1] = "$GPGSV,2,1,08,02,74,042,45*42";
    state.gps.GPGSV[2] = "$GPGSV,2,2,08,20,29,214,36*4A";
    return state;
}

TEST(ReadAnswerTest, SentencesAreRead) {
    RequestState state = withGps();
    auto answer = readAnswer(52, answerOf(52, state));
    ASSERT_TRUE(answer);
    EXPECT_EQ((*answer)["d"]["VTG"], state.gps.GPVTG);
    ASSERT_EQ((*answer)["d"]["GSV"].size(), 2U);
    EXPECT_EQ((*answer)["d"]["GSV"][1], state.gps.GPGSV[2]);
    state.gps.GPGSV_count = 0;
    answer = readAnswer(52, answerOf(52, state));
    ASSERT_TRUE(answer);
    EXPECT_TRUE((*answer)["d"]["GSV"].isArray());
    EXPECT_EQ((*answer)["d"]["GSV"].size(), 0U);
}

TEST(ReadAnswerTest, RefusalsAndPlainAnswersAreRead) {
    const RequestState state;
    EXPECT_EQ((*readAnswer(52, answerOf(52, state)))["err"], "GPS disabled");
    EXPECT_EQ((*readAnswer(53, answerOf(53, state)))["s"], 0);
    EXPECT_EQ((*readAnswer(55, answerOf(55, state)))["s"], 1);
    EXPECT_EQ((*readAnswer(50, answerFcgiRequest("{\"t\":50,\"number\":\"1\"}", state).body))["s"], 1);
    EXPECT_EQ((*readAnswer(50, answerFcgiRequest("nonsense", state).body))["err"], "Failed to parse JSON");
}

TEST(ReadAnswerTest, OtherThingsAreNotUnderstood) {
    for (const std::string body :
         {"", "null", "[]", "5", "<html>", "{}", "{\"s\":\"1\"}", "{\"r\":55,\"s\":1}", "{\"r\":54,\"s\":1}x",
          "{\"r\":54,\"s\":1,\"d\":{\"Timestamp\":x,\"From\":\"\",\"Text\":\"\"}}",
          "{\"r\":54,\"s\":1,\"d\":{\"Timestamp\":1,\"From\":\"\",\"Text\":\"\"}",
          "{\"r\":54,\"s\":1,\"d\":{\"Text\":\"\",\"From\":\"\",\"Timestamp\":1}}",
          "{\"r\":54,\"s\":0,\"err\":{}}"}) {
        EXPECT_FALSE(readAnswer(54, body)) << body;
    }
}

TEST(PrintableTest, NothingSteersATerminal) {
    EXPECT_EQ(printable("a\x1b[2Jb\r\n\x7f"), "a?[2Jb???");
    EXPECT_EQ(printable("\xc2\x9b"
                        "31m \xc2\xb0 \xc5\x99\xc3"),
              "?31m \xc2\xb0 \xc5\x99\xc3");
    EXPECT_EQ(printable("\xc2\xa0"), "\xc2\xa0");
}

TEST(ReadGpsTest, APositionIsReadOfTheSentences) {
    const auto answer = readAnswer(53, answerOf(53, withGps()));
    ASSERT_TRUE(answer);
    ASSERT_EQ((*answer)["s"], 1) << "wrong checksums";
    const GpsReport report = readGps((*answer)["d"]);
    EXPECT_TRUE(report.fix);
    EXPECT_EQ(report.latitude, "50°04.5859' N");
    EXPECT_EQ(report.longitude, "014°26.2802' W");
    ASSERT_TRUE(report.north && report.east);
    EXPECT_NEAR(*report.north, 50.0764317, 1e-6);
    EXPECT_NEAR(*report.east, -14.4380033, 1e-6);
    EXPECT_EQ(report.knots, "12.0");
    EXPECT_EQ(report.kilometres, "22.2");
    EXPECT_EQ(report.course, "17.0");
    EXPECT_EQ(report.altitude, "235.4");
    EXPECT_EQ(report.satellites_used, "07");
    EXPECT_EQ(report.satellites_in_view, "08");
    ASSERT_TRUE(report.time);
    EXPECT_EQ(*report.time, 1795236966);
}

TEST(ReadGpsTest, EmptyAndBrokenSentencesAreNoPosition) {
    EXPECT_FALSE(readGps(Json::Value(Json::objectValue)).fix);
    Json::Value data;
    for (const char* rmc : {"045606.00,V,,,,,,,211126,,,N", "045606.00,A,5,N,0,E", "1,A,,,,,,,2,,,",
                            "045606.00,A,50x4.5859,N,01426.2802,E,,,211126", "xxxxxx,A,,,,,,,yyyyyy"}) {
        data["RMC"] = rmc;
        EXPECT_FALSE(readGps(data).fix) << rmc;
    }
    EXPECT_FALSE(readGps(data).time);
}

}  // namespace
