#include "alarmd/sms/sms_thread.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "alarmd/notify/direct_road.h"
#include "alarmd/project/alarm_definitions.h"
#include "alarmd/sms/sms_channel.h"
#include "knihovny/clock.h"
#include "tests/support/fake_driver.h"
#include "tests/support/resets.h"

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using Calls = std::vector<std::string>;

bool told_ready = false;

// Waits for nothing.
class QuickClock final : public Clock {
  public:
    void sleep(long seconds, long /*nanoseconds*/) override {
        if (seconds == 0) return;
        pauses.push_back(seconds);
        if (pauses.size() == stop_at) konec = true;
    }

    std::vector<long> pauses;
    size_t stop_at = 0;
};

class SmsThreadTest : public testing::Test {
  protected:
    void SetUp() override {
        resetDaemonState();
        sms_road = &road_;
        process_clock = &clock_;
        events_.subscribe(
            [this](const DaemonEvent& event) { messages_.push_back(std::get<MessageSent>(event).message); });
    }
    void TearDown() override {
        sms_road = default_road_;
        process_clock = default_clock_;
        modem_ready = nullptr;
        resetDaemonState();
    }

    static void setDevice(const std::string& device) {
        MutexLock lock(settings_mutex);
        modemPort = device;
    }

    // Alarm 17, told to user 7 of group 2.
    static void definePump() {
        MutexLock lock(project_mutex);
        alarm_def_map[17].id = 17;
        alarm_def_map[17].message = "Pump";
        _user member;
        member.id = 7;
        member.mobil = "1";
        list_group[2].alarm_ids.push_back(17);
        list_group[2].users.push_back(member);
    }
    static _alarm_tag pumpAlarm() {
        _alarm_tag alarm;
        alarm.id = 17;
        alarm.stat = kActivated;
        alarm.atm[0] = time(nullptr);
        alarm.atm[1] = 5;
        return alarm;
    }

    // Runs the thread's body, which is stopped in its last pause. Returns the log.
    std::string runFor(size_t pauses) {
        clock_.stop_at = pauses;
        CaptureStdout();
        runSmsThread(driver_);
        return GetCapturedStdout();
    }

    FakeDriver driver_;
    QuickClock clock_;
    std::vector<Message> messages_;

  private:
    SmsChannel channel_{driver_};
    DaemonEvents events_;
    DirectRoad road_{channel_, events_};
    DeliveryRoad* const default_road_ = sms_road;
    Clock* const default_clock_ = process_clock;
};

constexpr char kPass[] =
    "\x1b[0;0;32m-->Thread sms (queue:0) \x1b[0;0;37m\n\x1b[0;0;32m-->Thread sms (queue_raw:0) "
    "\x1b[0;0;37m\n\t-->Thread sms: Cteni SMS\n\n";

TEST_F(SmsThreadTest, OpensInitialisesAndReadsUntilItIsStopped) {
    modem_ready = [] { told_ready = true; };
    told_ready = false;
    EXPECT_EQ(runFor(5), std::string("Openning Modem port....OK\nMODEM INITIALIZATION SUCCESSFULL\n") +
                             kPass + kPass + "Koncim Vlakno sms.........\n");
    EXPECT_EQ(driver_.calls, (Calls{"open /dev/ttyModem2", "initialise", "receive", "receive", "close"}));
    EXPECT_EQ(clock_.pauses, (std::vector{2L, 1L, 2L, 2L, 2L}));
    EXPECT_TRUE(told_ready);
    EXPECT_TRUE(modemInit);
    EXPECT_TRUE(ret_connect);
    EXPECT_EQ(vlakno_sms, 0);
}

TEST_F(SmsThreadTest, TriesAgainWhatFails) {
    driver_.failing_opens = 1;
    driver_.failing_initialisations = 2;
    runFor(7);
    EXPECT_EQ(driver_.calls, (Calls{"open /dev/ttyModem2", "open /dev/ttyModem2", "initialise", "initialise",
                                    "initialise", "receive", "close"}));
    EXPECT_EQ(clock_.pauses, (std::vector{2L, 2L, 1L, 1L, 1L, 2L, 2L}));
}

