#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "alarmd/project/alarm_definitions.h"
#include "alarmd/sms/compose.h"
#include "alarmd/sms/sms_channel.h"
#include "alarmd/sms/sms_thread.h"
#include "alarmd/sms/timed_text/owed_bytes.h"
#include "alarmd/sms/timed_text/prompt.h"
#include "knihovny/descriptor.h"
#include "knihovny/generalfce.h"
#include "tests/support/pty_modem.h"

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

constexpr char kSendOk[] = "--------------:::::::: SMS SEND OK !!!! ::::::::------------\n";
constexpr char kSendFail[] = "--------------:::::::: SMS SEND FAIL !!!! ::::::::------------\n";

constexpr size_t kTooLong = 200000;  // bytes, more than a line holds that nobody reads

// What goes over the line for one message.
std::string onTheLine(const std::string& number, const std::string& text) {
    return "at+CMGS=\"" + number + "\"\r" + text + "\r\x1a" + std::string(10, '\0');
}

_user member(const std::string& number, const std::string& lang = "") {
    _user user_record;
    user_record.mobil = number;
    user_record.lang = lang;
    return user_record;
}

_alarm_tag alarmNow(int id, int stat) {
    _alarm_tag alarm;
    alarm.id = id;
    alarm.stat = stat;
    alarm.atm[0] = alarm.dtm[0] = alarm.acktm[0] = time(nullptr);
    return alarm;
}

class SmsSendingTest : public testing::Test {
  protected:
    void SetUp() override { resetDaemonState(); }
    void TearDown() override {
        disconnectModem();
        SetUp();
    }

    // A definition as a JSON file gives it.
    static void define(int id, const std::string& message) {
        MutexLock lock(project_mutex);
        _alarm_def& definition = alarm_def_map[id];
        definition.id = id;
        definition.message = message;
        definition.messageLangs = {{"cs", "Porucha"}};
    }

    static void join(int group, int alarm_id, const _user& user_record) {
        MutexLock lock(project_mutex);
        list_group[group].alarm_ids.push_back(alarm_id);
        list_group[group].users.push_back(user_record);
    }
};

TEST_F(SmsSendingTest, AMessageIsTenBytesLongerThanItsCtrlZ) {
    PtyModem line(
        PtyModem::Script{{std::string("\x1a") + std::string(10, '\0'), "\r\n+CMGS: 1\r\n\r\nOK\r\n"}});
    ASSERT_TRUE(connectModem(line.device()));
    CaptureStdout();
    sendSMS("+420123456789", "Hello");
    EXPECT_EQ(GetCapturedStdout(), std::string("Sending ....Number: +420123456789; Text: Hello\n") + kSendOk);
    EXPECT_EQ(line.received(), onTheLine("+420123456789", "Hello"));
    EXPECT_EQ(sms_counter, 1);
}

TEST_F(SmsSendingTest, WithoutAnOkTheMessageFails) {
    PtyModem line;
    ASSERT_TRUE(connectModem(line.device()));
    CaptureStdout();
    sendSMS("1", "x");
    EXPECT_EQ(GetCapturedStdout(), std::string("Sending ....Number: 1; Text: x\n") + kSendFail);
}

TEST_F(SmsSendingTest, ANumberThatTheModemRefusesGetsNoTextAndFailsAtOnce) {
    PtyModem line(PtyModem::Script{{"\"\r", "\r\n+CMS ERROR: 305\r\n"}});
    ASSERT_TRUE(connectModem(line.device()));
    CaptureStdout();
    const time_t begin = MonotonicTime().tv_sec;
    sendSMS("x", "AT+CMGF=0");
    EXPECT_LT(MonotonicTime().tv_sec - begin, 2 + 5);
    EXPECT_EQ(GetCapturedStdout(), std::string("Sending ....Number: x; Text: AT+CMGF=0\n") + kSendFail);
    EXPECT_EQ(line.received(), "at+CMGS=\"x\"\r");
    EXPECT_EQ(sms_counter, 0);
}

TEST_F(SmsSendingTest, ALateErrorBeforeThePromptKeepsNoText) {
    PtyModem line(PtyModem::Script{{"\"\r", "\r\n+CMS ERROR: 500\r\n\r\n> "},
                                   {std::string(10, '\0'), "\r\n+CMGS: 1\r\n\r\nOK\r\n"}});
    ASSERT_TRUE(connectModem(line.device()));
    CaptureStdout();
    sendSMS("1", "x");
    EXPECT_EQ(GetCapturedStdout(), std::string("Sending ....Number: 1; Text: x\n") + kSendOk);
    EXPECT_EQ(line.received(), onTheLine("1", "x"));
    EXPECT_EQ(sms_counter, 1);
}

