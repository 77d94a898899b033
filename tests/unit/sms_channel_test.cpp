#include "alarmd/sms/sms_channel.h"

#include <gtest/gtest.h>

#include "tests/support/fake_driver.h"

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

constexpr char kSending[] = "Sending ....Number: +420; Text: Pump\n";
constexpr char kSendOk[] = "--------------:::::::: SMS SEND OK !!!! ::::::::------------\n";
constexpr char kSendFail[] = "--------------:::::::: SMS SEND FAIL !!!! ::::::::------------\n";

// What is printed for a message that the driver gives this result for.
std::string logOf(const SendResult& result) {
    FakeDriver driver;
    driver.result = result;
    SmsChannel channel(driver);
    CaptureStdout();
    const SendResult given = channel.send({ChannelKind::kSms, {12, 1, 100, 5}, 3, 7, "+420", "Pump"});
    EXPECT_EQ(given.outcome, result.outcome);
    EXPECT_EQ(given.detail, result.detail);
    EXPECT_EQ(driver.calls, std::vector<std::string>{"send +420 Pump"});
    return GetCapturedStdout();
}

TEST(SmsChannel, PrintsMessageAndOutcome) {
    EXPECT_EQ(logOf({Outcome::kSent, ""}), std::string(kSending) + kSendOk);
    for (const Outcome outcome :
         {Outcome::kTryAgain, Outcome::kRefused, Outcome::kUnknown, Outcome::kStopped}) {
        EXPECT_EQ(logOf({outcome, "because"}), std::string(kSending) + kSendFail);
    }
}

TEST(SmsChannel, NoLineTellsOfAnOkThatNobodyWaitedFor) {
    EXPECT_EQ(logOf({Outcome::kSent, "late"}), kSending);
}

}  // namespace
