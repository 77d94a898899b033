#include "alarmd/mail/mail_thread.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <functional>
#include <thread>

#include "alarmd/mail/compose.h"
#include "alarmd/mail/mail_channel.h"
#include "alarmd/project/alarm_definitions.h"
#include "tests/support/mail_fixture.h"

namespace {

constexpr char kTableHead[] =
    "<table border=1>\n<TR><TD>MESSAGE</TD><TD>STATUS</TD><TD>SEV</TD><TD>AREA</TD><TD>DEVICE</TD><TD>ACT "
    "TIME</TD>"
    "<TD>DEACT TIME</TD><TD>ACK TIME</TD><TD>ACT VAL</TD><TD>DEACT VAL</TD><TD>ACK "
    "VAL</TD><TD>USER</TD></TR>\n";
constexpr char kTail[] = "</table>\n</body>\n</html>\n";

_alarm_tag alarmAt(int id, int stat, int64_t moment) {
    _alarm_tag alarm;
    alarm.id = id;
    alarm.stat = stat;
    alarm.sv = 3;
    (stat == 0 ? alarm.dtm : stat == 1 ? alarm.atm : alarm.acktm)[0] = moment;
    return alarm;
}

_alarm_tag alarmNow(int id, int stat) {
    return alarmAt(id, stat, time(nullptr));
}

class MailThread : public testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC0", 1);
        tzset();
        define(12, "Tlak", "Kotelna", "PT-201");
    }
    void TearDown() override {
        unsetenv("TZ");
        tzset();
    }

    static void define(int id, const std::string& message, const std::string& area,
                       const std::string& device) {
        MutexLock lock(project_mutex);
        _alarm_def& definition = alarm_def_map[id];
        definition.id = id;
        definition.message = message;
        definition.area = area;
        definition.device = device;
        definition.messageLangs = {{"en", "Pressure"}, {"default", "By default"}};
    }

    static void addUser(int group, const std::string& mail, const std::string& lang,
                        std::list<int> alarms = {12}) {
        _user member;
        member.mail = mail;
        member.lang = lang;
        MutexLock lock(project_mutex);
        list_group[group].users.push_back(member);
        list_group[group].alarm_ids = std::move(alarms);
    }

    // One pass. Returns what it printed.
    std::string pass() {
        CapturedOutput out(STDOUT_FILENO);
        CapturedOutput error(STDERR_FILENO);
        zpracuj_maily_by_users();
        errors = error.text();
        return out.text();
    }

    // The HTML text of mail n.
    std::string body(int n) const {
        const std::string mail = world.mail(n);
        const size_t start = mail.find("\n\n") + 2;
        return mail.substr(start, mail.rfind("\n--_") - start);
    }

    std::string row(int n) const {
        const std::string text = body(n);
        const size_t start = css_string.size() + strlen(kTableHead);
        EXPECT_EQ(text.substr(0, start), css_string + kTableHead);
        EXPECT_EQ(text.substr(text.size() - strlen(kTail)), kTail);
        return text.substr(start, text.size() - start - strlen(kTail));
    }

    std::string receiver(int n) const {
        const std::string mail = world.mail(n);
        const size_t start = mail.find("To: ") + 4;
        return mail.substr(start, mail.find('\n', start) - start);
    }

    MailWorld world;
    std::string errors;
};

size_t countOf(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        ++count;
    return count;
}

TEST_F(MailThread, EmptyQueuePrintsAndSendsNothing) {
    addUser(0, "a@x", "en");
    EXPECT_EQ(pass(), "");
    EXPECT_EQ(world.mails(), 0);
}

