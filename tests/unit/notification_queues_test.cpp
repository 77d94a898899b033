#include "alarmd/intake/notification_queues.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "alarmd/alarmd.h"
#include "alarmd/waiting/wait_list.h"
#include "tests/support/intake_fixture.h"

namespace {

using States = std::vector<std::pair<int, int>>;

constexpr char kCheck[] = ":: Check alarm (sms,email) if configured for queue...\n";
constexpr char kWait[] = ":: Saving alarm into wait_for_ack...\n";
constexpr char kRule[] = "-------------------------------------------------\n";

class NotificationQueues : public IntakeFixture {
  protected:
    // Queues alarm id in a state, and returns what that prints.
    static std::string save(int id, int stat) {
        alarm_tag.id = id;
        alarm_tag.stat = stat;
        return printedBy([&] { uloz_alarm(stat); });
    }

    static void addWaiting(int id, int64_t notified, int resends = 0) {
        _alarm_tag tag;
        tag.id = id;
        tag.stat = kActivated;
        tag.last_notifiction = notified;
        tag.notificaion_no = resends;
        wait_for_ack.push_back(tag);
    }

    static std::vector<int> waitingIds() {
        std::vector<int> ids;
        ids.reserve(wait_for_ack.size());
        for (const _alarm_tag& tag : wait_for_ack) ids.push_back(tag.id);
        return ids;
    }

    static std::string walk(int64_t now) {
        return printedBy([now] { checkResend(now); });
    }

