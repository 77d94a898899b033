#include "knihovny/generalfce.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include "knihovny/splitter.h"
#include "tests/support/fake_syslog.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

using Parameters = std::map<std::string, std::string>;

class ParamNactiTest : public testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/generalfce_test_XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        folder_ = name;
        path_ = folder_ + "/korvato.conf";
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }

    void write(const std::string& text) const { std::ofstream(path_, std::ios::binary) << text; }

    Parameters read(const std::string& text) {
        write(text);
        Parameters map;
        CaptureStdout();
        EXPECT_TRUE(ParamNacti(path_, map, [this](size_t line, const std::string& reason) {
            complaints_ += path_ + ", line " + std::to_string(line) + ": " + reason + "\n";
        }));
        EXPECT_EQ(GetCapturedStdout(), "");
        return map;
    }

    // What is no regular file, or is not there, is told in both places and leaves the map.
    static void expectNotOpened(const std::string& path, const std::string& reason) {
        Parameters map{{"a", "1"}};
        CaptureStdout();
        CaptureStderr();
        EXPECT_FALSE(ParamNacti(path, map));
        EXPECT_EQ(GetCapturedStderr(), path + ": " + reason + "\n");
        EXPECT_EQ(GetCapturedStdout(), "Nelze otevrit konfiguracni soubor\n");
        EXPECT_EQ(map, (Parameters{{"a", "1"}}));
    }

    std::string folder_;
    std::string path_;
    std::string complaints_;  // of read
};

TEST_F(ParamNactiTest, OneBlankSeparatesKeyAndValue) {
    EXPECT_EQ(read("key value\nsecond a b c\n"), (Parameters{{"key", "value"}, {"second", "a b c"}}));
}

TEST_F(ParamNactiTest, FurtherBlanksBelongToTheValue) {
    EXPECT_EQ(read("key   value  \n"), (Parameters{{"key", "  value  "}}));
}

TEST_F(ParamNactiTest, AKeyAloneHasTheEmptyValue) {
    EXPECT_EQ(read("key\nother \n"), (Parameters{{"key", ""}, {"other", ""}}));
}

TEST_F(ParamNactiTest, CommentsAndEmptyLinesAreIgnored) {
    EXPECT_EQ(read("#key value\n$x\n key value\n\n\n \n#\nk v\n"), (Parameters{{"k", "v"}}));
}

TEST_F(ParamNactiTest, ATabIsPartOfTheKey) {
    EXPECT_EQ(read("key\tvalue more\n\tx y\n"), (Parameters{{"key\tvalue", "more"}, {"\tx", "y"}}));
}

TEST_F(ParamNactiTest, CarriageReturnsAreDroppedEverywhere) {
    EXPECT_EQ(read("a 1\r\n\rb\r 2\r3\r\n\r#c 4\r\n\r\n"), (Parameters{{"a", "1"}, {"b", "23"}}));
}

TEST_F(ParamNactiTest, ALastLineWithoutLineFeedIsLost) {
    EXPECT_EQ(read("a 1\nb 2"), (Parameters{{"a", "1"}}));
    EXPECT_EQ(read("a 1"), Parameters{});
    EXPECT_EQ(read(""), Parameters{});
}

TEST_F(ParamNactiTest, ALaterLineReplacesAnEarlierOne) {
    EXPECT_EQ(read("a 1\nb 2\na 3\nb\n"), (Parameters{{"a", "3"}, {"b", ""}}));
}

TEST_F(ParamNactiTest, KeepsOtherEntriesOfTheMap) {
    write("a 1\n");
    Parameters map{{"a", "old"}, {"z", "kept"}};
    EXPECT_TRUE(ParamNacti(path_, map));
    EXPECT_EQ(map, (Parameters{{"a", "1"}, {"z", "kept"}}));
}

TEST_F(ParamNactiTest, AByteOrderMarkIsPartOfTheFirstKey) {
    EXPECT_EQ(read("\xef\xbb\xbf"
                   "a 1\nb 2\n"),
              (Parameters{{"\xef\xbb\xbf"
                           "a",
                           "1"},
                          {"b", "2"}}));
}

TEST_F(ParamNactiTest, OtherBytesAreTakenAsTheyAre) {
    EXPECT_EQ(read(std::string("k\0y \0v\xff\n\x80 %s%n\n", 15)),
              (Parameters{{std::string("k\0y", 3), std::string("\0v\xff", 3)}, {"\x80", "%s%n"}}));
}