TEST_F(MailThread, AlarmBecomesAMailInTheUsersLanguage) {
    addUser(3, "novak@x", "en");
    ALARM_TIMEOUT = INT32_MAX;
    _alarm_tag alarm = alarmAt(12, 2, 1794744400);
    alarm.atm[0] = 1794744351;
    alarm.dtm[0] = 1794744352;
    alarm.av = 7.254;
    alarm.dv = -0.5;
    alarm.ackv = 1e6;
    alarm.user = "operator";
    fronta_mail.push(alarm);
    const std::string printed = pass();
    const std::string road =
        "(MAIL FOR USER) GROUP: 3 - FOUND alarm ID: 12\n"
        "-> Language: en\n"
        "-> Mail: novak@x\n"
        "-> Device lang: PT-201\n"
        "-> Area lang: Kotelna\n"
        "-> Message lang: Pressure\n"
        "-> Odesilam mail - group: 3 email: novak@x\n"
        "Alarm email\n"
        "From: plant@korvato.example\n"
        "echo \"From: plant@korvato.example\n"
        "To: novak@x\n";
    EXPECT_EQ(printed.substr(0, road.size()), road);
    const std::string end = " -a korvato -t\n-> Odeslan\n";
    EXPECT_EQ(printed.substr(printed.size() - end.size()), end);
    EXPECT_EQ(errors, "");

    ASSERT_EQ(world.mails(), 1);
    EXPECT_EQ(receiver(0), "novak@x");
    EXPECT_NE(world.mail(0).find("\nSubject: Online Alarming\n"), std::string::npos);
    EXPECT_EQ(body(0),
              css_string + kTableHead +
                  "<TR><TD>Pressure</TD><TD>Acknowledge</TD><TD>3</TD><TD>Kotelna</TD><TD>PT-201</TD>"
                  "<TD>Sun Nov 15 12:05:51 2026</TD><TD>Sun Nov 15 12:05:52 2026</TD>"
                  "<TD>Sun Nov 15 12:06:40 2026</TD><TD>7.25</TD><TD>-0.50</TD><TD>1000000.00</TD>"
                  "<TD>operator</TD></TR>\n" +
                  kTail);
    EXPECT_EQ(subject, "\"Alarming-immediately\"");
    EXPECT_EQ(test, "0");
}

TEST_F(MailThread, LinesCarryTheConsoleColours) {
    color_mail = "<m>";
    color_sms = "<s>";
    color_off = "<o>";
    addUser(0, "a@x", "cs");
    fronta_mail.push(alarmNow(12, 1));
    fronta_mail.push(alarmAt(12, 1, 1));
    const std::string printed = pass();
    const std::string first = "<m>(MAIL FOR USER) GROUP: 0 - FOUND alarm ID: 12<o>\n-> Language: cs\n";
    EXPECT_EQ(printed.substr(0, first.size()), first);
    EXPECT_EQ(countOf(printed, "<m>-> Odesilam mail - group: 0 email: a@x<o>\n"), 1U);
    EXPECT_EQ(countOf(printed, "\n<s>ALARM TIMEOUT !!! (1 Thu Jan  1 00:00:01 1970)<o>\n"), 1U);
}

TEST_F(MailThread, StatusFollowsTheState) {
    addUser(0, "a@x", "cs");
    const char* const words[] = {"Deactivate", "Activate", "Acknowledge"};
    for (int stat = 0; stat < 3; ++stat) fronta_mail.push(alarmNow(12, stat));
    pass();
    ASSERT_EQ(world.mails(), 3);
    for (int stat = 0; stat < 3; ++stat) {
        EXPECT_EQ(row(stat).find("<TR><TD>Tlak</TD><TD>" + std::string(words[stat]) + "</TD><TD>3</TD>"), 0U);
    }
}

TEST_F(MailThread, StateEightIsTimedByTheAcknowledgeTimeAndTakesNothingFromTheAlarmBefore) {
    addUser(0, "a@x", "cs");
    fronta_mail.push(alarmNow(12, 1));
    fronta_mail.push(alarmNow(12, 8));
    _alarm_tag stale = alarmAt(12, 8, 1794744351 - 4000000000);
    stale.atm[0] = stale.dtm[0] = time(nullptr);
    fronta_mail.push(stale);
    const std::string printed = pass();
    ASSERT_EQ(world.mails(), 2);
    EXPECT_EQ(row(0).find("<TR><TD>Tlak</TD><TD>Activate</TD>"), 0U);
    EXPECT_EQ(row(1).find("<TR><TD>Tlak</TD><TD></TD><TD>3</TD>"), 0U);
    EXPECT_EQ(countOf(printed, "\nALARM TIMEOUT !!! (-2205255649 "), 1U);
}

