#include "alarmd/sms/timed_text/submission.h"

#include <gtest/gtest.h>

#include "alarmd/sms/driver.h"
#include "knihovny/descriptor.h"
#include "knihovny/generalfce.h"
#include "tests/support/pty_modem.h"

namespace {

class SubmissionTest : public testing::Test {
  protected:
    SubmissionTest() { resetDaemonState(); }
    ~SubmissionTest() override {
        disconnectModem();
        resetDaemonState();
    }
};

const std::string kEnd = std::string("\x1a") + std::string(10, '\0');

// What becomes of a message to a modem that answers so.
SendResult submitTo(PtyModem& line) {
    EXPECT_TRUE(connectModem(line.device()));
    return submitMessage("1", "x");
}

TEST_F(SubmissionTest, WithAnOkItIsSent) {
    PtyModem line(PtyModem::Script{{"\"\r", "\r\n> "}, {kEnd, "\r\nOK\r\n"}});
    const SendResult result = submitTo(line);
    EXPECT_EQ(result.outcome, Outcome::kSent);
    EXPECT_EQ(result.detail, "");
    EXPECT_EQ(sms_counter, 1);
}

TEST_F(SubmissionTest, WithoutOneNobodyKnows) {
    PtyModem line(PtyModem::Script{{"\"\r", "\r\n> "}, {kEnd, "\r\n+CMS ERROR: 38\r\n"}});
    EXPECT_EQ(submitTo(line).outcome, Outcome::kUnknown);
    EXPECT_EQ(sms_counter, 1);
}

TEST_F(SubmissionTest, AnOkBehindTheLastLookIsOneWithWords) {
    PtyModem line;
    std::thread network([&] {
        PtyModem::eventually([&] { return line.received().ends_with(kEnd); });
        MySleep(4, 500000000);
        line.say("\r\nOK\r\n");
    });
    const SendResult result = submitTo(line);
    network.join();
    EXPECT_EQ(result.outcome, Outcome::kSent);
    EXPECT_NE(result.detail, "");
}

TEST_F(SubmissionTest, ARefusedNumberMayBeTriedAgain) {
    PtyModem line(PtyModem::Script{{"\"\r", "\r\n+CMS ERROR: 500\r\n"}});
    const SendResult result = submitTo(line);
    EXPECT_EQ(result.outcome, Outcome::kTryAgain);
    EXPECT_EQ(result.detail, "the modem answered the number with an error");
    EXPECT_EQ(sms_counter, 0);
}

TEST_F(SubmissionTest, ALineThatTakesNothingMayDoSoLater) {
    PtyModem line;
    const Descriptor port(open(line.device().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    tcflow(port.get(), TCOOFF);
    const SendResult result = submitTo(line);
    EXPECT_EQ(result.outcome, Outcome::kTryAgain);
    EXPECT_EQ(result.detail, "the line did not take the number");
    EXPECT_EQ(line.received(), "");
    EXPECT_EQ(sms_counter, 0);
    tcflow(port.get(), TCOON);
}

}  // namespace
