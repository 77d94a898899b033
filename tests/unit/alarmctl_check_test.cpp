#include "alarmctl/check/check.h"
#include "alarmctl/check/check_config.h"
#include "alarmctl/check/check_contacts.h"
#include "alarmctl/check/check_loaders.h"
#include "tests/support/project_files.h"

namespace {

TEST(CheckContactsTest, TellsWhyATextIsNoAddress) {
    struct Row {
        const char* text;
        const char* fault;
    };
    const Row rows[] = {
        {"jan@plant.example", ""},
        {"jan@localhost", ""},
        {"Jan Novák <jan@plant.example>", ""},
        {"jan@plant.example, eva@plant.example", ""},
        {"", "an empty address"},
        {"jan@plant.example,", "an empty address"},
        {"jan", "no \"@\""},
        {"@plant.example", "nothing in front of the \"@\""},
        {"jan@", "nothing behind the \"@\""},
        {"jan@eva@plant.example", "more than one \"@\""},
        {"jan novak@plant.example", "a blank in the address"},
        {"jan@plant.example;eva", "a character that may not stand there"},
        {"jan@plant..example", "a misplaced \".\" behind the \"@\""},
        {"jan@.example", "a misplaced \".\" behind the \"@\""},
    };
    for (const Row& row : rows) EXPECT_EQ(addressFault(row.text), row.fault) << row.text;
}

TEST(CheckContactsTest, KnowsInternationalNumbers) {
    for (const char* number : {"+4206010", "+420601000001", "+123456789012345"})
        EXPECT_TRUE(isInternationalNumber(number)) << number;
    for (const char* number : {"", "+", "601000001", "00420601000001", "+420 601 000 001", "+042060100000",
                               "+123456", "+1234567890123456", "+42060100000a"})
        EXPECT_FALSE(isInternationalNumber(number)) << number;
}

TEST(PasswordFileTest, OnlyItsOwnersReadingAndWritingIsTaken) {
    constexpr uid_t kRoot = 0, kService = 990, kOther = 1000;
    constexpr char kOwned[] = "contains secrets and therefore must be owned by you";
    constexpr char kRights[] =
        "contains secrets and therefore must have no more than user read/write permissions";
    struct Row {
        uid_t owner;
        mode_t mode;
        uid_t user;
        const char* refusal;
    };
    const Row rows[] = {
        {kService, 0600, kService, ""},      {kService, 0400, kService, ""},
        {kService, 0640, kService, kRights}, {kService, 0604, kService, kRights},
        {kService, 0620, kService, kRights}, {kService, 0700, kService, kRights},
        {kRoot, 0640, kService, kOwned},     {kRoot, 0600, kService, "Permission denied"},
        {kOther, 0644, kService, kOwned},    {kService, 0600, kOther, "Permission denied"},
        {kService, 0666, kRoot, ""},
    };
    for (const Row& row : rows) {
        struct stat file = {};
        file.st_uid = row.owner;
        file.st_mode = S_IFREG | row.mode;
        EXPECT_EQ(passwordFileRefusal(file, row.user), row.refusal)
            << row.owner << " " << std::oct << row.mode;
    }
}

// The daemon's files in a folder of their own.
class CheckTest : public ProjectTest {
  protected:
    CheckTest() {
        conf_file = folder_.write("korvato.conf", "pFolder " + folder_.path() + "\nhttps_port 1\nbinFolder " +
                                                      folder_.path() + "\n");
        msmtp_conf_file = folder_.write("msmtp.conf", "account korvato\nfrom a@plant.example\n");
        sms_conf_file = folder_.write("sms.conf", "");
        system_setting = folder_.write("settings.json", R"({"network": {"modem": {}}})");
        folder_.write("setting.json", R"({"projectID": "7"})");
        folder_.write("users.json", kUsers);
        folder_.write("cas.json", kDefinitions);
    }
    ~CheckTest() override {
        conf_file = "korvato.conf";
        msmtp_conf_file = "msmtp.conf";
        sms_conf_file = "sms.conf";
        system_setting.clear();
    }

