#include <gtest/gtest.h>

#include <string>

#include "alarmd/sms/timed_text/initialisation.h"
#include "alarmd/sms/timed_text/message_store.h"
#include "alarmd/sms/timed_text/modem_port.h"
#include "alarmd/sms/timed_text/prompt.h"
#include "tests/support/pty_modem.h"

namespace {

class ModemTest : public testing::Test {
  protected:
    void SetUp() override { resetDaemonState(); }

    void TearDown() override { resetDaemonState(); }

    // What the reading thread would do with these bytes.
    static void feed(const std::string& bytes) {
        for (const char c : bytes) {
            char text[2] = {c, '\0'};
            MyModem.ZpracujByte(text);
        }
    }

    static int stored() {
        MutexLock lock(reply_mutex);
        return pocetpz;
    }
};

TEST_F(ModemTest, OkSetsBothFlagsAndRestartsTheBuffer) {
    feed("\r\nOK\r\n");
    EXPECT_EQ(receive, 1);
    EXPECT_EQ(rec_status, 1);
    EXPECT_EQ(stored(), 0);
}

TEST_F(ModemTest, ErrorClearsReceiveWhenItsErArrives) {
    receive = 1;
    feed("\r\n+CME ");
    EXPECT_EQ(receive, 1);
    feed("ER");
    EXPECT_EQ(receive, 0);
    EXPECT_EQ(stored(), 0);
    feed("ROR: 10\r\n");
    EXPECT_EQ(rec_status, 0);
}

TEST_F(ModemTest, After251BytesStorageRestartsAtIndexZero) {
    feed(std::string(250, 'x'));
    EXPECT_EQ(stored(), 250);
    feed("x");
    EXPECT_EQ(stored(), 0);
    feed(std::string(49, 'y'));
    EXPECT_EQ(stored(), 49);
    EXPECT_EQ(receive, 0);
}

TEST_F(ModemTest, TheFirstByteIsNotComparedWithWhatIsBeforeTheBuffer) {
    feed("K");
    feed("R");
    EXPECT_EQ(rec_status, 0);
    EXPECT_EQ(stored(), 2);
}

TEST_F(ModemTest, AReplyIsWholeAfterItsOkWhateverComesBehindIt) {
    feed("\r\n+CMGR: x\r\nHello\r\n\r\nOK\r\n\r\n+CMTI: \"SM\",1\r\n");
    EXPECT_EQ(replyText(), "\r\n+CMGR: x\r\nHello\r\n\r\nOK");
}

TEST_F(ModemTest, TheClosingLineEndIsNotStoredOverTheEcho) {
    feed("AT\r\r\nOK");
    clearReply();
    feed("\r\nAT+CGMM\r\r\nEM7565\r\n\r\nOK\r\n");
    EXPECT_EQ(replyText(), "AT+CGMM\r\r\nEM7565\r\n\r\nOK");
}

TEST_F(ModemTest, AHeaderInsideATextDoesNotReplaceTheSender) {
    feed(
        "\r\n+CMGR: \"REC UNREAD\",\"666\",,\"t\"\r\nOK\r\n+CMGR: \"REC "
        "UNREAD\",\"123\",,\"t\"\r\nACK:1\r\n\r\nOK\r\n");
    EXPECT_EQ(replyText(), "\r\n+CMGR: \"REC UNREAD\",\"666\",,\"t\"\r\nOK");
}

TEST_F(ModemTest, AReplyThatWentOverItsOwnStartIsNotWhole) {
    const std::string header = "\r\n+CMGR: \"REC UNREAD\",\"666\",,\"t\"\r\n";
    for (const std::string& text : {std::string("WATER"), std::string(300, 'x')}) {
        clearReply();
        feed(header + text + "\r\n\r\nOK\r\n");
        EXPECT_EQ(receive, 1);
        EXPECT_FALSE(replyIsWhole());
        clearReply();
        EXPECT_TRUE(replyIsWhole());
        feed("\r\nnext\r\nOK\r\n");
        EXPECT_TRUE(replyIsWhole());
        EXPECT_EQ(replyText(), "\r\nnext\r\nOK");
    }
}

TEST_F(ModemTest, BehindAnErTheReplyIsStoredOverItsStart) {
    feed("\r\n+CMGR: \"REC UNREAD\",\"666\",,\"t\"\r\nWATER low\r\n\r\nOK\r\n");
    EXPECT_EQ(replyText(), " low\r\n\r\nOKREC UNREAD\",\"666\",,\"t\"\r\nWATER");
}

TEST_F(ModemTest, WithoutAnOkTheBufferIsTheReply) {
    feed("\r\nnothing yet");
    EXPECT_EQ(replyText(), "\r\nnothing yet");
}

TEST_F(ModemTest, AnyBytesDoNoHarm) {
    unsigned seed = 1;
    std::string noise;
    for (int i = 0; i < 100000; ++i) noise += static_cast<char>((seed = seed * 1103515245 + 12345) >> 16);
    feed(noise);
    feed(std::string(100000, '\0'));
    EXPECT_LE(stored(), kReplyLimit);
    clearReply();
    feed("\r\nOK");
    EXPECT_EQ(replyText(), "\r\nOK");
}

TEST_F(ModemTest, AReplyThatIsClearedInALineBeginsInIt) {
    feed("\r\nOK\r\n");
    clearReply();
    EXPECT_FALSE(replyBeganInLine());
    feed("zzz");
    clearReply();
    EXPECT_TRUE(replyBeganInLine());
    feed("\r\n");
    clearReply();
    EXPECT_FALSE(replyBeganInLine());
    feed("> ");  // a prompt, which is not ended
    clearReply();
    EXPECT_FALSE(replyBeganInLine());
}

using Answer = PromptAnswer;

struct AnswerCase {
    std::string said;
    Answer answer;
};

class ModemAnswerTest : public ModemTest, public testing::WithParamInterface<AnswerCase> {};

TEST_P(ModemAnswerTest, TellsWhetherATextIsWaitedFor) {
    feed("\r\nOK\r\n");
    awaitPrompt();
    feed(GetParam().said);
    EXPECT_EQ(promptAnswer(), GetParam().answer);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, ModemAnswerTest,
    testing::Values(
        AnswerCase{"", Answer::kNone}, AnswerCase{"at+CMGS=\"1\"\r\r\n> ", Answer::kPrompt},
        AnswerCase{"\r\n> ", Answer::kPrompt}, AnswerCase{"\r\n>", Answer::kNone},
        AnswerCase{"\r\nx> ", Answer::kNone}, AnswerCase{"\r\nOK\r\n", Answer::kNone},
        AnswerCase{"\r\nERROR\r\n", Answer::kError}, AnswerCase{"ERROR\r", Answer::kError},
        AnswerCase{"ERROR\n", Answer::kError}, AnswerCase{"at+CMGS=\"1\"\r\r\nERROR\r\n", Answer::kError},
        AnswerCase{"\r\n+CMS ERROR: 305\r\n", Answer::kError},
        AnswerCase{"\r\n+CME ERROR: SIM busy\r\n", Answer::kError},
        AnswerCase{"\r\n+CMS ERROR:305\r\n", Answer::kError},
        // What is no line of its own is no result.
        AnswerCase{"\r\nERROR", Answer::kNone}, AnswerCase{"\r\nERRORS\r\n", Answer::kNone},
        AnswerCase{"\r\nNO ERROR\r\n", Answer::kNone}, AnswerCase{"\r\n ERROR\r\n", Answer::kNone},
        AnswerCase{"\r\nerror\r\n", Answer::kNone}, AnswerCase{"\r\n+CMS ERRO\r\nR: 1\r\n", Answer::kNone},
        AnswerCase{"at+CMGS=\"ERROR\"\r", Answer::kNone},
        AnswerCase{"at+CMGS=\"+CMS ERROR: 1\"\r", Answer::kNone},
        AnswerCase{"\r\n+CUSD: 0,\"+CMS ERROR: 1\",15\r\n", Answer::kNone},
        AnswerCase{"\r\n^DSFLOWRPT:0000ERROR\r\n", Answer::kNone},
        AnswerCase{std::string("\0ERROR\r\n", 8), Answer::kNone},
        // The last word counts: an error of the message before, then the prompt of this one.
        AnswerCase{"\r\n+CMS ERROR: 500\r\n\r\n> ", Answer::kPrompt},
        AnswerCase{"\r\n> \r\n+CMS ERROR: 500\r\n", Answer::kError},
        // A prompt stays open: this one was a line of a text that the modem was told.
        AnswerCase{"\r\nERROR\r\n\r\n+CMT: \"+1\",,\"t\"\r\n> \r\n", Answer::kError},
        AnswerCase{"\r\nERROR\r\n\r\n> \r\n\r\n> ", Answer::kPrompt}, AnswerCase{"\r\n> \r\n", Answer::kNone},
        AnswerCase{"\r\nERROR\r\n\r\n+CMTI: \"SM\",1\r\n", Answer::kError},
        AnswerCase{"\r\nERROR\r\n" + std::string(100000, 'x') + "\r\n", Answer::kError}));

TEST_F(ModemTest, AnErrorIsNoAnswerToALineThatWasSentBehindItsBegin) {
    for (const std::string before : {"\r\nERROR\r\n", "\r\nERR", "\r\n+CMS", "\r\nx"}) {
        feed(before);
        awaitPrompt();
        feed(before == "\r\n+CMS" ? " ERROR: 500\r\n" : "OR\r\n");
        EXPECT_EQ(promptAnswer(), Answer::kNone) << before;
        feed("\r\nERROR\r\n");
        EXPECT_EQ(promptAnswer(), Answer::kError) << before;
    }
}

class ModemLineTest : public ModemTest {
  protected:
    void TearDown() override {
        disconnectModem();
        ModemTest::TearDown();
    }