TEST_F(ParamNactiTest, ALineWithoutKeyEndsTheReading) {
    write(std::string("a 1\n\0b 2\nc 3\n", 13));
    Parameters map;
    CaptureStdout();
    EXPECT_FALSE(ParamNacti(path_, map));
    EXPECT_EQ(GetCapturedStdout(), "Chybny konfiguracni soubor");
    EXPECT_EQ(map, (Parameters{{"a", "1"}}));
}

TEST_F(ParamNactiTest, AMissingFileIsToldAndLeavesTheMap) {
    expectNotOpened(folder_ + "/none", "No such file or directory");
}

TEST_F(ParamNactiTest, AFolderIsToldAsAFileThatCannotBeOpened) {
    expectNotOpened(folder_, "Is a directory");
}

TEST_F(ParamNactiTest, APipeIsToldAndNotReadWithAndWithoutAWriter) {
    ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
    expectNotOpened(path_, "Not a regular file");
    const int writer = open(path_.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(writer, 0);
    expectNotOpened(path_, "Not a regular file");
    ASSERT_EQ(::write(writer, "a 2\n", 4), 4);
    expectNotOpened(path_, "Not a regular file");
    close(writer);
}

TEST_F(ParamNactiTest, ADeviceAndASocketAreToldAndNotRead) {
    expectNotOpened("/dev/zero", "Not a regular file");
    const int server = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(server, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    expectNotOpened(path_, "No such device or address");
    close(server);
}

TEST_F(ParamNactiTest, LinesAreWholeWhereverTheReadBlocksEnd) {
    for (size_t length = 65526; length < 65546; ++length) {
        const std::string filler(length, 'x');
        ASSERT_EQ(read("#" + filler + "\r\nkey  value\r\nk2 v2\r\n"),
                  (Parameters{{"key", " value"}, {"k2", "v2"}}))
            << length;
    }
}

TEST_F(ParamNactiTest, ALineOfTheBoundIsReadAndOneByteMoreIsToldAndPassedOver) {
    const std::string longest = "key " + std::string(kLongestParameterLine - 4, 'v');
    Parameters map = read(longest + "\nb 2\n");
    EXPECT_TRUE(map == (Parameters{{"b", "2"}, {"key", longest.substr(4)}}));
    EXPECT_EQ(complaints_, "");

    map = read("a 1\r\n" + longest + "v\nb 2\n#" + longest + "\nc 3\n");
    EXPECT_EQ(map, (Parameters{{"a", "1"}, {"b", "2"}, {"c", "3"}}));
    EXPECT_EQ(complaints_, path_ + ", line 2: longer than 1048576 bytes, ignored\n" + path_ +
                               ", line 4: longer than 1048576 bytes, ignored\n");
}

TEST_F(ParamNactiTest, CarriageReturnsDoNotCountAmongTheBytesOfALine) {
    const std::string longest = "key " + std::string(kLongestParameterLine - 4, 'v');
    const Parameters map = read(std::string(100, '\r') + longest + "\r\n");
    EXPECT_TRUE(map == (Parameters{{"key", longest.substr(4)}}));
    EXPECT_EQ(complaints_, "");
}

TEST_F(ParamNactiTest, ALineThatIsTooLongIsPassedOverWhateverItBeginsWith) {
    EXPECT_EQ(read(std::string(kLongestParameterLine + 1, '\0') + "\nb 2\n"), (Parameters{{"b", "2"}}));
    EXPECT_EQ(complaints_, path_ + ", line 1: longer than 1048576 bytes, ignored\n");
}

TEST_F(ParamNactiTest, ALastLineWithoutLineFeedIsLostInSilenceAndWithoutMemoryWhateverItsLength) {
    write("a 1\n");
    ASSERT_EQ(truncate(path_.c_str(), 256 << 20), 0);
    rusage before{};
    getrusage(RUSAGE_SELF, &before);
    Parameters map;
    EXPECT_TRUE(ParamNacti(path_, map, [](size_t, const std::string& text) { ADD_FAILURE() << text; }));
    rusage after{};
    getrusage(RUSAGE_SELF, &after);
    EXPECT_EQ(map, (Parameters{{"a", "1"}}));
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 64 << 10);  // KiB
}

TEST_F(ParamNactiTest, WithoutAHearerComplaintsGoToStandardError) {
    write(std::string(kLongestParameterLine + 1, 'x') + "\na 1\n");
    Parameters map;
    CaptureStderr();
    EXPECT_TRUE(ParamNacti(path_, map));
    EXPECT_EQ(GetCapturedStderr(), path_ + ", line 1: longer than 1048576 bytes, ignored\n");
    EXPECT_EQ(map, (Parameters{{"a", "1"}}));
}

TEST(Txt2Vector, DropsEmptyPieces) {
    using Pieces = std::vector<std::string>;
    EXPECT_EQ(txt2vector("a;;b;", ";"), (Pieces{"a", "b"}));
    EXPECT_EQ(txt2vector(";;;", ";"), Pieces{});
    EXPECT_EQ(txt2vector("", ";"), Pieces{});
    EXPECT_EQ(txt2vector(";a", ";"), Pieces{"a"});
}

TEST(Txt2Vector, SplitsAtAnyOfTheDelimiters) {
    using Pieces = std::vector<std::string>;
    EXPECT_EQ(txt2vector("a, b;c", " ,;"), (Pieces{"a", "b", "c"}));
    EXPECT_EQ(txt2vector(std::string("a,b"), std::string(",")), (Pieces{"a", "b"}));
}

TEST(Txt2Vector, LeavesTheTextAlone) {
    const std::string text = "a,b";
    txt2vector(text, ",");
    EXPECT_EQ(text, "a,b");
}

TEST(Txt2Vector, EndsAtTheFirstZeroByte) {
    EXPECT_EQ(txt2vector(std::string("a,b\0,c", 6), ","), (std::vector<std::string>{"a", "b"}));
}

TEST(Txt2Vector, SplitterOfTheSameTextKeepsEmptyTokens) {
    EXPECT_EQ(txt2vector("a;;b;", ";").size(), 2U);
    EXPECT_EQ(Splitter("a;;b;", ";").size(), 4U);
}

TEST(StringToUpper, ChangesAsciiLettersOnly) {
    EXPECT_EQ(StringToUpper("aBz09\xc5\x99\x80"), "ABZ09\xc5\x99\x80");
    EXPECT_EQ(StringToUpper(""), "");
    EXPECT_EQ(StringToUpper(std::string("a\0b", 3)), std::string("A\0B", 3));
}

TEST(Urldecode, DecodesEscapesAndBlanks) {
    EXPECT_EQ(urldecode("a+b%41%2"), "a bA");
    EXPECT_EQ(urldecode("%c5%99%C5%99"), "\xc5\x99\xc5\x99");
    EXPECT_EQ(urldecode("%00x"), std::string("\0x", 2));
    EXPECT_EQ(urldecode("plain"), "plain");
    EXPECT_EQ(urldecode(""), "");
}

TEST(Urldecode, ABrokenEscapeIsDroppedWithTheByteBehindIt) {
    EXPECT_EQ(urldecode("%zz"), "z");
    EXPECT_EQ(urldecode("%4"), "");
    EXPECT_EQ(urldecode("a%"), "a");
    EXPECT_EQ(urldecode("%4g1"), "g1");
    EXPECT_EQ(urldecode("%%41"), "41");
    EXPECT_EQ(urldecode("%+a"), "a");
}

TEST(TimevalMinus, GivesTheSizeOfTheDifferenceAndItsSign) {
    timeval result{};
    timeval a{1, 500000};
    timeval b{2, 0};
    EXPECT_EQ(TimevalMinus(&result, &a, &b), 1);
    EXPECT_EQ(result.tv_sec, 0);
    EXPECT_EQ(result.tv_usec, 500000);
    EXPECT_EQ(TimevalMinus(&result, &b, &a), 0);
    EXPECT_EQ(result.tv_sec, 0);
    EXPECT_EQ(result.tv_usec, 500000);
    timeval c{10, 100};
    EXPECT_EQ(TimevalMinus(&result, &c, &a), 0);
    EXPECT_EQ(result.tv_sec, 8);
    EXPECT_EQ(result.tv_usec, 500100);
    EXPECT_EQ(TimevalMinus(&result, &a, &a), 0);
    EXPECT_EQ(result.tv_sec, 0);
    EXPECT_EQ(result.tv_usec, 0);
}

TEST(TimevalMensi, EqualTimesAreNotSmaller) {
    timeval a{1, 500000};
    timeval b{2, 0};
    EXPECT_TRUE(TimevalMensi(&a, &b));
    EXPECT_FALSE(TimevalMensi(&b, &a));
    EXPECT_FALSE(TimevalMensi(&a, &a));
}

TEST(TiskTed2, WritesTheLocalTime) {
    char text[20];
    time_t before = 0;
    time_t after = 0;
    char expected[80];
    do {
        before = time(nullptr);
        TiskTed2(text, sizeof text);
        after = time(nullptr);
    } while (before != after);
    tm local{};
    localtime_r(&before, &local);
    snprintf(expected, sizeof expected, "%02d.%02d.%04d %02d:%02d:%02d", local.tm_mday, local.tm_mon + 1,
             local.tm_year + 1900, local.tm_hour, local.tm_min, local.tm_sec);
    EXPECT_STREQ(text, expected);
}

TEST(TiskTed2, ATooSmallBufferGetsAnEmptyText) {
    char text[19] = "x";
    TiskTed2(text, sizeof text);
    EXPECT_STREQ(text, "");
}

TEST(BinTiskHex2, WritesPrintableBytesAsTheyAreAndOthersInHex) {
    const char bytes[] = {'a', 31, ' ', '}', 126, 0, '\n', static_cast<char>(0xff), '%'};
    CaptureStdout();
    binTiskHex2(sizeof bytes, bytes);
    binTiskHex2(0, bytes);
    EXPECT_EQ(GetCapturedStdout(), "a 1F } 7E 00 0A FF%\n\n");
}

TEST(SystemLog, WritesOneInformationalLineUnderTheIdentity) {
    systemLog("comcontrol", "100%s%n");
    const std::vector<SyslogEntry> entries = fake_syslog.take();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].identity, "comcontrol");
    EXPECT_EQ(entries[0].option, 2);  // to the console when there is no system log
    EXPECT_EQ(entries[0].facility, 6);
    EXPECT_EQ(entries[0].priority, 6);  // informational
    EXPECT_EQ(entries[0].message, "100%s%n");
    EXPECT_EQ(fake_syslog.openCount(), 0);
}