    std::string textOf(const CheckReport& report) const {
        std::string text = report.findings.text(0);
        for (size_t at; (at = text.find(folder_.path() + "/")) != std::string::npos;)
            text.erase(at, folder_.path().size() + 1);
        return text;
    }

    static constexpr char kUsers[] =
        R"([{"id": 1, "level": 1, "name": "Jan", "mail": "jan@plant.example", "tel": "+420601000001"}])";
    static constexpr char kDefinitions[] =
        R"([{"id": 12, "message": "Pump failure", "email": true, "smsAct": true, "group": [false, true]}])";
};

TEST_F(CheckTest, AGoodProjectEarnsNoFinding) {
    folder_.write("groups.json", R"([{"groupNo": 1, "name": "One"}])");
    const CheckReport report = checkAll(false);
    EXPECT_EQ(textOf(report), "");
    EXPECT_EQ(summaryOf(report),
              "0 errors, 0 warnings, 0 notes in 8 files: the daemon would start; 1 alarm, 1 user, 1 group "
              "are in use");
}

TEST_F(CheckTest, WhatEndsTheDaemonDoesNotEndTheCheck) {
    folder_.write("setting.json", "[1]");
    const CheckReport report = checkAll(false);
    EXPECT_FALSE(report.starts);
    EXPECT_EQ(textOf(report),
              "groups.json: note: is not there, and groups.csv neither: the groups have no names [no-file]\n"
              "setting.json: error: the document is not an object: the daemon ends [malformed-setting]\n");
    EXPECT_EQ(summaryOf(report), "1 error, 0 warnings, 1 note in 8 files: the daemon would not start");
}

TEST_F(CheckTest, AMainFileThatCannotBeReadIsAllThatIsTold) {
    conf_file = folder_.in("none.conf");
    EXPECT_EQ(textOf(checkAll(true)),
              "none.conf: error: cannot be opened (No such file or directory): the daemon knows neither its "
              "project "
              "nor the server nor the mail client [unreadable]\n");
    conf_file = folder_.pipe("pipe.conf");
    const CheckReport report = checkAll(true);
    EXPECT_EQ(textOf(report),
              "pipe.conf: error: cannot be opened (Not a regular file): the daemon knows neither its project "
              "nor the server nor the mail client [unreadable]\n");
    EXPECT_TRUE(report.starts);
}

TEST_F(CheckTest, PipesInThePlaceOfTheOtherKeyValueFilesAreToldOnceEach) {
    folder_.write("groups.json", R"([{"groupNo": 1, "name": "One"}])");
    std::filesystem::remove(folder_.in("setting.json"));
    folder_.pipe("setting.txt");
    msmtp_conf_file = folder_.pipe("mail.pipe");
    sms_conf_file = folder_.pipe("sms.pipe");
    const CheckReport report = checkAll(false);
    EXPECT_TRUE(report.starts);
    EXPECT_EQ(textOf(report),
              "mail.pipe: error: cannot be opened (Not a regular file): no mail is sent [unreadable]\n"
              "sms.pipe: note: cannot be opened (Not a regular file): nothing is taken from it anyway "
              "[unreadable]\n"
              "setting.txt: error: cannot be opened (Not a regular file): the project id is the character "
              "with the code 0 [unreadable]\n");
}

TEST_F(CheckTest, ALineOfAKeyValueFileThatIsTooLongIsToldAndCountsAsNotThere) {
    folder_.write("groups.json", R"([{"groupNo": 1, "name": "One"}])");
    const std::string too_long(1 << 20, 'x');
    folder_.write("korvato.conf", "pFolder " + folder_.path() + "\nhttps_port " + too_long + "\nbinFolder " +
                                      folder_.path() + "\n" + std::string(1, '\0') + too_long + "\n");
    const CheckReport report = checkAll(false);
    EXPECT_EQ(
        textOf(report),
        "korvato.conf: error: \"https_port\" is missing: the alarm history is not reached [missing-key]\n"
        "korvato.conf:2: warning: longer than 1048576 bytes, ignored [line-too-long]\n"
        "korvato.conf:4: warning: longer than 1048576 bytes, ignored [line-too-long]\n");
}

TEST_F(CheckTest, AnAlarmWhoseGroupIsNoArrayIsInNoGroup) {
    folder_.write("groups.json", R"([{"groupNo": 1, "name": "One"}])");
    folder_.write("cas.json",
                  R"([{"id": 12, "message": "M", "email": true, "group": [false, true]},
                      {"id": 13, "message": "M", "email": true, "group": {"1": true}}])");
    const CheckReport report = checkAll(false);
    EXPECT_EQ(report.loaded.alarms, 2U);
    EXPECT_EQ(textOf(report),
              "cas.json: element 2: warning: \"group\" is ignored: not an array [wrong-type]\n"
              "cas.json: element 2: warning: alarm 13 has flags but is in no group: nobody is told of it "
              "[no-group]\n");
}