    static void setCodes(const std::string& pin_code, const std::string& centre) {
        MutexLock lock(settings_mutex);
        pin = pin_code;
        smsc = centre;
    }
};

TEST_F(ModemLineTest, InitialisationSendsPinReportsTextModeAndCentre) {
    setCodes("1234", "+420603052000");
    PtyModem line({{"AT+CPIN=\"1234\"\r", "\r\nOK\r\n"},
                   {"AT^CURC=0\r", "\r\nOK\r\n"},
                   {"AT+CMGF=1\r", "\r\nOK\r\n"},
                   {"AT+CSCA=\"+420603052000\"\r", "\r\nOK\r\n"}});
    ASSERT_TRUE(connectModem(line.device()));
    testing::internal::CaptureStdout();
    EXPECT_EQ(nastavModem(), 3);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "PIN seted => Sending: AT+CPIN=\"1234\"\r\r\nAktivace: 3\n");
    EXPECT_EQ(line.received(), "AT+CPIN=\"1234\"\r\rAT^CURC=0\rAT+CMGF=1\rAT+CSCA=\"+420603052000\"\r");
}

TEST_F(ModemLineTest, AnEmptyCentreIsSentAndTwoOfThreeCount) {
    setCodes("", "");
    PtyModem line(
        {{"AT^CURC=0\r", "\r\nOK\r\n"}, {"AT+CMGF=1\r", "\r\nOK\r\n"}, {"AT+CSCA=\"\"\r", "\r\nERROR\r\n"}});
    ASSERT_TRUE(connectModem(line.device()));
    EXPECT_EQ(nastavModem(), 2);
    EXPECT_EQ(line.received(), "AT+CPIN=\"\"\r\rAT^CURC=0\rAT+CMGF=1\rAT+CSCA=\"\"\r");
}