TEST_F(SmsSendingTest, ARefusedMessageCountsForTheLimit) {
    fronta_sms_raw.push({"x", "y", "127.0.0.1", -1});
    PtyModem line(PtyModem::Script{{"\"\r", "\r\nERROR\r\n"}});
    ASSERT_TRUE(connectModem(line.device()));
    zpracuj_sms();
    EXPECT_EQ(sms_count, 1);
    EXPECT_EQ(sms_counter, 0);
}

TEST_F(SmsSendingTest, APromptThatComesBehindARefusalIsAnsweredWithEsc) {
    PtyModem line(
        PtyModem::Script{{"\"1\"\r", "\r\n+CMS ERROR: 500\r\n"}, {std::string(10, '\0'), "\r\nOK\r\n"}});
    ASSERT_TRUE(connectModem(line.device()));
    sendSMS("1", "x");
    line.say("\r\n> ");
    ASSERT_TRUE(line.eventually([] { return promptAnswer() == PromptAnswer::kPrompt; }));
    sendSMS("2", "y");
    EXPECT_EQ(line.received(), "at+CMGS=\"1\"\r\x1b" + onTheLine("2", "y"));
}

TEST_F(SmsSendingTest, APromptThatCameBeforeARefusalIsAnsweredWithEsc) {
    PtyModem line(PtyModem::Script{{"\"1\"\r", "\r\n> \r\n+CMS ERROR: 500\r\n"},
                                   {std::string(10, '\0'), "\r\nOK\r\n"}});
    ASSERT_TRUE(connectModem(line.device()));
    CaptureStdout();
    sendSMS("1", "x");
    sendSMS("2", "y");
    EXPECT_EQ(GetCapturedStdout(), std::string("Sending ....Number: 1; Text: x\n") + kSendFail +
                                       "Sending ....Number: 2; Text: y\n" + kSendOk);
    EXPECT_EQ(line.received(), "at+CMGS=\"1\"\r\x1b" + onTheLine("2", "y"));
}

// The bytes of a message that is far longer than what the line holds: a part of it, and what follows.
void expectCutOff(const std::string& received, const std::string& begin, const std::string& end) {
    const size_t length = received.size() - std::min(received.size(), begin.size() + end.size());
    EXPECT_GT(length, 0U);
    EXPECT_LT(length, kTooLong);
    // Not as a whole: a failure would print it.
    EXPECT_TRUE(received == begin + std::string(length, '7') + end)
        << received.substr(0, 50) << " ... " << received.substr(received.size() - 50);
}

// A line that takes the number of message 1 and a part of its text, and then nothing until it is released.
class StuckLine {
  public:
    StuckLine()
        : line_(PtyModem::Script{{"\x1b", "\r\nOK\r\n"}, {std::string(10, '\0'), "\r\nOK\r\n"}}),
          port_(open(line_.device().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC)) {
        EXPECT_TRUE(connectModem(line_.device()));
    }

    void hold() {
        EXPECT_TRUE(line_.eventually([this] { return received() == "at+CMGS=\"1\"\r"; }));
        line_.setDeaf(true);
        EXPECT_TRUE(line_.eventually([this] { return line_.waiting() > 0; }));
        tcflow(port_.get(), TCOOFF);
    }
    void release() {
        line_.setDeaf(false);
        tcflow(port_.get(), TCOON);
    }
    std::string received() { return line_.received(); }

  private:
    PtyModem line_;
    const Descriptor port_;
};

TEST_F(SmsSendingTest, ATextThatFallsShortIsTakenBackBeforeTheNextMessage) {
    StuckLine line;
    std::thread holding([&] { line.hold(); });
    CaptureStdout();
    sendSMS("1", std::string(kTooLong, '7'));
    holding.join();
    EXPECT_TRUE(GetCapturedStdout().ends_with(std::string("7\n") + kSendFail));
    EXPECT_EQ(owed_bytes, "\x1b");
    EXPECT_EQ(sms_counter, 0);
    line.release();
    CaptureStdout();
    sendSMS("2", "y");
    EXPECT_TRUE(GetCapturedStdout().ends_with(kSendOk));
    expectCutOff(line.received(), "at+CMGS=\"1\"\r", "\x1b" + onTheLine("2", "y"));
    EXPECT_EQ(sms_counter, 1);
}