TEST(SystemLogAndPrint, WritesToBothPlaces) {
    CaptureStdout();
    systemLogAndPrint("tcpserver3", "100%s%n");
    EXPECT_EQ(GetCapturedStdout(), "100%s%n\n");
    const std::vector<SyslogEntry> entries = fake_syslog.take();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].identity, "tcpserver3");
    EXPECT_EQ(entries[0].message, "100%s%n");
}

TEST(MySleep, ASignalEndsIt) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    struct sigaction previous {};
    sigaction(SIGALRM, &action, &previous);
    const itimerval repeatedly{{0, 20000}, {0, 20000}};
    setitimer(ITIMER_REAL, &repeatedly, nullptr);
    MySleep(3600, 0);
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &previous, nullptr);
}

struct Condition {
    pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    bool flag = false;
};

TEST(WaitOnCondition, ASetFlagIsFoundAtOnce) {
    Condition condition;
    condition.flag = true;
    EXPECT_EQ(waitOnCondition(&condition.flag, &condition.changed, &condition.mutex, 0), 0);
}

TEST(WaitOnCondition, TimesOut) {
    Condition condition;
    EXPECT_EQ(waitOnCondition(&condition.flag, &condition.changed, &condition.mutex, 0), ETIMEDOUT);
    // The mutex was given back.
    EXPECT_EQ(pthread_mutex_trylock(&condition.mutex), 0);
    pthread_mutex_unlock(&condition.mutex);
}

