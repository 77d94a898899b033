#include "alarmd/gps/nmea.h"

#include "tests/support/project_files.h"

namespace {

constexpr char kGga[] = "$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*47";

// The store after the bytes, and what was assembled on the way.
struct Receiver {
    void take(std::string_view bytes) {
        for (const char byte : bytes) {
            if (!assembler.take(byte, line)) continue;
            lines.push_back(line);
            storeSentence(line, now, store);
        }
    }

    NmeaAssembler assembler;
    std::string line;
    std::vector<std::string> lines;
    _gps_data store;
    int64_t now = 1000;
};

_gps_data storeAfter(std::string_view bytes) {
    Receiver receiver;
    receiver.take(bytes);
    return receiver.store;
}

bool isEmpty(const _gps_data& store) {
    for (const std::string& sentence : store.GPGSV) {
        if (!sentence.empty()) return false;
    }
    return store.GPGSV_count == 0 && store.GPGGA.empty() && store.GPRMC.empty() && store.GPGSA.empty() &&
           store.GPVTG.empty();
}

std::string fixture(const std::string& name) {
    const auto path = std::filesystem::path(__FILE__).parent_path() / "fixtures/nmea" / name;
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

int checked(const std::string& sentence) {
    std::string log;
    return checkCRC(sentence, log);
}

// The last whole line of the fixture that begins so, without CR LF.
std::string lastLine(const std::string& bytes, const std::string& begin) {
    const size_t at = bytes.rfind("\n" + begin) + 1;
    return bytes.substr(at, bytes.find("\r\n", at) - at);
}

TEST(NmeaTest, ASentenceIsStoredWithoutItsLineEndAndTheTimeIsNoted) {
    const _gps_data store = storeAfter(std::string(kGga) + "\r\n");
    EXPECT_EQ(store.GPGGA, kGga);
    EXPECT_EQ(store.updated, 1000);
    EXPECT_EQ(store.GPRMC, "");
    EXPECT_EQ(store.GPGSV_count, 0);
}

TEST(NmeaTest, NothingIsStoredBeforeTheLineFeed) {
    const _gps_data store = storeAfter(std::string(kGga) + "\r");
    EXPECT_TRUE(isEmpty(store));
    EXPECT_EQ(store.updated, 0);
}

TEST(NmeaTest, EachKindHasItsPlace) {
    const _gps_data store =
        storeAfter("$GPGGA,1*00\r\n$GPRMC,2*00\r\n$GPVTG,3*00\r\n$GPGSA,4*00\r\n$GPGSV,1,1,5*00\r\n");
    EXPECT_EQ(store.GPGGA, "$GPGGA,1*00");
    EXPECT_EQ(store.GPRMC, "$GPRMC,2*00");
    EXPECT_EQ(store.GPVTG, "$GPVTG,3*00");
    EXPECT_EQ(store.GPGSA, "$GPGSA,4*00");
    EXPECT_EQ(store.GPGSV[1], "$GPGSV,1,1,5*00");
    EXPECT_EQ(store.GPGSV[0], "");
}

TEST(NmeaTest, TheTalkerIsNotLookedAt) {
    for (const char* talker : {"GN", "GL", "GA", "BD", "??"}) {
        const std::string sentence = std::string("$") + talker + "RMC,1*00";
        EXPECT_EQ(storeAfter(sentence + "\r\n").GPRMC, sentence);
    }
}

TEST(NmeaTest, OtherKindsAreDroppedAndOnlyTheTimeIsNoted) {
    const _gps_data store = storeAfter("$GPTXT,01,01,02,ANTSTATUS=OK*3B\r\n");
    EXPECT_TRUE(isEmpty(store));
    EXPECT_EQ(store.updated, 1000);
}

TEST(NmeaTest, AGsvSentenceGoesToItsMessageNumberAndSetsTheCount) {
    const _gps_data store = storeAfter("$GPGSV,3,2,11,14,25,170,00*00\r\n");
    EXPECT_EQ(store.GPGSV[2], "$GPGSV,3,2,11,14,25,170,00*00");
    EXPECT_EQ(store.GPGSV_count, 3);
    EXPECT_EQ(gpsDataText(store),
              "----------GPS-----------\nGPGGA: \nGPRMC: \nGPGSA: \nGPVTG: \nGPGSV[1]: \n"
              "GPGSV[2]: $GPGSV,3,2,11,14,25,170,00*00\nGPGSV[3]: \n------------------------\n");
}

TEST(NmeaTest, AGsvSentenceWithANumberOutside1To31IsDropped) {
    for (const char* number :
         {"0", "32", "-1", "99999999999", "99999999999999999999999", "", "x", "-99999999999999999999"}) {
        const _gps_data store = storeAfter(std::string("$GPGSV,3,") + number + ",11*00\r\n");
        EXPECT_TRUE(isEmpty(store)) << number;
    }
    EXPECT_EQ(storeAfter("$GPGSV,3,31,11*00\r\n").GPGSV[31], "$GPGSV,3,31,11*00");
}

TEST(NmeaTest, TheGsvCountNeverLeadsAReaderOutOfTheArray) {
    EXPECT_EQ(storeAfter("$GPGSV,9,1,11*00\r\n").GPGSV_count, 9);
    EXPECT_EQ(storeAfter("$GPGSV,-,1,11*00\r\n").GPGSV_count, 0);
    // A count of several digits moves the message number: it is read at the place that it has behind one
    // digit.
    EXPECT_EQ(storeAfter("$GPGSV,99 1,11*00\r\n").GPGSV_count, 31);
    EXPECT_EQ(storeAfter("$GPGSV,-91,1,11*00\r\n").GPGSV_count, 0);
    _gps_data store;
    store.GPGSV_count = 1000000;
    EXPECT_EQ(gsvSentences(store), 31);
    EXPECT_EQ(linesIn(gpsDataText(store)), 6U + 31U);
    store.GPGSV_count = -5;
    EXPECT_EQ(gsvSentences(store), 0);
    EXPECT_EQ(linesIn(gpsDataText(store)), 6U);
}

TEST(NmeaTest, ALaterSentenceReplacesAnEarlierOne) {
    Receiver receiver;
    receiver.take("$GPGGA,1,long one*00\r\n");
    receiver.now = 1001;
    receiver.take("$GNGGA,2*00\r\n");
    EXPECT_EQ(receiver.store.GPGGA, "$GNGGA,2*00");
    EXPECT_EQ(receiver.store.updated, 1001);
}

TEST(NmeaTest, AShortLineIsDroppedAndDoesNotSpoilTheSentenceBehindIt) {
    for (const char* line : {"\n", "\r\n", "\r\r\n", "$\n", "$GP*1\n", "AT\r\n", "\r\r\r\r\r\n"}) {
        Receiver receiver;
        receiver.take(line);
        EXPECT_EQ(receiver.lines.size(), 0U) << line;
        EXPECT_EQ(receiver.store.updated, 0) << line;
        receiver.take("$GPGGA,1*00\r\n");
        ASSERT_EQ(receiver.lines.size(), 1U) << line;
        EXPECT_EQ(receiver.lines[0], "$GPGGA,1*00\r\n") << line;
        EXPECT_EQ(receiver.store.GPGGA, "$GPGGA,1*00") << line;
    }
}

TEST(NmeaTest, ASentenceEndsAtItsChecksumWhateverEndsTheLine) {
    for (const char* end : {"\r\n", "\n", "\r\r\n", "\r\r\r\n"}) {
        const _gps_data store = storeAfter(std::string(kGga) + end + "$GPGSV,1,1,5*00" + end);
        EXPECT_EQ(store.GPGGA, kGga);
        EXPECT_EQ(checked(store.GPGGA), 1);
        EXPECT_EQ(store.GPGSV[1], "$GPGSV,1,1,5*00");
        EXPECT_EQ(store.GPGSV_count, 1);
    }
}

TEST(NmeaTest, ACarriageReturnWithinALineBelongsToIt) {
    EXPECT_EQ(storeAfter("$GPGGA\r,1*00\r\n").GPGGA, "$GPGGA\r,1*00");
    EXPECT_TRUE(isEmpty(storeAfter("\r$GPGGA,1*00\r\n")));
}

TEST(NmeaTest, SixBytesBeforeTheLineFeedAreALine) {
    EXPECT_EQ(storeAfter("$GPGGA\n").GPGGA, "$GPGGA");
    EXPECT_EQ(storeAfter("$GPGGA\r\n").GPGGA, "$GPGGA");
}

// Their kind is read from what is left of them.
TEST(NmeaTest, OfLinesThatAreShortWithoutTheirCarriageReturnsOnlyTheTimeIsNoted) {
    for (const char* line : {"$GPGG\r\n", "$GPG\r\r\n", "$GP\r\r\r\n", "$\r\r\r\r\r\n", "\r\r\r\r\r\r\n",
                             "$GPGSV\r\n", "$GPGSV,1\n", "$GPGSV,1,\n", "$GPGSV,1,\r\n"}) {
        const _gps_data store = storeAfter(line);
        EXPECT_TRUE(isEmpty(store)) << line;
        EXPECT_EQ(store.updated, 1000) << line;
    }
    for (const char* line : {"", "\n", "\r", "$", "$GP", "$GPGSV", "$GPGSV,1,"}) {
        _gps_data store;
        storeSentence(line, 1000, store);
        EXPECT_TRUE(isEmpty(store)) << line;
    }
}

TEST(NmeaTest, AReceiverThatGreetsWithTextAndEmptyLines) {
    Receiver receiver;
    receiver.take("\r\n\r\nOK\r\n\r\n$GNTXT,01,01,02,BOOT 1.30*79\r\n$PTXT,01*25\r\n\r\n");
    EXPECT_TRUE(isEmpty(receiver.store));
    receiver.take("$GNTXT,01,01,02,ANTSTATUS=OK*25\r\r\n\r\r\n$GPGGA,,,,,,0,,,,,,,,*66\r\r\n");
    EXPECT_EQ(receiver.store.GPGGA, "$GPGGA,,,,,,0,,,,,,,,*66");
    EXPECT_EQ(checked(receiver.store.GPGGA), 1);
}

TEST(NmeaTest, AReceiverWhoseLinesEndWithALineFeedAlone) {
    const std::string bytes = "\n" + std::string(kGga) +
                              "\n\n$GPRMC,123519,A,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W*6A\n"
                              "$GPGSA,A,3,04,05,,09,12,,,24,,,,,2.5,1.3,2.1*39\n$GPVTG,,,,,,,,,N*30\n";
    const _gps_data store = storeAfter(bytes);
    EXPECT_EQ(store.GPGGA, kGga);
    for (const std::string* sentence : {&store.GPGGA, &store.GPRMC, &store.GPGSA, &store.GPVTG})
        EXPECT_EQ(checked(*sentence), 1) << *sentence;
}

TEST(NmeaTest, ALineOf1023BytesIsTakenAndALongerOneDroppedWhole) {
    const std::string longest = "$GPGGA," + std::string(1023 - 8, 'x');
    EXPECT_EQ(storeAfter(longest + "\r\n").GPGGA, longest);
    Receiver receiver;
    receiver.take(longest + "y\r\n");
    EXPECT_TRUE(isEmpty(receiver.store));
    EXPECT_EQ(receiver.store.updated, 0);
    receiver.take(std::string(1 << 20, '$'));
    receiver.take("$GPGGA,1*00\r\n$GPRMC,2*00\r\n");
    EXPECT_EQ(receiver.store.GPGGA, "");
    EXPECT_EQ(receiver.store.GPRMC, "$GPRMC,2*00");
}

TEST(NmeaTest, BinaryBytesDoNoHarm) {
    Receiver receiver;
    for (int round = 0; round < 20; ++round) receiver.take(binaryBytes());
    receiver.take("\nxxxxxx\n" + std::string(kGga) + "\r\n");
    EXPECT_EQ(receiver.store.GPGGA, kGga);
}

TEST(NmeaTest, TheChecksumIsThatOfTheBytesBetweenDollarAndAsterisk) {
    EXPECT_EQ(calculateGPScrc(kGga), 0x47);
    EXPECT_EQ(calculateGPScrc("$A*00"), 'A');
    for (const char* none : {"", "$", "$*0", "$*00"}) EXPECT_EQ(calculateGPScrc(none), 0) << none;
    EXPECT_EQ(calculateGPScrc("$\xff\x01*00"), 0xfe);
}

TEST(NmeaTest, ARightChecksumIsTold) {
    int result = 0;
    EXPECT_EQ(outputOf([&] { result = checkCRC(kGga); }).out, "");
    EXPECT_EQ(result, 1);
    EXPECT_EQ(checked("$GPGGA*56"), 1);
    EXPECT_EQ(checked("$GNVTG,,,,,,,,,N*2e"), 1);
}

TEST(NmeaTest, AWrongChecksumIsPrinted) {
    std::string changed = kGga;
    changed[20] = '9';
    for (const std::string& wrong :
         {changed, std::string("$GPGGA"), std::string("$GPGGA,1"), std::string("$GPGGA*5"),
          std::string("$GPGGA*"), std::string("$*GPGGA*56"), binaryBytes()}) {
        int result = 1;
        EXPECT_EQ(outputOf([&] { result = checkCRC(wrong); }).out, "CRC FAIL\n") << wrong;
        EXPECT_EQ(result, 0) << wrong;
    }
}

TEST(NmeaTest, LessThanSixCharactersFailSilently) {
    for (const char* text : {"", "$", "$GP*1"}) {
        int result = 1;
        EXPECT_EQ(outputOf([&] { result = checkCRC(std::string(text)); }).out, "") << text;
        EXPECT_EQ(result, 0) << text;
    }
}

TEST(NmeaTest, TheEmptyStoreIsPrintedWithoutGsvLines) {
    EXPECT_EQ(gpsDataText(_gps_data()),
              "----------GPS-----------\nGPGGA: \nGPRMC: \nGPGSA: \nGPVTG: \n------------------------\n");
}

TEST(NmeaTest, PercentSignsInASentenceStayWhatTheyAre) {
    const std::string sentence = "$GPGGA,%n%s%x*00";
    EXPECT_NE(gpsDataText(storeAfter(sentence + "\r\n")).find("GPGGA: " + sentence + "\n"),
              std::string::npos);
}

TEST(NmeaFixtureTest, AReceiverFromItsColdStartOn) {
    const std::string bytes = fixture("gps_cold_start.nmea");
    ASSERT_GT(bytes.size(), 50000U);
    Receiver receiver;
    receiver.take(bytes.substr(0, bytes.find("$GPGGA,094108")));
    EXPECT_EQ(receiver.store.GPGGA, "$GPGGA,094107.00,,,,,0,00,99.99,,,,,,*6D");
    EXPECT_EQ(receiver.store.GPVTG, "$GPVTG,,,,,,,,,N*30");

    receiver.take(bytes.substr(bytes.find("$GPGGA,094108")));
    EXPECT_EQ(receiver.lines.size(), linesIn(bytes));
    for (const std::string& line : receiver.lines)
        EXPECT_EQ(checked(line.substr(0, line.size() - 2)), 1) << line;
    const _gps_data& store = receiver.store;
    EXPECT_EQ(store.GPGGA, "$GPGGA,094336.00,4911.8316,N,01637.2729,E,1,08,0.91,235.5,M,43.6,M,,*5B");
    EXPECT_EQ(store.GPRMC, "$GPRMC,094336.00,A,4911.8316,N,01637.2729,E,13.990,77.47,140524,,,A*6E");
    EXPECT_EQ(store.GPGSA, "$GPGSA,A,3,02,05,07,09,13,16,20,23,,,,,1.62,0.95,1.31*07");
    EXPECT_EQ(store.GPVTG, "$GPVTG,77.47,T,,M,13.990,N,25.909,K,A*0B");
    EXPECT_EQ(store.GPGSV_count, 3);
    EXPECT_EQ(store.GPGSV[1], lastLine(bytes, "$GPGSV,3,1"));
    EXPECT_EQ(store.GPGSV[2], lastLine(bytes, "$GPGSV,3,2"));
    EXPECT_EQ(store.GPGSV[3], "$GPGSV,3,3,11,26,59,246,43,29,16,357,31,30,76,034,37*48");
    EXPECT_EQ(store.GPGSV[4], "");
}

// The recording, with the other line ends that receivers make.
TEST(NmeaFixtureTest, LineEndsAndEmptyLinesMakeNoDifference) {
    const std::string bytes = fixture("multi_system.nmea");
    const _gps_data wanted = storeAfter(bytes);
    ASSERT_EQ(wanted.GPGSV_count, 2);
    for (const std::string_view end : {"\n", "\r\r\n", "\r\n\r\n", "\n\n"}) {
        std::string others;
        for (const char byte : bytes) {
            if (byte == '\n') {
                others += end;
            } else if (byte != '\r') {
                others += byte;
            }
        }
        EXPECT_EQ(gpsDataText(storeAfter(others)), gpsDataText(wanted));
    }
}

TEST(NmeaFixtureTest, OfSeveralSystemsTheLastSeriesCounts) {
    const std::string bytes = fixture("multi_system.nmea");
    const _gps_data store = storeAfter(bytes);
    EXPECT_EQ(store.GPGGA, "$GNGGA,000039.00,5004.6837,N,01426.6373,E,1,08,0.98,235.9,M,43.6,M,,*46");
    EXPECT_EQ(store.GPRMC, lastLine(bytes, "$GNRMC"));
    // Two messages of GLONASS over the first two of three of GPS.
    EXPECT_EQ(store.GPGSV_count, 2);
    EXPECT_EQ(store.GPGSV[1], lastLine(bytes, "$GLGSV,2,1"));
    EXPECT_EQ(store.GPGSV[2], lastLine(bytes, "$GLGSV,2,2"));
    EXPECT_EQ(store.GPGSV[3], lastLine(bytes, "$GPGSV,3,3"));
}

TEST(NmeaFixtureTest, ABadLineCostsSomeSentencesAndNoMore) {
    const std::string bytes = fixture("bad_line.nmea");
    Receiver receiver;
    int wrong = 0;
    for (const char byte : bytes) {
        const size_t before = receiver.lines.size();
        receiver.take({&byte, 1});
        if (receiver.lines.size() > before) wrong += 1 - checked(receiver.store.GPGGA);
        EXPECT_LE(receiver.store.GPGSV_count, 9);
    }
    EXPECT_GT(wrong, 0);
    EXPECT_LT(wrong, static_cast<int>(receiver.lines.size() / 10));
    const _gps_data& store = receiver.store;
    EXPECT_EQ(store.GPGGA, "$GPGGA,040209.00,4935.7943,N,01715.4975,E,1,08,1.00,235.6,M,43.6,M,,*56");
    EXPECT_EQ(store.GPVTG, "$GPVTG,59.96,T,,M,9.268,N,17.164,K,A*3E");
    EXPECT_EQ(store.GPGSV_count, 3);
    for (int i = 1; i <= 3; ++i) EXPECT_EQ(checked(store.GPGSV[i]), 1) << i;
}

}  // namespace
