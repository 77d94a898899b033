#include "alarmd/requests/answers.h"

#include "tests/support/project_files.h"

namespace {

constexpr char kParseFailure[] = "{\"s\":0, \"err\":\"Failed to parse JSON\"}";
constexpr char kNotReady[] = "{\"r\":50,\"s\":0,\"err\":\"Modem activation failed\"}\n";
constexpr char kNoParsedGps[] = "{\"r\":53,\"s\":0,\"err\":\"GPS disabled or CRC error.\"}\n";
constexpr char kGga[] = "$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*47";
constexpr char kGsa[] = "$GPGSA,A,3,02,05,07,09,13,16,20,23,,,,,1.62,0.95,1.31*07";
constexpr char kRmc[] = "$GPRMC,094336.00,A,4911.8316,N,01637.2729,E,13.990,77.47,140524,,,A*6E";
constexpr char kVtg[] = "$GPVTG,77.47,T,,M,13.990,N,25.909,K,A*0B";

RequestState withGps() {
    RequestState state;
    state.gps_enable = true;
    state.gps.GPGGA = kGga;
    state.gps.GPGSA = kGsa;
    state.gps.GPRMC = kRmc;
    state.gps.GPVTG = kVtg;
    return state;
}

RequestState withLastSms(const std::string& text) {
    RequestState state;
    state.last_sms = {1715679815, "+420603123456", text};
    return state;
}

Answer fcgi(const std::string& request, const RequestState& state = {}) {
    return answerFcgiRequest(request, state);
}

Answer tcp(const std::string& request, const RequestState& state = {}, bool modem_ready = true) {
    return answerTcpRequest(request, state, modem_ready);
}

void expectParseFailure(const Answer& answer, const std::string& request) {
    EXPECT_EQ(answer.body, kParseFailure) << request;
    EXPECT_EQ(answer.log.find("Failed to parse JSON\n* "), 0U) << request;
    EXPECT_TRUE(answer.log.ends_with("\n\n")) << request;
    EXPECT_EQ(answer.action, RequestAction::kNone) << request;
    EXPECT_FALSE(answer.protocol_run) << request;
}

// ---------------------------------------------------------------------------------------------------------------
// FastCGI, protocol by protocol.

TEST(FcgiAnswerTest, AnSmsIsAcceptedWhateverTheModemDoes) {
    const Answer answer = fcgi(R"({"t":50,"number":"+420603123456","text":"Tlak vody\nnízký"})");
    EXPECT_EQ(answer.body, "{\"s\":1,\"r\":50}\n");
    EXPECT_EQ(answer.log, "FCGI Request protocol 50 (Send SMS)\n");
    EXPECT_EQ(answer.action, RequestAction::kSendSms);
    EXPECT_EQ(answer.number, "+420603123456");
    EXPECT_EQ(answer.text, "Tlak vody\nnízký");
    EXPECT_TRUE(answer.protocol_run);
}

TEST(FcgiAnswerTest, AnSmsThatFindsNoRoomIsRefusedAndItsLogStays) {
    Answer answer = fcgi(R"({"t":50,"number":"1","text":"x"})");
    refuseSms(answer);
    EXPECT_EQ(answer.body, "{\"r\":50,\"s\":0,\"err\":\"SMS queue is full\"}\n");
    EXPECT_EQ(answer.log, "FCGI Request protocol 50 (Send SMS)\n");
    EXPECT_EQ(answer.action, RequestAction::kNone);
    EXPECT_TRUE(answer.protocol_run);
}

TEST(FcgiAnswerTest, MissingMembersOfAnSmsAreEmptyTexts) {
    for (const char* request : {R"({"t":50})", R"({"t":50,"number":null,"text":null})"}) {
        const Answer answer = fcgi(request);
        EXPECT_EQ(answer.action, RequestAction::kSendSms) << request;
        EXPECT_EQ(answer.number + answer.text, "") << request;
    }
}

TEST(FcgiAnswerTest, TheModemStatusOfADaemonThatHasJustStarted) {
    const Answer answer = fcgi(R"({"t":51})");
    EXPECT_EQ(
        answer.body,
        "{\"r\":51,\"s\":1,\"d\":{\"TYPE\":\"0\",\"IMEI\":\"\",\"CSQ\":\"\",\"SYSCFG\":\"\",\"SYSCFGEX\":"
        "\"\","
        "\"COPS\":\"\",\"CREG\":\"\",\"CARDLOCK\":\"\",\"SYSINFO\":\"\",\"SYSINFOEX\":\"\",\"CGPADDR\":\"\","
        "\"CGEQNEG\":\"\",\"SMSCOUNT\":\"0\",\"UPDATED\":\"0\"}}");
    EXPECT_EQ(answer.log, "FCGI Request protocol 51 (Read modem status)\nResponse: " + answer.body + "\n");
    EXPECT_TRUE(answer.protocol_run);
}

TEST(FcgiAnswerTest, TheModemStatusHoldsEveryValueUnescaped) {
    RequestState state;
    state.modemTyp = 3;
    state.sms_counter = 17;
    state.status = {"1", "2", "3", "4", "5\"\\", "6", "7", "8", "9", "10", "11", 9999999999};
    EXPECT_EQ(fcgi(R"({"t":51})", state).body,
              "{\"r\":51,\"s\":1,\"d\":{\"TYPE\":\"3\",\"IMEI\":\"1\",\"CSQ\":\"2\",\"SYSCFG\":\"3\","
              "\"SYSCFGEX\":\"4\","
              "\"COPS\":\"5\"\\\",\"CREG\":\"6\",\"CARDLOCK\":\"7\",\"SYSINFO\":\"8\",\"SYSINFOEX\":\"9\","
              "\"CGPADDR\":"
              "\"10\",\"CGEQNEG\":\"11\",\"SMSCOUNT\":\"17\",\"UPDATED\":\"9999999999\"}}");
}

TEST(FcgiAnswerTest, RawGpsThatIsOffIsToldWithAnotherWordInTheLog) {
    const Answer answer = fcgi(R"({"t":52})");
    EXPECT_EQ(answer.body, "{\"r\":52,\"s\":0,\"err\":\"GPS disabled\"}\n");
    EXPECT_EQ(answer.log,
              "FCGI Request protocol 52 (Read GPS raw data)\n"
              "Response: {\"r\":52,\"s\":0,\"err\":\"DPS disabled\"}\n");
}

TEST(FcgiAnswerTest, RawGpsHoldsTheSentencesAsTheyAreStored) {
    RequestState state = withGps();
    state.gps.GPGSV[0] = "never";
    state.gps.GPGSV[1] = "$GPGSV,2,1,05*00";
    state.gps.GPGSV[2] = "$GPGSV,2,2,05*00";
    state.gps.GPGSV[3] = "older";
    state.gps.GPGSV_count = 2;
    const Answer answer = fcgi(R"({"t":52})", state);
    EXPECT_EQ(answer.body, std::string("{\"r\":52,\"s\":1,\"d\":{\"GGA\":\"") + kGga + "\",\"GSA\":\"" +
                               kGsa + "\",\"RMC\":\"" + kRmc + "\",\"VTG\":\"" + kVtg +
                               "\",\"GSV\":[\"$GPGSV,2,1,05*00\",\"$GPGSV,2,2,05*00\"]}}\n");
    EXPECT_EQ(answer.log, "FCGI Request protocol 52 (Read GPS raw data)\nResponse: " + answer.body + "\n");
}

TEST(FcgiAnswerTest, RawGpsWithoutSentencesHasAnEmptyArray) {
    RequestState state;
    state.gps_enable = true;
    EXPECT_EQ(fcgi(R"({"t":52})", state).body,
              "{\"r\":52,\"s\":1,\"d\":{\"GGA\":\"\",\"GSA\":\"\",\"RMC\":\"\",\"VTG\":\"\",\"GSV\":[]}}\n");
}

TEST(FcgiAnswerTest, AGsvCountBeyondTheArrayReadsNothingBehindIt) {
    RequestState state = withGps();
    state.gps.GPGSV_count = 1000000;
    const std::string body = fcgi(R"({"t":52})", state).body;
    EXPECT_TRUE(body.ends_with(",\"\"]}}\n"));
    EXPECT_EQ(fcgi(R"({"t":53})", state).gps_parse.GPGSV, "");
    state.gps.GPGSV_count = -1;
    EXPECT_TRUE(fcgi(R"({"t":52})", state).body.ends_with("\"GSV\":[]}}\n"));
}

TEST(FcgiAnswerTest, ParsedGpsIsTheSentencesWithoutAddressAndChecksum) {
    RequestState state = withGps();
    state.gps.GPGSV[1] = "$GPGSV,2,1,05,26,59,246,43*00";
    state.gps.GPGSV[2] = "$GPGSV,2,2,05,29,16,357,31*00";
    state.gps.GPGSV_count = 2;
    const Answer answer = fcgi(R"({"t":53})", state);
    EXPECT_EQ(answer.body,
              "{\"r\":53,\"s\":1,\"d\":{\"GGA\":\"123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,\","
              "\"GSA\":\"A,3,02,05,07,09,13,16,20,23,,,,,1.62,0.95,1.31\","
              "\"RMC\":\"094336.00,A,4911.8316,N,01637.2729,E,13.990,77.47,140524,,,A\","
              "\"VTG\":\"77.47,T,,M,13.990,N,25.909,K,A\","
              "\"GSV\":\"05,26,59,246,4305,29,16,357,31\"}}\n");
    EXPECT_EQ(answer.log, "Request protocol 53 (Read GPS parse data)\nResponse: " + answer.body + "\n");
    EXPECT_TRUE(answer.gps_parsed);
    EXPECT_EQ(answer.gps_parse.GPVTG, "77.47,T,,M,13.990,N,25.909,K,A");
    EXPECT_EQ(answer.gps_parse.GPGSV, "05,26,59,246,4305,29,16,357,31");
}

TEST(FcgiAnswerTest, ParsedGpsWithoutGsvHasAnEmptyText) {
    EXPECT_TRUE(fcgi(R"({"t":53})", withGps()).body.ends_with(",\"GSV\":\"\"}}\n"));
}

TEST(FcgiAnswerTest, GsvSentencesThatAreTooShortGiveNothing) {
    RequestState state = withGps();
    state.gps.GPGSV[1] = "$GPGSV,2,1";
    state.gps.GPGSV[2] = "$GPGSV,2,2,x*00";
    state.gps.GPGSV_count = 3;
    EXPECT_EQ(fcgi(R"({"t":53})", state).gps_parse.GPGSV, "x");
}

TEST(FcgiAnswerTest, ASentenceOfItsAddressAloneGivesAnEmptyText) {
    RequestState state = withGps();
    state.gps.GPVTG = "$GPVTG*52";
    const Answer answer = fcgi(R"({"t":53})", state);
    EXPECT_TRUE(answer.gps_parsed);
    EXPECT_EQ(answer.gps_parse.GPVTG, "");
}

TEST(FcgiAnswerTest, ParsedGpsThatIsOffIsToldThoughTheSentencesAreChecked) {
    RequestState state = withGps();
    state.gps_enable = false;
    state.gps.GPRMC[10] = 'x';
    const Answer answer = fcgi(R"({"t":53})", state);
    EXPECT_EQ(answer.body, kNoParsedGps);
    EXPECT_EQ(answer.log,
              std::string("Request protocol 53 (Read GPS parse data)\nCRC FAIL\nResponse: ") + kNoParsedGps);
    EXPECT_FALSE(answer.gps_parsed);
}

TEST(FcgiAnswerTest, EachOfTheFourSentencesHasToBeRight) {
    for (std::string _gps_data::*sentence :
         {&_gps_data::GPGGA, &_gps_data::GPGSA, &_gps_data::GPRMC, &_gps_data::GPVTG}) {
        RequestState state = withGps();
        (state.gps.*sentence)[9] = '!';
        EXPECT_EQ(fcgi(R"({"t":53})", state).body, kNoParsedGps);
        (state.gps.*sentence).clear();
        const Answer silent = fcgi(R"({"t":53})", state);
        EXPECT_EQ(silent.body, kNoParsedGps);
        EXPECT_EQ(silent.log.find("CRC FAIL"), std::string::npos);
    }
}

TEST(FcgiAnswerTest, TheLastSms) {
    const Answer answer = fcgi(R"({"t":54})", withLastSms("Kotel 2: OK"));
    EXPECT_EQ(answer.body,
              "{\"r\":54,\"s\":1,\"d\":{\"Timestamp\":1715679815,\"From\":\"+420603123456\",\"Text\":\"Kotel "
              "2: OK\"}}\n");
    EXPECT_EQ(answer.log, "Request protocol 54 (Read last receive SMS)\nResponse: " + answer.body + "\n");
    EXPECT_EQ(fcgi(R"({"t":54})").body,
              "{\"r\":54,\"s\":1,\"d\":{\"Timestamp\":0,\"From\":\"\",\"Text\":\"\"}}\n");
}

TEST(FcgiAnswerTest, NotificationsAreSwitchedOffAndOn) {
    const Answer off = fcgi(R"({"t":55})");
    EXPECT_EQ(off.body, "{\"r\":55,\"s\":1}\n");
    EXPECT_EQ(off.log, "Request protocol 55 (Disable notification)\nResponse: {\"r\":55,\"s\":1}\n\n");
    EXPECT_EQ(off.action, RequestAction::kDisableNotification);
    const Answer on = fcgi(R"({"t":56})");
    EXPECT_EQ(on.body, "{\"r\":56,\"s\":1}\n");
    EXPECT_EQ(on.log, "Request protocol 56 (Enable notification)\nResponse: {\"r\":56,\"s\":1}\n\n");
    EXPECT_EQ(on.action, RequestAction::kEnableNotification);
}

TEST(FcgiAnswerTest, UnknownProtocolsGetNoAnswer) {
    for (const char* request : {"{}", "null", R"({"t":null})", R"({"t":0})", R"({"t":49})", R"({"t":57})",
                                R"({"t":-55})", R"({"t":2147483647})", R"({"T":55})"}) {
        const Answer answer = fcgi(request);
        EXPECT_EQ(answer.body, "") << request;
        EXPECT_EQ(answer.log, "") << request;
        EXPECT_FALSE(answer.protocol_run) << request;
    }
}

TEST(FcgiAnswerTest, MembersThatAProtocolDoesNotUseAreNotLookedAt) {
    EXPECT_EQ(fcgi(R"({"t":55,"number":5,"text":[1],"more":{}})").body, "{\"r\":55,\"s\":1}\n");
    EXPECT_EQ(fcgi(R"({"t":55.0})").body, "{\"r\":55,\"s\":1}\n");
}

TEST(FcgiAnswerTest, TheParsersMessagesAreLogged) {
    const Answer answer = fcgi("not json");
    EXPECT_EQ(answer.body, kParseFailure);
    EXPECT_EQ(
        answer.log,
        "Failed to parse JSON\n* Line 1, Column 1\n  Syntax error: value, object or array expected.\n\n");
}

TEST(FcgiAnswerTest, WhatIsNoRequestGetsTheParseFailure) {
    for (const std::string& request : {std::string(),
                                       std::string("{"),
                                       std::string("t=55"),
                                       std::string("{\"t\":55"),
                                       std::string("[]"),
                                       std::string("[55]"),
                                       std::string("55"),
                                       std::string("\"t\""),
                                       std::string("true"),
                                       std::string(R"({"t":"55"})"),
                                       std::string(R"({"t":true})"),
                                       std::string(R"({"t":55.5})"),
                                       std::string(R"({"t":[55]})"),
                                       std::string(R"({"t":{}})"),
                                       std::string(R"({"t":2147483648})"),
                                       std::string(R"({"t":1e300})"),
                                       std::string(R"({"t":99999999999999999999999})"),
                                       std::string(R"({"t":50,"number":123,"text":"x"})"),
                                       std::string(R"({"t":50,"number":"1","text":["x"]})"),
                                       std::string(R"({"t":50,"number":{},"text":"x"})"),
                                       std::string(R"({"t":50,"number":"1","text":false})"),
                                       binaryBytes(),
                                       std::string(1 << 20, '{'),
                                       std::string(1 << 20, '['),
                                       std::string(5000, '\0')}) {
        expectParseFailure(fcgi(request), request.substr(0, 60));
        expectParseFailure(tcp(request), request.substr(0, 60));
    }
}

TEST(FcgiAnswerTest, ARequestThatIsTooLongGetsTheParseFailure) {
    const Answer answer = answerTooLongRequest();
    expectParseFailure(answer, "");
    EXPECT_EQ(answer.log, "Failed to parse JSON\n* the request is longer than 1 MiB\n\n");
}

// ---------------------------------------------------------------------------------------------------------------
// Percent signs.

TEST(FormatWithItselfTest, TextWithoutPercentSignsStays) {
    EXPECT_EQ(formatWithItself(""), "");
    EXPECT_EQ(formatWithItself("abc"), "abc");
}

TEST(FormatWithItselfTest, TwoPercentSignsGiveOne) {
    EXPECT_EQ(formatWithItself("100%%"), "100%");
    EXPECT_EQ(formatWithItself("%%%%"), "%%");
    EXPECT_EQ(formatWithItself("%%s"), "%s");
}

TEST(FormatWithItselfTest, TheFirstTextConversionGivesTheTextOnce) {
    EXPECT_EQ(formatWithItself("<%s>"), "<<%s>>");
    EXPECT_EQ(formatWithItself("<%s|%s>"), "<<%s|%s>|%s>");
    EXPECT_EQ(formatWithItself("%%%s"), "%%%%s");
}

TEST(FormatWithItselfTest, OtherConversionsStayAsTheyAre) {
    for (const char* text :
         {"%", "%n", "%x%n%d%p", "% s", "%5s", "%-9s", "%.3s", "%1$s", "%ls", "50 % ", "%\n"}) {
        EXPECT_EQ(formatWithItself(text), text);
    }
}

TEST(FormatWithItselfTest, WhatPrintfDefinesComesOutAsFromPrintf) {
    for (const std::string& text :
         {std::string("a%%b"), std::string("a%sb"), std::string("%%s%s%%"), std::string("plain")}) {
        char expected[200];
        // NOLINTNEXTLINE
        const int length = snprintf(expected, sizeof expected, text.c_str(), text.c_str());
        EXPECT_EQ(formatWithItself(text), std::string(expected, static_cast<size_t>(length)));
    }
}

TEST(FcgiAnswerTest, ThePercentSignsOfAnSmsAreTakenAsConversions) {
    const std::string head =
        "{\"r\":54,\"s\":1,\"d\":{\"Timestamp\":1715679815,\"From\":\"+420603123456\",\"Text\":\"";
    const Answer answer = fcgi(R"({"t":54})", withLastSms("80%% %n%s%x"));
    EXPECT_EQ(answer.body, head + "80% %n" + head + "80%% %n%s%x\"}}\n" + "%x\"}}\n");
    EXPECT_NE(answer.log.find("Response: " + head + "80%% %n%s%x\"}}\n\n"), std::string::npos);
}

TEST(FcgiAnswerTest, PercentSignsInEveryOtherFieldAreNoDanger) {
    RequestState state = withGps();
    state.gps.GPGSV[1] = "%n%s%x";
    state.gps.GPGSV_count = 1;
    const std::string body = fcgi(R"({"t":52})", state).body;
    EXPECT_NE(body.find("\"GSV\":[\"%n{\"r\":52"), std::string::npos);
    state.status.IMEI = "%n%s%x";
    EXPECT_NE(fcgi(R"({"t":51})", state).body.find("\"IMEI\":\"%n{\"r\":51"), std::string::npos);
    const Answer sms = fcgi(R"({"t":50,"number":"%n%s%x","text":"%n%s%x"})");
    EXPECT_EQ(sms.number + sms.text, "%n%s%x%n%s%x");
    expectParseFailure(fcgi("%n%s%x"), "%n%s%x");
}

// ---------------------------------------------------------------------------------------------------------------
// TCP.

TEST(TcpAnswerTest, AnSmsIsAcceptedWhenTheModemIsReady) {
    const Answer answer = tcp(R"({"t":50,"number":"12345","text":"hi"})");
    EXPECT_EQ(answer.body, "{\"s\":1,\"r\":50}\n");
    EXPECT_EQ(answer.log, "Request protocol 50 (Send SMS)\n");
    EXPECT_EQ(answer.action, RequestAction::kSendSms);
    EXPECT_EQ(answer.number, "12345");
    EXPECT_EQ(answer.text, "hi");
    EXPECT_TRUE(answer.protocol_run);
}

TEST(TcpAnswerTest, WithoutAModemEveryRequestGetsTheSameAnswer) {
    for (const char* request : {R"({"t":50,"number":"12345","text":"hi"})", R"({"t":54})", R"({"t":99})",
                                "{}", "[]", R"({"t":"x"})", R"({"t":50,"number":1})"}) {
        const Answer answer = tcp(request, {}, false);
        EXPECT_EQ(answer.body, kNotReady) << request;
        EXPECT_EQ(answer.log, "") << request;
        EXPECT_EQ(answer.action, RequestAction::kNone) << request;
    }
    expectParseFailure(tcp("not json", {}, false), "not json");
}

TEST(TcpAnswerTest, TheLastSmsIsNoFormatHere) {
    const Answer answer = tcp(R"({"t":54})", withLastSms("80%% %n%s%x"));
    EXPECT_EQ(answer.body,
              "{\"r\":54,\"s\":1,\"d\":{\"Timestamp\":1715679815,\"From\":\"+420603123456\",\"Text\":\"80%% "
              "%n%s%x\"}}\n");
    EXPECT_EQ(answer.log, "Request protocol 54 (Read last receive SMS)\nResponse: " + answer.body + "\n");
    EXPECT_EQ(tcp(R"({"t":54})").body,
              "{\"r\":54,\"s\":1,\"d\":{\"Timestamp\":0,\"From\":\"\",\"Text\":\"\"}}\n");
}

TEST(TcpAnswerTest, OtherProtocolsGetNoAnswer) {
    for (const char* request : {R"({"t":51})", R"({"t":55})", R"({"t":0})", "{}", "null"}) {
        const Answer answer = tcp(request);
        EXPECT_EQ(answer.body, "") << request;
        EXPECT_EQ(answer.log, "") << request;
        EXPECT_EQ(answer.action, RequestAction::kNone) << request;
        EXPECT_FALSE(answer.protocol_run) << request;
    }
}

}  // namespace
