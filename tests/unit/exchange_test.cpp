#include "alarmd/sms/timed_text/exchange.h"

#include <gtest/gtest.h>

#include "knihovny/generalfce.h"
#include "tests/support/pty_modem.h"

namespace {

class ExchangeTest : public testing::Test {
  protected:
    ExchangeTest() {
        resetDaemonState();
        EXPECT_TRUE(connectModem(line_.device()));
        clearReply();
    }
    ~ExchangeTest() override {
        disconnectModem();
        resetDaemonState();
    }

    PtyModem line_{PtyModem::Script{{"AT\r", "\r\nOK\r\n"}, {"AT!\r", "\r\nERROR\r\n"}}};
};

TEST_F(ExchangeTest, AnOrderGoesOutWithoutItsZero) {
    EXPECT_EQ(sendOrder("AT\r"), 3U);
    EXPECT_TRUE(waitForReply(5));
    EXPECT_EQ(line_.received(), "AT\r");
    EXPECT_EQ(linitstr, 0);
}

TEST_F(ExchangeTest, OrWithIt) {
    sendOrderAndZero("ate0\r");
    EXPECT_TRUE(line_.eventually([&] { return line_.received() == std::string("ate0\r\0", 6); }));
    EXPECT_EQ(linitstr, 6);
    linitstr = 0;
}

TEST_F(ExchangeTest, AReplyIsWaitedForAndTakenWhole) {
    sendOrder("AT\r");
    EXPECT_TRUE(waitForReply(5));
    EXPECT_EQ(replyText(), "\r\nOK");
    EXPECT_EQ(cekam, 0);
    EXPECT_EQ(receive, 0);
}

TEST_F(ExchangeTest, AnErrorIsNoEnd) {
    sendOrder("AT!\r");
    const time_t begin = MonotonicTime().tv_sec;
    EXPECT_FALSE(waitForReply(1));
    EXPECT_GE(MonotonicTime().tv_sec - begin, 1);
    EXPECT_FALSE(okHasCome());
}

TEST_F(ExchangeTest, WhatCameBeforeIsNoAnswer) {
    receive = rec_status = 1;
    awaitReply();
    EXPECT_FALSE(okHasCome());
    EXPECT_FALSE(waitForReply(0));
}

TEST_F(ExchangeTest, ALookThatSeesTheOkEndsTheWait) {
    sendOrder("AT\r");
    EXPECT_TRUE(waitForOk(4));
    EXPECT_FALSE(waitForOk(0));
    EXPECT_TRUE(okHasCome());
}

TEST_F(ExchangeTest, AnOkBehindTheLastLookIsTooLate) {
    awaitReply();
    std::thread modem_thread([&] {
        MySleep(0, 300000000);
        line_.say("\r\nOK\r\n");
    });
    EXPECT_FALSE(waitForOk(1));
    modem_thread.join();
    EXPECT_TRUE(okHasCome());
}

}  // namespace