TEST_F(MailThread, AlarmAsOldAsTheTimeoutIsToldAndNotMailed) {
    addUser(0, "a@x", "cs");
    ALARM_TIMEOUT = 600;
    const time_t moment = time(nullptr) - 600;
    fronta_mail.push(alarmAt(12, 1, moment));
    char text[32];
    ctime_r(&moment, text);
    EXPECT_EQ(pass(), "ALARM TIMEOUT !!! (" + std::to_string(moment) + " " + std::string(text, 24) + ")\n");
    EXPECT_EQ(world.mails(), 0);
    EXPECT_TRUE(fronta_mail.empty());
}

TEST_F(MailThread, AlarmYoungerThanTheTimeoutIsMailed) {
    addUser(0, "a@x", "cs");
    ALARM_TIMEOUT = 600;
    fronta_mail.push(alarmAt(12, 1, time(nullptr) - 300));
    EXPECT_EQ(countOf(pass(), "ALARM TIMEOUT"), 0U);
    EXPECT_EQ(world.mails(), 1);
}

TEST_F(MailThread, EventTimesFarOutsideTheCalendarDoNoHarm) {
    addUser(0, "a@x", "cs");
    fronta_mail.push(alarmAt(12, 1, INT64_MIN));
    fronta_mail.push(alarmAt(12, 0, -70000000000000));
    fronta_mail.push(alarmAt(12, 1, INT64_MAX));
    const std::string printed = pass();
    const std::string lines =
        "ALARM TIMEOUT !!! (-9223372036854775808 )\n"
        "ALARM TIMEOUT !!! (-70000000000000 )\n";
    EXPECT_EQ(printed.substr(0, lines.size()), lines);
    ASSERT_EQ(world.mails(), 1);
    EXPECT_EQ(
        row(0),
        "<TR><TD>Tlak</TD><TD>Activate</TD><TD>3</TD><TD>Kotelna</TD><TD>PT-201</TD><TD>-</TD><TD>-</TD>"
        "<TD>-</TD><TD>0.00</TD><TD>0.00</TD><TD>0.00</TD><TD>-</TD></TR>\n");
}

TEST_F(MailThread, UserOfTwoGroupsThatListTheAlarmGetsTwoMails) {
    addUser(1, "a@x", "cs");
    addUser(2, "a@x", "cs");
    fronta_mail.push(alarmNow(12, 1));
    const std::string printed = pass();
    EXPECT_EQ(countOf(printed, "-> Odesilam mail - group: 1 email: a@x\n"), 1U);
    EXPECT_EQ(countOf(printed, "-> Odesilam mail - group: 2 email: a@x\n"), 1U);
    EXPECT_EQ(world.mails(), 2);
}

TEST_F(MailThread, MailsGoOutInTheOrderOfAlarmsGroupsAndUsers) {
    define(13, "Teplota", "Kotelna", "TT-1");
    addUser(4, "c@x", "cs", {13, 12});
    addUser(0, "b@x", "cs");
    addUser(0, "a@x", "cs");
    fronta_mail.push(alarmNow(13, 1));
    fronta_mail.push(alarmNow(12, 0));
    pass();
    ASSERT_EQ(world.mails(), 4);
    EXPECT_EQ(receiver(0), "c@x");
    EXPECT_EQ(row(0).find("<TR><TD>Teplota</TD><TD>Activate</TD>"), 0U);
    EXPECT_EQ(receiver(1), "b@x");
    EXPECT_EQ(receiver(2), "a@x");
    EXPECT_EQ(receiver(3), "c@x");
    EXPECT_EQ(row(3).find("<TR><TD>Tlak</TD><TD>Deactivate</TD>"), 0U);
}