struct ModelCase {
    const char* reply;
    const char* printed;
    int code;
    int msg_cnt;
};

class ModemModelTest : public ModemLineTest, public testing::WithParamInterface<ModelCase> {};

TEST_P(ModemModelTest, IsTold) {
    PtyModem line(PtyModem::Script{{"AT+CGMM\r", GetParam().reply}});
    ASSERT_TRUE(connectModem(line.device()));
    testing::internal::CaptureStdout();
    EXPECT_EQ(getModemType(), GetParam().code);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), GetParam().printed);
    EXPECT_EQ(msg_cnt, GetParam().msg_cnt);
    EXPECT_EQ(line.received(), std::string("ate0\r\0AT+CGMM\r", 14));
    EXPECT_EQ(modemTyp, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Models, ModemModelTest,
    testing::Values(
        ModelCase{"\r\nEM820W\r\n\r\nOK\r\n", "Modem Typ: >>EM820W<<\nStary 3G modem(1)\n", 1, 0},
        ModelCase{"\r\nMU709s-2\r\n\r\nOK\r\n", "Modem Typ: >>MU709s-2<<\nNovy 3G modem(2)\n", 2, 0},
        ModelCase{"\r\nME909u-521\r\n\r\nOK\r\n", "Modem Typ: >>ME909u-521<<\nLTE(3)\n", 3, 0},
        ModelCase{"\r\nME909u-523\r\n\r\nOK\r\n", "Modem Typ: >>ME909u-523<<\nLTE(3) USA\n", 3, 0},
        ModelCase{"\r\nEM7565\r\n\r\nOK\r\n", "Modem Typ: >>EM7565<<\nLTE(4) SIERRA\n", 3, 0},
        ModelCase{"\r\n4105\r\n\r\nOK\r\n", "Modem Typ: >>4105<<\nLTE(3) TELID (4105)\n", 3, 0},
        ModelCase{"\r\nSIM7906E\r\n\r\nOK\r\n", "Modem Typ: >>SIM7906E<<\nLTE(3) SIMCOM SIM7906E\n", 3, 0},
        ModelCase{"\r\nME909s-120\r\n\r\nOK\r\n", "Modem Typ: >>ME909s-120<<\nLTE(4) Huawei\n", 4, 1},
        ModelCase{"\r\nME906s-158\r\n\r\nOK\r\n", "Modem Typ: >>ME906s-158<<\nLTE(4) Huawei\n", 4, 1},
        ModelCase{"AT+CGMM\r\r\nEM7565\r\n\r\nOK\r\n", "Modem Typ: >>EM7565<<\nLTE(4) SIERRA\n", 3, 0},
        ModelCase{"\r\nXY1\r\n\r\nOK\r\n", "Modem Typ: >>XY1<<\nUnknown Modem Type !!!!\n", 0, 0},
        ModelCase{"OK", "Modem Typ: >><<\nUnknown Modem Type !!!!\n", 0, 0},
        ModelCase{"", "Modem Typ: >><<\nUnknown Modem Type !!!!\n", 0, 0}));

}  // namespace