TEST_F(SmsSendingTest, ATextThatFallsShortIsTakenBackWhenTheLineTakesBytesAgainAndTheOkIsNotItsOwn) {
    StuckLine line;
    std::thread holding([&] {
        line.hold();
        MySleep(5, 0);  // the text has 3 s, and the looks behind them 5 s
        line.release();
    });
    CaptureStdout();
    sendSMS("1", std::string(kTooLong, '7'));
    holding.join();
    EXPECT_TRUE(GetCapturedStdout().ends_with(std::string("7\n") + kSendFail));
    EXPECT_EQ(owed_bytes, "");
    expectCutOff(line.received(), "at+CMGS=\"1\"\r", "\x1b");
}

TEST_F(SmsSendingTest, ANumberThatFallsShortGetsNoTextAndIsSpoilt) {
    PtyModem line(PtyModem::Script{{std::string(10, '\0'), "\r\nOK\r\n"}});
    ASSERT_TRUE(connectModem(line.device()));
    line.setDeaf(true);
    CaptureStdout();
    sendSMS(std::string(kTooLong, '7'), "AT+CMGF=0");
    EXPECT_TRUE(GetCapturedStdout().ends_with(std::string("; Text: AT+CMGF=0\n") + kSendFail));
    EXPECT_EQ(sms_counter, 0);
    line.setDeaf(false);
    sendSMS("2", "y");
    expectCutOff(line.received(), "at+CMGS=\"", "\x1b\r" + onTheLine("2", "y"));
}