TEST_F(MailThread, GroupsTenAndElevenGetNoMails) {
    addUser(9, "nine@x", "cs");
    addUser(10, "ten@x", "cs");
    addUser(11, "eleven@x", "cs");
    fronta_mail.push(alarmNow(12, 1));
    pass();
    ASSERT_EQ(world.mails(), 1);
    EXPECT_EQ(receiver(0), "nine@x");
}

TEST_F(MailThread, GroupWithoutTheAlarmOrWithoutUsersGetsNoMail) {
    addUser(0, "a@x", "cs", {11, 13});
    {
        MutexLock lock(project_mutex);
        list_group[1].alarm_ids = {12};
        list_group[1].mail = {"list@x"};
        list_group[1].mail_list = "list@x";
    }
    fronta_mail.push(alarmNow(12, 1));
    EXPECT_EQ(pass(), "");
    EXPECT_EQ(world.mails(), 0);
    EXPECT_TRUE(fronta_mail.empty());
}

TEST_F(MailThread, UserWithoutALanguageIsServedWithDefault) {
    addUser(0, "a@x", "");
    fronta_mail.push(alarmNow(12, 1));
    EXPECT_EQ(countOf(pass(), "\n-> Language: default\n"), 1U);
    EXPECT_EQ(row(0).find("<TR><TD>By default</TD>"), 0U);
}

TEST_F(MailThread, EmptyTextsBecomeDashesButAnEmptyDeviceStaysEmpty) {
    addUser(0, "a@x", "cs", {77});
    fronta_mail.push(alarmNow(77, 1));
    EXPECT_EQ(countOf(pass(), "\n-> Device lang: \n-> Area lang: \n-> Message lang: \n"), 1U);
    const std::string text = row(0);
    EXPECT_EQ(text.find("<TR><TD>-</TD><TD>Activate</TD><TD>3</TD><TD>-</TD><TD></TD>"), 0U) << text;
    EXPECT_EQ(text.substr(text.size() - 16), "<TD>-</TD></TR>\n") << text;
}

TEST_F(MailThread, DeviceOfOneBlankBecomesADash) {
    define(12, " ", " ", " ");
    define(13, "M", "A", "  ");
    addUser(0, "a@x", "cs", {12, 13});
    fronta_mail.push(alarmNow(12, 1));
    fronta_mail.push(alarmNow(13, 1));
    EXPECT_EQ(countOf(pass(), "\n-> Device lang:  \n"), 1U);
    EXPECT_EQ(row(0).find("<TR><TD> </TD><TD>Activate</TD><TD>3</TD><TD> </TD><TD>-</TD>"), 0U);
    EXPECT_EQ(row(1).find("<TR><TD>M</TD><TD>Activate</TD><TD>3</TD><TD>A</TD><TD>  </TD>"), 0U);
}

TEST_F(MailThread, RowIsCutBehind998Characters) {
    const std::string message(2000, 'm');
    define(12, message, "A", "D");
    addUser(0, "a@x", "cs");
    fronta_mail.push(alarmNow(12, 1));
    EXPECT_EQ(countOf(pass(), "\n-> Message lang: " + message + "\n"), 1U);
    EXPECT_EQ(row(0), "<TR><TD>" + std::string(990, 'm'));
}

TEST_F(MailThread, LongestRowThatFitsIsWhole) {
    const std::string rest =
        "</TD><TD>Activate</TD><TD>3</TD><TD>A</TD><TD>D</TD><TD>Sun Nov 15 12:05:51 "
        "2026</TD><TD>-</TD><TD>-</TD>"
        "<TD>0.00</TD><TD>0.00</TD><TD>0.00</TD><TD>-</TD></TR>\n";
    const std::string message(998 - strlen("<TR><TD>") - rest.size(), 'm');
    define(12, message, "A", "D");
    addUser(0, "a@x", "cs");
    ALARM_TIMEOUT = INT32_MAX;
    fronta_mail.push(alarmAt(12, 1, 1794744351));
    pass();
    EXPECT_EQ(row(0), "<TR><TD>" + message + rest);
    EXPECT_EQ(row(0).size(), 998U);
}