    static std::string table(const std::string& size, const std::string& rows) {
        return std::string("--> Check Re-Send Queue\n") + kRule + "| Queue WAIT_FOR_ACK size: " + size +
               "\n" + kRule + "| id\t| last notif\t|count\t|actual timeout\t|\n" + kRule + rows + kRule;
    }
};

// ---------------------------------------------------------------------------------------------------------------
// Queueing

TEST_F(NotificationQueues, EmailIsQueuedInEveryStateAndNothingElse) {
    resend_enable = true;
    define(12, mailDefinition());
    for (const int stat : {0, 1, 2, 8}) {
        EXPECT_EQ(save(12, stat), std::string(kCheck) + "::-> Saving MAIL into fronta_mail\n");
    }
    EXPECT_EQ(takeStates(fronta_mail), (States{{12, 0}, {12, 1}, {12, 2}, {12, 8}}));
    EXPECT_TRUE(fronta_sms.empty());
    EXPECT_TRUE(wait_for_ack.empty());
}

TEST_F(NotificationQueues, EachSmsFlagQueuesItsOwnStateOnly) {
    struct {
        bool _alarm_def::*flag;
        int stat;
        const char* line;
    } const cases[] = {
        {&_alarm_def::smsact, 1, "::-> Saving SMS ACTIVATION into fronta_sms\n"},
        {&_alarm_def::smsdeact, 0, "::-> Saving SMS DEACTIVATION into fronta_sms\n"},
        {&_alarm_def::smsack, 2, "::-> Saving SMS ACKNOWLEDGE into fronta_sms\n"},
    };
    for (const auto& expected : cases) {
        _alarm_def definition;
        definition.*expected.flag = true;
        define(3, definition);
        for (const int stat : {0, 1, 2, 3, 8, -1}) {
            const bool queued = stat == expected.stat;
            EXPECT_EQ(save(3, stat), kCheck + std::string(queued ? expected.line : "")) << stat;
            EXPECT_EQ(takeStates(fronta_sms), queued ? States({{3, stat}}) : States()) << stat;
        }
    }
    EXPECT_TRUE(fronta_mail.empty());
}

TEST_F(NotificationQueues, AllFlagsTogetherGoIntoBothQueuesAndTheList) {
    resend_enable = true;
    _alarm_def definition = mailDefinition();
    definition.smsact = definition.smsdeact = definition.smsack = true;
    define(5, definition);
    EXPECT_EQ(save(5, 1), std::string(kCheck) + "::-> Saving MAIL into fronta_mail\n" +
                              "::-> Saving SMS ACTIVATION into fronta_sms\n" + kWait);
    EXPECT_EQ(takeStates(fronta_mail), States({{5, 1}}));
    EXPECT_EQ(takeStates(fronta_sms), States({{5, 1}}));
    EXPECT_EQ(waitingIds(), std::vector<int>{5});
}

TEST_F(NotificationQueues, AnUnknownAlarmGetsOneEmptyDefinitionAndIsNotQueued) {
    for (const int id : {99, -4, 2000000000}) {
        EXPECT_EQ(save(id, 1), kCheck);
        EXPECT_EQ(save(id, 0), kCheck);
    }
    EXPECT_TRUE(fronta_mail.empty());
    EXPECT_TRUE(fronta_sms.empty());
    MutexLock lock(project_mutex);
    ASSERT_EQ(alarm_def_map.size(), 3U);
    EXPECT_EQ(alarm_def_map.begin()->first, -4);
    EXPECT_EQ(alarm_def_map.rbegin()->first, 2000000000);
    EXPECT_EQ(alarm_def_map[99].id, 0);
    EXPECT_FALSE(alarm_def_map[99].email);
}

TEST_F(NotificationQueues, ACopyInTheQueueHoldsEveryField) {
    define(12, mailDefinition());
    alarm_tag.acktm[0] = 1;
    alarm_tag.acktm[1] = 2;
    alarm_tag.acktm[2] = 3;
    alarm_tag.atm[2] = 4;
    alarm_tag.dtm[2] = 5;
    alarm_tag.ackv = 1.5;
    alarm_tag.av = 2.5;
    alarm_tag.dv = 3.5;
    alarm_tag.ak = "ak";
    alarm_tag.area = "area";
    alarm_tag.dev = "dev";
    alarm_tag.msg = "msg";
    alarm_tag.sv = 6;
    alarm_tag.user = "user";
    alarm_tag.last_notifiction = 7;
    alarm_tag.notificaion_no = 8;
    save(12, 8);
    const std::vector<_alarm_tag> queued = takeAll(fronta_mail);
    ASSERT_EQ(queued.size(), 1U);
    const _alarm_tag& tag = queued[0];
    EXPECT_EQ(tag.id, 12);
    EXPECT_EQ(tag.stat, 8);
    EXPECT_EQ(std::vector<int64_t>(tag.acktm, tag.acktm + 3), (std::vector<int64_t>{1, 2, 3}));
    EXPECT_EQ(tag.atm[2], 4);
    EXPECT_EQ(tag.dtm[2], 5);
    EXPECT_EQ((std::vector<double>{tag.ackv, tag.av, tag.dv}), (std::vector<double>{1.5, 2.5, 3.5}));
    EXPECT_EQ(tag.ak + tag.area + tag.dev + tag.msg + tag.user, "akareadevmsguser");
    EXPECT_EQ(tag.sv, 6);
    EXPECT_EQ(tag.last_notifiction, 7);
    EXPECT_EQ(tag.notificaion_no, 8);
}

TEST_F(NotificationQueues, TheSecondFormAppendsItsLinesToTheLogInsteadOfPrintingThem) {
    define(12, mailDefinition());
    alarm_tag.id = 12;
    std::string log = "before\n";
    EXPECT_EQ(printedBy([&] { uloz_alarm(1, log); }), "");
    EXPECT_EQ(log, std::string("before\n") + kCheck + "::-> Saving MAIL into fronta_mail\n");
}

TEST_F(NotificationQueues, TheLockFlagIsUpWhileAnAlarmIsQueuedAndDownAfterwards) {
    define(12, mailDefinition());
    std::atomic<bool> seen{false};
    std::atomic<bool> end{false};
    std::thread observer([&] {
        while (!end) {
            if (thr_lock) seen = true;
        }
    });
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    alarm_tag.id = 12;
    std::string log;
    while (!seen && std::chrono::steady_clock::now() < limit) {
        log.clear();
        uloz_alarm(1, log);
        fronta_mail.clear();
    }
    end = true;
    observer.join();
    EXPECT_TRUE(seen);
    EXPECT_FALSE(thr_lock);
}

// ---------------------------------------------------------------------------------------------------------------
// The wait-for-acknowledge list

TEST_F(NotificationQueues, ADeactivationTakesTheActivationFromTheList) {
    resend_enable = true;
    _alarm_def definition;
    definition.smsact = definition.smsdeact = true;
    define(4, definition);

    EXPECT_EQ(save(4, 1), std::string(kCheck) + "::-> Saving SMS ACTIVATION into fronta_sms\n" + kWait);
    EXPECT_EQ(fronta_sms.size(), 1);
    EXPECT_EQ(waitingIds(), std::vector<int>{4});

    EXPECT_EQ(save(4, 0), std::string(kCheck) + "::-> Saving SMS DEACTIVATION into fronta_sms\n" + kWait);
    EXPECT_EQ(takeStates(fronta_sms), (States{{4, 1}, {4, 0}}));
    EXPECT_TRUE(wait_for_ack.empty());
}

TEST_F(NotificationQueues, AnAcknowledgeTakesTheActivationFromTheList) {
    resend_enable = true;
    _alarm_def definition;
    definition.smsack = true;
    define(4, definition);
    EXPECT_EQ(save(4, 1), std::string(kCheck) + kWait);
    EXPECT_EQ(waitingIds(), std::vector<int>{4});
    EXPECT_EQ(save(4, 2), std::string(kCheck) + "::-> Saving SMS ACKNOWLEDGE into fronta_sms\n" + kWait);
    EXPECT_TRUE(wait_for_ack.empty());
}

TEST_F(NotificationQueues, SmsOnActivationAloneKeepsNoList) {
    resend_enable = true;
    _alarm_def definition;
    definition.smsact = true;
    define(4, definition);
    EXPECT_EQ(save(4, 1), std::string(kCheck) + "::-> Saving SMS ACTIVATION into fronta_sms\n");
    EXPECT_TRUE(wait_for_ack.empty());
}

TEST_F(NotificationQueues, AnActivationAlreadyWaitingIsNotAddedTwice) {
    resend_enable = true;
    addWaiting(4, 100);
    alarm_tag.id = 4;
    EXPECT_EQ(printedBy([] { uloz_alarm_wait_ack(4, 1); }), kWait);
    ASSERT_EQ(wait_for_ack.size(), 1U);
    EXPECT_EQ(wait_for_ack[0].last_notifiction, 100);
}

TEST_F(NotificationQueues, TheLastEntryOfAnAlarmIsTheOneRemoved) {
    resend_enable = true;
    addWaiting(4, 100);
    addWaiting(5, 101);
    addWaiting(4, 102);
    addWaiting(6, 103);
    printedBy([] { uloz_alarm_wait_ack(4, 0); });
    EXPECT_EQ(waitingIds(), (std::vector<int>{4, 5, 6}));
    printedBy([] { uloz_alarm_wait_ack(4, 2); });
    EXPECT_EQ(waitingIds(), (std::vector<int>{5, 6}));
    printedBy([] { uloz_alarm_wait_ack(4, 2); });
    EXPECT_EQ(waitingIds(), (std::vector<int>{5, 6}));
}

TEST_F(NotificationQueues, OtherStatesLeaveTheListAlone) {
    resend_enable = true;
    addWaiting(4, 100);
    for (const int stat : {8, 3, -1}) {
        EXPECT_EQ(printedBy([stat] { uloz_alarm_wait_ack(4, stat); }), kWait);
        EXPECT_EQ(printedBy([stat] { uloz_alarm_wait_ack(9, stat); }), kWait);
    }
    EXPECT_EQ(waitingIds(), std::vector<int>{4});
}

TEST_F(NotificationQueues, TheWorkingRecordIsDatedAfterItsCopiesWereQueued) {
    resend_enable = true;
    _alarm_def definition = mailDefinition();
    definition.smsact = definition.smsack = true;
    define(4, definition);
    alarm_tag.last_notifiction = 11;
    alarm_tag.notificaion_no = 3;
    const int64_t before = time(nullptr);
    save(4, 1);
    for (const auto& queued : {takeAll(fronta_mail), takeAll(fronta_sms)}) {
        ASSERT_EQ(queued.size(), 1U);
        EXPECT_EQ(queued[0].last_notifiction, 11);
        EXPECT_EQ(queued[0].notificaion_no, 3);
    }
    EXPECT_GE(alarm_tag.last_notifiction, before);
    EXPECT_EQ(alarm_tag.notificaion_no, 0);
    ASSERT_EQ(wait_for_ack.size(), 1U);
    EXPECT_EQ(wait_for_ack[0].last_notifiction, alarm_tag.last_notifiction);
    EXPECT_EQ(wait_for_ack[0].notificaion_no, 0);
}

TEST_F(NotificationQueues, WithoutResendNothingWaitsAndNothingIsDated) {
    _alarm_def definition;
    definition.smsact = definition.smsdeact = definition.smsack = true;
    define(4, definition);
    alarm_tag.last_notifiction = 11;
    alarm_tag.notificaion_no = 3;
    EXPECT_EQ(save(4, 1), std::string(kCheck) + "::-> Saving SMS ACTIVATION into fronta_sms\n");
    EXPECT_EQ(printedBy([] { uloz_alarm_wait_ack(4, 1); }), "");
    EXPECT_TRUE(wait_for_ack.empty());
    EXPECT_EQ(alarm_tag.last_notifiction, 11);
    EXPECT_EQ(alarm_tag.notificaion_no, 3);
    EXPECT_EQ(walk(kStart), "--> Check Re-Send Queue\n");
}

// ---------------------------------------------------------------------------------------------------------------
// Without a modem

// An alarm in this state whose moment was so long ago; its other moments are now.
_alarm_tag happened(int id, int stat, int64_t seconds_ago) {
    const int64_t now = time(nullptr);
    _alarm_tag alarm;
    alarm.id = id;
    alarm.stat = stat;
    alarm.atm[0] = alarm.dtm[0] = alarm.acktm[0] = now;
    (stat == kActivated ? alarm.atm : stat == kDeactivated ? alarm.dtm : alarm.acktm)[0] -= seconds_ago;
    return alarm;
}

std::string toldAsStale(const TimeTriple& moment) {
    const time_t seconds = moment[0];
    const std::string text = ctime(&seconds);
    return "ALARM TIMEOUT !!! (" + std::to_string(seconds) + " " + text.substr(0, text.size() - 1) + ")\n";
}

TEST_F(NotificationQueues, WithoutAnSmsThreadAtWorkAlarmsOfADayAreDroppedAndTold) {
    const _alarm_tag old[] = {happened(1, kActivated, 86400), happened(2, kDeactivated, 100000),
                              happened(3, kAcknowledged, 86401), happened(4, kAckTimedState, 1000000)};
    const _alarm_tag young[] = {happened(5, kActivated, 86000), happened(6, kDeactivated, 0),
                                happened(7, kAcknowledged, 50)};
    fronta_sms.push(young[0]);
    for (const _alarm_tag& alarm : old) fronta_sms.push(alarm);
    for (const _alarm_tag& alarm : {young[1], young[2]}) fronta_sms.push(alarm);
    fronta_mail.push(old[0]);
    EXPECT_EQ(printedBy(dropStaleSms), toldAsStale(old[0].atm) + toldAsStale(old[1].dtm) +
                                           toldAsStale(old[2].acktm) + toldAsStale(old[3].acktm));
    EXPECT_EQ(printedBy(dropStaleSms), "");
    EXPECT_EQ(takeStates(fronta_sms), (States{{5, 1}, {6, 0}, {7, 2}}));
    EXPECT_EQ(fronta_mail.size(), 1);
}

TEST_F(NotificationQueues, WhileTheSmsThreadWorksItsDrainTellsAndDropsThem) {
    fronta_sms.push(happened(1, kActivated, 100000));
    vlakno_sms = 1;
    EXPECT_EQ(printedBy(dropStaleSms), "");
    vlakno_sms = 0;
    EXPECT_EQ(fronta_sms.size(), 1);
}

// ---------------------------------------------------------------------------------------------------------------
// The walk

TEST_F(NotificationQueues, AWalkOverAnEmptyListPrintsItsFirstLineOnly) {
    EXPECT_EQ(walk(kStart), "--> Check Re-Send Queue\n");
    EXPECT_EQ(last_resend, kStart);
    EXPECT_FALSE(thr_lock);
}

TEST_F(NotificationQueues, AnEntryStaysUntilItsPauseHasPassedAndIsThenDroppedWithoutAResend) {
    addWaiting(12, kStart - 300);
    const std::string row = "| 12\t|1699999700\t|0\t|300\t\t|\n";
    EXPECT_EQ(walk(kStart), table("1", row));
    EXPECT_EQ(wait_for_ack.size(), 1U);
    EXPECT_EQ(walk(kStart + 1), table("1", row));
    EXPECT_TRUE(wait_for_ack.empty());
    EXPECT_TRUE(fronta_sms.empty());
    EXPECT_EQ(last_resend, kStart + 1);
    EXPECT_EQ(resend_actual_timeout, 300);
    EXPECT_FALSE(thr_lock);
}

TEST_F(NotificationQueues, TheEntryThatMovesIntoADroppedOnesPlaceWaitsForTheNextWalk) {
    addWaiting(1, kStart - 1000);
    addWaiting(2, kStart - 900);
    EXPECT_EQ(walk(kStart), table("2", "| 1\t|1699999000\t|0\t|300\t\t|\n"));
    EXPECT_EQ(waitingIds(), std::vector<int>{2});
    EXPECT_EQ(walk(kStart + 6), table("1", "| 2\t|1699999100\t|0\t|300\t\t|\n"));
    EXPECT_TRUE(wait_for_ack.empty());
}

TEST_F(NotificationQueues, EveryOtherOneOfFiveOverdueEntriesIsDroppedInOneWalk) {
    for (int id = 1; id <= 5; ++id) addWaiting(id, kStart - 1000);
    walk(kStart);
    EXPECT_EQ(waitingIds(), (std::vector<int>{2, 4}));
    walk(kStart + 6);
    EXPECT_EQ(waitingIds(), std::vector<int>{4});
}

TEST_F(NotificationQueues, WithACeilingAnEntryIsResentBySmsUntilTheCeilingAndThenDropped) {
    resend_max_quantity = 2;
    addWaiting(12, kStart - 301);
    walk(kStart);
    ASSERT_EQ(wait_for_ack.size(), 1U);
    EXPECT_EQ(wait_for_ack[0].notificaion_no, 1);
    EXPECT_EQ(wait_for_ack[0].last_notifiction, kStart);
    const std::vector<_alarm_tag> resent = takeAll(fronta_sms);
    ASSERT_EQ(resent.size(), 1U);
    EXPECT_EQ(resent[0].id, 12);
    EXPECT_EQ(resent[0].notificaion_no, 1);
    EXPECT_EQ(resent[0].last_notifiction, kStart);

    walk(kStart + 300);
    EXPECT_TRUE(fronta_sms.empty());
    EXPECT_EQ(walk(kStart + 301), table("1", "| 12\t|1700000000\t|1\t|300\t\t|\n"));
    EXPECT_EQ(fronta_sms.size(), 1);
    EXPECT_TRUE(wait_for_ack.empty());
}

TEST_F(NotificationQueues, TheSecondPauseCountsOnceTheFirstOnesQuantityIsReached) {
    resend_period1_timeout = 10;
    resend_period1_quantity = 2;
    resend_period2_timeout = 20;
    resend_max_quantity = 9;
    addWaiting(1, kStart - 15, 1);
    addWaiting(2, kStart - 15, 2);
    EXPECT_EQ(walk(kStart), table("2", "| 1\t|1699999985\t|1\t|10\t\t|\n| 2\t|1699999985\t|2\t|20\t\t|\n"));
    EXPECT_EQ(takeStates(fronta_sms), States({{1, 1}}));
    EXPECT_EQ(resend_actual_timeout, 20);
    EXPECT_EQ(waitingIds(), (std::vector<int>{1, 2}));
}

TEST_F(NotificationQueues, AClockSetBackKeepsTheEntryWaiting) {
    addWaiting(1, kStart);
    walk(kStart - 100000);
    EXPECT_EQ(waitingIds(), std::vector<int>{1});
    EXPECT_EQ(last_resend, kStart - 100000);
}

}  // namespace
