#include <gtest/gtest.h>

#include <stdexcept>

#include "alarmd/mail/mail_thread.h"
#include "alarmd/notify/direct_road.h"
#include "alarmd/project/alarm_definitions.h"

namespace {

class FakeChannel : public Channel {
  public:
    SendResult send(const Message& message) override {
        sent.push_back(message);
        return result;
    }

    std::vector<Message> sent;
    SendResult result;
};

Message messageTo(const std::string& to) {
    return {ChannelKind::kSms, {12, kActivated, 100, 5}, 3, 7, to, "text"};
}

TEST(DirectRoad, SendsInsideSubmitAndKeepsNothing) {
    FakeChannel channel;
    DaemonEvents events;
    DirectRoad road(channel, events);
    EXPECT_TRUE(road.submit(messageTo("+420")));
    ASSERT_EQ(channel.sent.size(), 1U);
    EXPECT_EQ(channel.sent[0].to, "+420");
    EXPECT_EQ(channel.sent[0].event.alarm_id, 12);
    road.pump(1000);
    EXPECT_EQ(channel.sent.size(), 1U);
    EXPECT_EQ(road.unsent(), 0);
}

TEST(DirectRoad, GoesOnAfterAnyFailureButAStop) {
    FakeChannel channel;
    DaemonEvents events;
    DirectRoad road(channel, events);
    for (const Outcome outcome : {Outcome::kTryAgain, Outcome::kRefused, Outcome::kUnknown}) {
        channel.result = {outcome, "because"};
        EXPECT_TRUE(road.submit(messageTo("+420")));
    }
    channel.result = {Outcome::kStopped, "because"};
    EXPECT_FALSE(road.submit(messageTo("+420")));
    EXPECT_EQ(channel.sent.size(), 4U);
    EXPECT_EQ(road.unsent(), 0);
}

TEST(DirectRoad, PublishesWhatBecameOfEachMessage) {
    FakeChannel channel;
    channel.result = {Outcome::kRefused, "no such number"};
    DaemonEvents events;
    std::vector<std::string> seen;
    events.subscribe([&seen](const DaemonEvent& event) {
        const MessageSent& sent = std::get<MessageSent>(event);
        seen.push_back(sent.message.to + ": " + sent.result.detail);
    });
    DirectRoad(channel, events).submit(messageTo("+420"));
    EXPECT_EQ(seen, std::vector<std::string>{"+420: no such number"});
}

TEST(DaemonEvents, AListenerThatThrowsKeepsNobodyFromHearing) {
    DaemonEvents events;
    std::vector<int> heard;
    events.subscribe([&heard](const DaemonEvent& event) {
        heard.push_back(std::get<AlarmTaken>(event).event.alarm_id);
        throw std::runtime_error("a listener's own trouble");
    });
    events.subscribe([&heard](const DaemonEvent&) { heard.push_back(-1); });
    events.publish(AlarmTaken{{5, kActivated, 100, 0}});
    EXPECT_EQ(heard, (std::vector<int>{5, -1}));
}

// The mail thread gives its mails to whatever road it has.
class MailRoad : public testing::Test, public DeliveryRoad {
  protected:
    void SetUp() override {
        mail_road = this;
        MutexLock lock(project_mutex);
        alarm_def_map[12].id = 12;
        alarm_def_map[12].message = "Pressure";
        for (const int group : {1, 4}) {
            list_group[group].alarm_ids = {12};
            for (const int id : {10, 11}) {
                _user member;
                member.id = id;
                member.mail = std::to_string(id) + "@plant.example";
                list_group[group].users.push_back(member);
            }
        }
    }
    void TearDown() override {
        mail_road = before_;
        fronta_mail.clear();
        MutexLock lock(project_mutex);
        clearDefinitions();
        for (_group& group : list_group) group = _group();
    }

    bool submit(const Message& message) override {
        submitted.push_back(message);
        return static_cast<int>(submitted.size()) < stops_at;
    }
    void pump(int64_t now) override { pumped.push_back(now); }
    int unsent() const override { return 0; }

    static void queueAlarm() {
        _alarm_tag alarm;
        alarm.id = 12;
        alarm.stat = kActivated;
        alarm.atm[0] = time(nullptr);
        alarm.atm[1] = 77;
        fronta_mail.push(alarm);
    }

    std::vector<Message> submitted;
    std::vector<int64_t> pumped;
    int stops_at = 1000;

  private:
    DeliveryRoad* const before_ = mail_road;
};

TEST_F(MailRoad, GetsAMessageForEachUserOfEachGroup) {
    queueAlarm();
    zpracuj_maily_by_users();
    ASSERT_EQ(submitted.size(), 4U);
    EXPECT_EQ(submitted[0].channel, ChannelKind::kMail);
    EXPECT_EQ(submitted[1].group, 1);
    EXPECT_EQ(submitted[1].user, 11);
    EXPECT_EQ(submitted[2].group, 4);
    EXPECT_EQ(submitted[2].to, "10@plant.example");
    EXPECT_EQ(submitted[2].event.alarm_id, 12);
    EXPECT_EQ(submitted[2].event.state, kActivated);
    EXPECT_EQ(submitted[2].event.microseconds, 77);
    EXPECT_NE(submitted[2].body.find("<TD>Pressure</TD>"), std::string::npos);
}

TEST_F(MailRoad, IsPumpedOnceAPass) {
    zpracuj_maily_by_users();
    queueAlarm();
    queueAlarm();
    zpracuj_maily_by_users();
    EXPECT_EQ(pumped.size(), 2U);
    EXPECT_EQ(submitted.size(), 8U);
}

TEST_F(MailRoad, GetsNothingMoreInThePassInWhichItGaveUp) {
    stops_at = 2;
    queueAlarm();
    queueAlarm();
    testing::internal::CaptureStderr();
    zpracuj_maily_by_users();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Stop requested, mails not sent: 6\n");
    EXPECT_EQ(submitted.size(), 2U);
}

}  // namespace