TEST_F(MailThread, TextsAreNoFormats) {
    define(12, "%s%n%d", "100%", "%%");
    addUser(0, "%s@x", "cs");
    fronta_mail.push(alarmNow(12, 1));
    pass();
    EXPECT_EQ(row(0).find("<TR><TD>%s%n%d</TD><TD>Activate</TD><TD>3</TD><TD>100%</TD><TD>%%</TD>"), 0U);
    EXPECT_EQ(receiver(0), "%s@x");
}

TEST_F(MailThread, TestingDrainsTheQueueWithLogLinesButWithoutMails) {
    testing_email = 1;
    disable_notification = true;
    addUser(0, "a@x", "en");
    fronta_mail.push(alarmNow(12, 1));
    EXPECT_EQ(pass(),
              "(MAIL FOR USER) GROUP: 0 - FOUND alarm ID: 12\n-> Language: en\n-> Mail: a@x\n-> Device lang: "
              "PT-201\n"
              "-> Area lang: Kotelna\n-> Message lang: Pressure\n");
    EXPECT_EQ(world.mails(), 0);
    EXPECT_TRUE(fronta_mail.empty());
}

TEST_F(MailThread, DisabledNotificationIsToldOnceForEachUserAndAlarm) {
    disable_notification = true;
    addUser(0, "a@x", "en");
    addUser(0, "b@x", "en");
    fronta_mail.push(alarmNow(12, 1));
    fronta_mail.push(alarmNow(12, 0));
    const std::string printed = pass();
    EXPECT_EQ(countOf(printed, "\n-> Message lang: Pressure\nNotification DISABLED !!!!\n"), 4U);
    EXPECT_EQ(countOf(printed, "Odes"), 0U);
    EXPECT_EQ(world.mails(), 0);
    EXPECT_TRUE(fronta_mail.empty());
}

TEST_F(MailThread, FailingClientDoesNotEndThePass) {
    world.client(std::string(MailWorld::kRecord) + "\nexit 75");
    addUser(0, "a@x", "en");
    addUser(0, "b@x", "en");
    fronta_mail.push(alarmNow(12, 1));
    EXPECT_EQ(countOf(pass(), "\n-> Odeslan\n"), 2U);
    const std::string line = "Mail client " + world.clientPath() + " ended with status 75\n";
    EXPECT_EQ(errors, line + line);
    EXPECT_EQ(world.mails(), 2);
}

TEST_F(MailThread, PassIsFinishedAfterAStopRequestWhenTheClientWorks) {
    addUser(0, "a@x", "en");
    addUser(0, "b@x", "en");
    fronta_mail.push(alarmNow(12, 1));
    fronta_mail.push(alarmNow(12, 0));
    konec = true;
    pass();
    EXPECT_EQ(world.mails(), 4);
    EXPECT_EQ(errors, "");
}

TEST_F(MailThread, EachClientOfAPassHasTheWholeTimeThatAStopRequestLeaves) {
    world.client(std::string(MailWorld::kRecord) + "\nsleep 0.8");
    addUser(0, "a@x", "en");
    for (int i = 0; i < 3; ++i) fronta_mail.push(alarmNow(12, 1));
    client_stop_limit = 2;
    konec = true;
    pass();
    EXPECT_EQ(world.mails(), 3);
    EXPECT_EQ(errors, "");
}