TEST_F(CheckTest, TheLoadersComplaintsBecomeFindings) {
    acc_list = "/p, element 9: x/list.acc";
    acc_list_json = "/p, element 9: x/users.json";
    const Finding line =
        findingFrom({ComplaintCode::kGroupNumber, acc_list, "group 12 is not within 0 to 11, ignored", 7});
    EXPECT_EQ(line.place.file, acc_list);
    EXPECT_EQ(line.place.line, 7U);
    EXPECT_EQ(line.code, "group-number");
    EXPECT_EQ(line.severity, Severity::kWarning);
    EXPECT_EQ(line.text, "group 12 is not within 0 to 11, ignored");
    const Finding element = findingFrom(
        {ComplaintCode::kElementDropped, acc_list_json, "\"id\": no Int (element left out)", 0, 3});
    EXPECT_EQ(element.place.file, acc_list_json);
    EXPECT_EQ(element.place.element, 3U);
    EXPECT_EQ(element.code, "element-dropped");
    const Finding file =
        findingFrom({ComplaintCode::kWrongShape, acc_list_json, "the document is not an array, nothing is"});
    EXPECT_EQ(file.place.line + file.place.element, 0U);
    EXPECT_EQ(file.code, "wrong-shape");
    EXPECT_EQ(file.severity, Severity::kError);
    const Finding last =
        findingFrom({ComplaintCode::kFourColumns, acc_list, "4 columns, the 5th one is missing", 2, 0, true});
    EXPECT_EQ(last.code, "four-columns");
    EXPECT_EQ(last.text, "4 columns, the 5th one is missing: the daemon ends");
}

TEST_F(CheckTest, AnAlarmWithoutATextInALanguageIsANoteALanguage) {
    folder_.write("groups.json", "[]");
    folder_.write(
        "users.json",
        R"([{"id": 1, "level": 1, "name": "Jan", "mail": "jan@plant.example", "tel": "+420601000001",
                       "language": "cs"},
                      {"id": 2, "level": 1, "name": "Eva", "mail": "eva@plant.example", "language": "de"}])");
    folder_.write(
        "cas.json",
        R"([{"id": 12, "message": "M", "device": " ", "area": "A", "email": true, "group": [false, true],
                       "messageLangs": {"cs": "Z"}, "areaLangs": {"cs": "O", "de": ""}},
                      {"id": 13, "message": "", "email": true, "group": [false, true], "messageLangs": {"cs": "Z"}}])");
    EXPECT_EQ(textOf(checkAll(false)),
              "cas.json: note: 1 alarm lacks a text in language \"de\", whose users get the default text: 12 "
              "(message, "
              "area) [missing-language]\n"
              "cas.json: element 2: warning: alarm 13 has no message text in language \"de\" and no default: "
              "mails show "
              "\"-\", SMS are without it [empty-text]\n");
}

}  // namespace