TEST_F(SmsSendingTest, NothingIsSentBeforeTheLineTakesWhatIsOwed) {
    PtyModem line(PtyModem::Script{{std::string(10, '\0'), "\r\nOK\r\n"}});
    ASSERT_TRUE(connectModem(line.device()));
    const Descriptor port(open(line.device().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    tcflow(port.get(), TCOOFF);
    owed_bytes = "\x1b";
    CaptureStdout();
    sendSMS("1", "x");
    EXPECT_EQ(GetCapturedStdout(), std::string("Sending ....Number: 1; Text: x\n") + kSendFail);
    tcflow(port.get(), TCOON);
    sendSMS("2", "y");
    EXPECT_EQ(line.received(), "\x1b" + onTheLine("2", "y"));
}

TEST_F(SmsSendingTest, NumberAndTextCannotLeaveTheirPlaces) {
    PtyModem line(PtyModem::Script{{std::string(10, '\0'), "\r\nOK\r\n"}});
    ASSERT_TRUE(connectModem(line.device()));
    sendSMS("1\"\r\nATD2;\r",
            "a\x1a"
            "AT+CMGD=0,4\r\x1b"
            "b\nc");
    EXPECT_EQ(line.received(), onTheLine("1ATD2;", "aAT+CMGD=0,4\rb\nc"));
}

TEST_F(SmsSendingTest, AnActivationCarriesTheAcknowledgeHint) {
    define(17, "Pump failure");
    join(2, 17, member("123456789"));
    fronta_sms.push(alarmNow(17, kActivated));
    PtyModem line(PtyModem::Script{{std::string(10, '\0'), "\r\nOK\r\n"}});
    ASSERT_TRUE(connectModem(line.device()));
    CaptureStdout();
    zpracuj_sms();
    EXPECT_EQ(GetCapturedStdout(),
              std::string("Zpracovavam sms queue SMS\n(SMS) GROUP: 2 - FOUND alarm ID: 17\n"
                          "Sending ....Number: 123456789; Text: (ACT) Pump failure /ack:17\n") +
                  kSendOk + "Number: 123456789; Text: (ACT) Pump failure /ack:17\n");
    EXPECT_EQ(line.received(), onTheLine("123456789", "(ACT) Pump failure /ack:17"));
    EXPECT_EQ(sms_count, 1);
}

TEST(AlarmSmsText, AMessageEndsAtItsZeroByteAndTheHintFollows) {
    EXPECT_EQ(alarmSmsText(alarmNow(17, kActivated), std::string("Pump\0 failure", 13)),
              "(ACT) Pump /ack:17");
    EXPECT_EQ(alarmSmsText(alarmNow(17, kActivated), std::string(1, '\0')), "(ACT)  /ack:17");
    EXPECT_EQ(alarmSmsText(alarmNow(17, kDeactivated), std::string("\0x", 2)), "(DEA) ");
}

TEST(AlarmSmsText, IsCutAt999Bytes) {
    const std::string message(1000, 'x');
    EXPECT_EQ(alarmSmsText(alarmNow(17, kActivated), message), "(ACT) " + message.substr(0, 993));
    EXPECT_EQ(alarmSmsText(alarmNow(17, kActivated), message.substr(0, 990)),
              "(ACT) " + message.substr(0, 990) + " /a");
}

TEST_F(SmsSendingTest, TagAndLanguageFollowStateAndUser) {
    define(17, "Pump failure");
    join(0, 17, member("1", "cs"));
    join(1, 17, member("2", "de"));
    fronta_sms.push(alarmNow(17, kDeactivated));
    fronta_sms.push(alarmNow(17, kAcknowledged));
    PtyModem line(PtyModem::Script{{std::string(10, '\0'), "\r\nOK\r\n"}});
    ASSERT_TRUE(connectModem(line.device()));
    zpracuj_sms();
    EXPECT_EQ(line.received(), onTheLine("1", "(DEA) Porucha") + onTheLine("2", "(DEA) Pump failure") +
                                   onTheLine("1", "(ACK) Porucha") + onTheLine("2", "(ACK) Pump failure"));
}

TEST_F(SmsSendingTest, OneDrainSendsAllAndTheNextOneWaits) {
    define(1, "m");
    join(0, 1, member("5"));
    testing_sms = 1;
    for (int i = 0; i < 15; ++i) fronta_sms.push(alarmNow(1, kActivated));
    zpracuj_sms();
    EXPECT_EQ(sms_count, 15);
    EXPECT_TRUE(fronta_sms.empty());

    fronta_sms.push(alarmNow(1, kActivated));
    CaptureStdout();
    zpracuj_sms();
    EXPECT_EQ(GetCapturedStdout(), "!!!! COUNT SMS PEER MIN EXCEEDED !!!\n");
    EXPECT_EQ(fronta_sms.size(), 1);

    time_sms_count -= 61;
    zpracuj_sms();
    EXPECT_EQ(sms_count, 1);
    EXPECT_TRUE(fronta_sms.empty());
}

TEST_F(SmsSendingTest, AStaleAlarmIsToldAndNotSent) {
    define(1, "m");
    join(0, 1, member("5"));
    _alarm_tag alarm = alarmNow(1, kActivated);
    alarm.atm[0] = 1700000000;
    fronta_sms.push(alarm);
    testing_sms = 1;
    setenv("TZ", "UTC", 1);
    tzset();
    CaptureStdout();
    zpracuj_sms();
    EXPECT_EQ(GetCapturedStdout(),
              "Zpracovavam sms queue SMS\nALARM TIMEOUT !!! (1700000000 Tue Nov 14 22:13:20 2023)\n");
    EXPECT_EQ(sms_count, 0);
}

TEST_F(SmsSendingTest, GroupsTenAndElevenAreNotNotified) {
    define(1, "m");
    join(10, 1, member("5"));
    join(11, 1, member("5"));
    testing_sms = 1;
    fronta_sms.push(alarmNow(1, kActivated));
    zpracuj_sms();
    EXPECT_EQ(sms_count, 0);
}

TEST_F(SmsSendingTest, TestModeWritesNothingAndCounts) {
    define(1, "m");
    join(0, 1, member("5"));
    PtyModem line;
    ASSERT_TRUE(connectModem(line.device()));
    testing_sms = 1;
    fronta_sms.push(alarmNow(1, kActivated));
    fronta_sms_raw.push({"1", "raw", "127.0.0.1", -1});
    zpracuj_sms();
    EXPECT_EQ(sms_count, 2);
    EXPECT_EQ(sms_counter, 0);
    EXPECT_EQ(line.received(), "");
}

TEST_F(SmsSendingTest, DisabledNotificationsAreToldAndCountedAndRawMessagesGo) {
    define(1, "m");
    join(0, 1, member("5"));
    join(0, 1, member(""));
    disable_notification = true;
    fronta_sms.push(alarmNow(1, kActivated));
    fronta_sms_raw.push({"9", "raw", "127.0.0.1", -1});
    PtyModem line(PtyModem::Script{{std::string(10, '\0'), "\r\nOK\r\n"}});
    ASSERT_TRUE(connectModem(line.device()));
    CaptureStdout();
    zpracuj_sms();
    const std::string log = GetCapturedStdout();
    EXPECT_NE(log.find("Notification DISABLED !!!!\n"), std::string::npos);
    EXPECT_NE(log.find("Zpracovavam sms queue SMS RAW 1\n"), std::string::npos);
    EXPECT_EQ(line.received(), onTheLine("9", "raw"));
}

// A modem that says OK to each message, behind what else happens while it is being sent.
class BusyModem {
  public:
    explicit BusyModem(std::function<void(int message)> meanwhile)
        : line_(PtyModem::Script{{"\"\r", "\r\n> "}, {std::string(10, '\0'), "\r\nOK\r\n"}}),
          meanwhile_(std::move(meanwhile)) {
        EXPECT_TRUE(connectModem(line_.device()));
        thread_ = std::thread([this] { run(); });
    }
    ~BusyModem() {
        stop_ = true;
        thread_.join();
    }

    std::string received() { return line_.received(); }

  private:
    void run() {
        for (int message = 1; !stop_; MySleep(0, 5000000)) {
            const std::string all = line_.received();
            if (std::count(all.begin(), all.end(), '"') >= 2 * message) meanwhile_(message++);
        }
    }

    PtyModem line_;
    const std::function<void(int)> meanwhile_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

TEST_F(SmsSendingTest, AnAlarmThatComesGoesBeforeTheRestOfTheRawMessages) {
    define(17, "Pump failure");
    join(2, 17, member("1"));
    for (const char* number : {"7", "8"}) fronta_sms_raw.push({number, "raw", "127.0.0.1", -1});
    BusyModem modem([](int message) {
        if (message == 1 || message == 3) fronta_sms.push(alarmNow(17, kDeactivated));
    });
    CaptureStdout();
    zpracuj_sms();
    const std::string log = GetCapturedStdout();
    const std::string alarm = onTheLine("1", "(DEA) Pump failure");
    EXPECT_EQ(modem.received(), onTheLine("7", "raw") + alarm + onTheLine("8", "raw") + alarm);
    const size_t first = log.find("Zpracovavam sms queue SMS RAW 2\n");
    EXPECT_NE(first, std::string::npos);
    EXPECT_NE(log.find("Zpracovavam sms queue SMS RAW 1\n", first), std::string::npos);
}

TEST_F(SmsSendingTest, ADrainSendsTheRawMessagesThatWereQueuedAtItsBegin) {
    define(17, "Pump failure");
    join(2, 17, member("1"));
    fronta_sms.push(alarmNow(17, kDeactivated));
    fronta_sms_raw.push({"7", "raw", "127.0.0.1", -1});
    BusyModem modem([](int message) {
        if (message <= 2) fronta_sms_raw.push({"8", "raw", "127.0.0.1", -1});
    });
    CaptureStdout();
    zpracuj_sms();
    const std::string log = GetCapturedStdout();
    EXPECT_EQ(modem.received(), onTheLine("1", "(DEA) Pump failure") + onTheLine("7", "raw"));
    EXPECT_NE(log.find("Zpracovavam sms queue SMS RAW 2\n"), std::string::npos);
    EXPECT_EQ(fronta_sms_raw.size(), 2);
    EXPECT_EQ(sms_count, 2);
    zpracuj_sms();
    EXPECT_EQ(sms_count, 4);
}

// A drain in which a stop is asked for while the first message waits for the modem.
void drainWithStop() {
    PtyModem line;
    ASSERT_TRUE(connectModem(line.device()));
    std::thread stop([] {
        MySleep(0, 500000000);
        konec = true;
    });
    zpracuj_sms();
    stop.join();
}

TEST_F(SmsSendingTest, AStopLeavesTheDrain) {
    fronta_sms_raw.push({"9", "raw", "127.0.0.1", -1});
    konec = true;
    const int before = unsentSms();
    zpracuj_sms();
    EXPECT_EQ(fronta_sms_raw.size(), 1);
    EXPECT_EQ(unsentSms(), before);
}

TEST_F(SmsSendingTest, AnAlarmThatAStopCutsOffCountsAsUnsent) {
    define(17, "Pump failure");
    join(2, 17, member("1"));
    join(2, 17, member("2"));
    join(3, 17, member(""));
    const int before = unsentSms();
    fronta_sms.push(alarmNow(17, kActivated));
    fronta_sms.push(alarmNow(17, kDeactivated));
    drainWithStop();
    EXPECT_EQ(sms_counter, 1);
    EXPECT_EQ(fronta_sms.size(), 1);
    EXPECT_EQ(unsentSms(), before + 2);
}

TEST_F(SmsSendingTest, AnAlarmOnWhoseLastMessageAStopComesIsNotCutOff) {
    define(17, "Pump failure");
    join(2, 17, member("1"));
    join(2, 17, member(""));
    const int before = unsentSms();
    fronta_sms.push(alarmNow(17, kActivated));
    drainWithStop();
    EXPECT_EQ(unsentSms(), before);
}

}  // namespace