TEST_F(MailThread, MailsBehindAClientThatHangsAtAStopRequestAreCountedAndNotSent) {
    world.client(std::string(MailWorld::kRecord) + "\nexec sleep 600");
    addUser(0, "a@x", "en");
    addUser(0, "b@x", "en");
    fronta_mail.push(alarmNow(12, 1));
    fronta_mail.push(alarmAt(12, 1, 1));
    fronta_mail.push(alarmNow(12, 0));
    client_stop_limit = 1;
    konec = true;
    const std::string printed = pass();
    EXPECT_EQ(world.mails(), 1);
    EXPECT_EQ(countOf(printed, "-> Odesilam"), 1U);
    EXPECT_EQ(errors, "Mail client " + world.clientPath() +
                          " took more than 1 s during the stop and was ended\n"
                          "Stop requested, mails not sent: 3\n");
    EXPECT_TRUE(fronta_mail.empty());
}

TEST_F(MailThread, ClientThatReadsNothingDelaysNoOtherMail) {
    world.client("exit 0");
    addUser(0, "a@x", "en");
    for (int i = 0; i < 10; ++i) fronta_mail.push(alarmNow(12, 1));
    EXPECT_EQ(countOf(pass(), "\n-> Odeslan\n"), 10U);
    EXPECT_EQ(errors, "");
}

TEST_F(MailThread, QueueAndProjectMayChangeDuringAPass) {
    testing_email = 1;
    addUser(0, "a@x", "en");
    constexpr int kAlarms = 300;
    const auto produce = [] {
        for (int i = 0; i < kAlarms; ++i) {
            fronta_mail.push(alarmNow(12, 1));
            define(1000 + i, "M", "A", "D");
            addUser(9, "late@x", "en", {});
        }
    };
    CapturedOutput out(STDOUT_FILENO);
    std::thread producer(produce);
    for (int i = 0; i < 50; ++i) zpracuj_maily_by_users();
    producer.join();
    zpracuj_maily_by_users();
    EXPECT_EQ(countOf(out.text(), "(MAIL FOR USER) GROUP: 0 - FOUND alarm ID: 12\n"), size_t{kAlarms});
    EXPECT_TRUE(fronta_mail.empty());
}

std::string header(int queue) {
    return "\x1b[0;0;31m-->Thread mail (queue:" + std::to_string(queue) + ") \x1b[0;0;37m\n";
}

void waitUntil(const std::function<bool()>& condition) {
    for (int i = 0; i < 3000 && !condition(); ++i) usleep(10000);
    ASSERT_TRUE(condition());
}

TEST_F(MailThread, RunsAPassEveryThreeSecondsUntilTheStopRequest) {
    addUser(0, "a@x", "en");
    CapturedOutput out(STDOUT_FILENO);
    MyThread worker;
    worker.NastavUkonceni(&konec);
    EXPECT_EQ(worker.Start(0), 0);
    EXPECT_EQ(vlakno_mail, 0);
    waitUntil([] { return vlakno_mail == 1; });
    waitUntil([&] { return out.text() == header(0) + header(0); });
    konec = true;
    worker.Stop();
    EXPECT_EQ(vlakno_mail, 0);
    EXPECT_EQ(out.text(), header(0) + header(0) + "Koncim Vlakno mail.........\n");
    EXPECT_EQ(world.mails(), 0);
}

TEST_F(MailThread, StartsNoPassWhileTheQueuesAreInUse) {
    fronta_mail.push(alarmAt(12, 1, 1));
    thr_lock = true;
    CapturedOutput out(STDOUT_FILENO);
    MyThread worker;
    EXPECT_EQ(worker.Start(0), 0);
    waitUntil([] { return vlakno_mail == 1; });
    usleep(100000);
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(fronta_mail.size(), 1);
    thr_lock = false;
    waitUntil([] { return fronta_mail.empty(); });
    konec = true;
    worker.Stop();
    EXPECT_EQ(out.text(), header(1) + "ALARM TIMEOUT !!! (1 Thu Jan  1 00:00:01 1970)\n" +
                              "Koncim Vlakno mail.........\n");
}

}  // namespace