TEST_F(SmsThreadTest, AStopEndsTheTries) {
    driver_.failing_opens = 100;
    EXPECT_EQ(runFor(2),
              "INFO: Can't open modem port.\nINFO: Can't open modem port.\nKoncim Vlakno sms.........\n");
    EXPECT_EQ(clock_.pauses, (std::vector{2L, 2L, 2L}));
}

TEST_F(SmsThreadTest, WithoutADeviceNothingIsOpened) {
    setDevice("");
    EXPECT_EQ(runFor(1), "Modem port empty.\n");
    EXPECT_EQ(driver_.calls, Calls{});
}

TEST_F(SmsThreadTest, EndsWhenTheModemIsLost) {
    driver_.meanwhile = [&](const std::string& call) { driver_.is_open = call != "receive"; };
    runFor(100);
    EXPECT_EQ(driver_.calls, (Calls{"open /dev/ttyModem2", "initialise", "receive", "close"}));
}

TEST_F(SmsThreadTest, StartsNoPassWhileTheQueuesAreChanged) {
    thr_lock = true;
    runFor(5);
    EXPECT_EQ(driver_.calls, (Calls{"open /dev/ttyModem2", "initialise", "close"}));
}

TEST_F(SmsThreadTest, ReadsWhenItIsTime) {
    readsmstime = time(nullptr) + 100;
    runFor(5);
    EXPECT_EQ(std::count(driver_.calls.begin(), driver_.calls.end(), "receive"), 0);
}

TEST_F(SmsThreadTest, APassSendsAlarmsThenRequestedTextsAndReads) {
    definePump();
    fronta_sms_raw.push({"9", "raw", "127.0.0.1", -1});
    fronta_sms.push(pumpAlarm());
    runFor(4);
    EXPECT_EQ(driver_.calls, (Calls{"open /dev/ttyModem2", "initialise", "send 1 (ACT) Pump /ack:17",
                                    "send 9 raw", "receive", "close"}));
    EXPECT_EQ(sms_count, 2);
}

TEST_F(SmsThreadTest, AMessageKnowsWhatItIsAbout) {
    definePump();
    const _alarm_tag alarm = pumpAlarm();
    fronta_sms_raw.push({"9", "raw", "127.0.0.1", -1});
    fronta_sms.push(alarm);
    zpracuj_sms();
    ASSERT_EQ(messages_.size(), 2U);
    EXPECT_EQ(messages_[0].channel, ChannelKind::kSms);
    EXPECT_EQ(messages_[0].event.alarm_id, 17);
    EXPECT_EQ(messages_[0].event.state, kActivated);
    EXPECT_EQ(messages_[0].event.seconds, alarm.atm[0]);
    EXPECT_EQ(messages_[0].event.microseconds, 5);
    EXPECT_EQ(messages_[0].group, 2);
    EXPECT_EQ(messages_[0].user, 7);
    EXPECT_EQ(messages_[1].channel, ChannelKind::kSms);
    EXPECT_EQ(messages_[1].event.alarm_id, 0);
    EXPECT_EQ(messages_[1].user, 0);
}

TEST_F(SmsThreadTest, AMessageThatFailsCountsAndIsNotTriedAgain) {
    definePump();
    fronta_sms.push(pumpAlarm());
    driver_.result = {Outcome::kTryAgain, "because"};
    zpracuj_sms();
    zpracuj_sms();
    EXPECT_EQ(driver_.calls.size(), 1U);
    EXPECT_EQ(sms_count, 1);
}

TEST_F(SmsThreadTest, AStopInAPassLeavesTheRestAndReadsNothing) {
    for (const char* number : {"8", "9"}) fronta_sms_raw.push({number, "raw", "127.0.0.1", -1});
    driver_.meanwhile = [](const std::string& call) { konec = call.starts_with("send"); };
    const int before = unsentSms();
    runFor(100);
    EXPECT_EQ(driver_.calls, (Calls{"open /dev/ttyModem2", "initialise", "send 8 raw", "close"}));
    EXPECT_EQ(unsentSms(), before - 1);
}

}  // namespace