TEST(WaitOnCondition, WaitsForTheBroadcastThatFollowsTheFlag) {
    Condition condition;
    std::thread other([&] {
        pthread_mutex_lock(&condition.mutex);
        pthread_cond_broadcast(&condition.changed);  // without the flag: the wait goes on
        pthread_mutex_unlock(&condition.mutex);
        pthread_mutex_lock(&condition.mutex);
        condition.flag = true;
        pthread_cond_broadcast(&condition.changed);
        pthread_mutex_unlock(&condition.mutex);
    });
    EXPECT_EQ(waitOnCondition(&condition.flag, &condition.changed, &condition.mutex, 60), 0);
    other.join();
}

TEST(WaitOnConditionSleep, ASetFlagIsFoundAtOnce) {
    const std::atomic<bool> flag = true;
    EXPECT_EQ(waitOnConditionSleep(&flag, 0, 0), 1);
}

TEST(WaitOnConditionSleep, WithoutTimeItSleepsOnceAndTimesOut) {
    const std::atomic<bool> flag = false;
    timespec before{};
    timespec after{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    EXPECT_EQ(waitOnConditionSleep(&flag, 0, 0), 110);
    clock_gettime(CLOCK_MONOTONIC, &after);
    const long microseconds =
        (after.tv_sec - before.tv_sec) * 1000000 + (after.tv_nsec - before.tv_nsec) / 1000;
    EXPECT_GE(microseconds, 49999);
}

TEST(WaitOnConditionSleep, FindsAFlagThatIsSetMeanwhile) {
    std::atomic<bool> flag = false;
    std::thread other([&] { flag = true; });
    EXPECT_EQ(waitOnConditionSleep(&flag, 60, 0), 1);
    other.join();
}

}  // namespace
