#include "alarmd/project/users.h"

#include "tests/support/project_files.h"

namespace {

const char kRule[] = "-----------------------------------------\n";
const char kParseError[] = "Nacitam user.json\nFailed to JSON parse users.json\n";

// The summary of a group that has nobody.
std::string emptyGroup(int number, bool json) {
    return "..............\nGroup: " + std::to_string(number) +
           "()\nAlarm list: \nUse_mail: 0\nUse_mobil: 0\nMax_severity: 0\nReporting: 0\n" +
           (json ? "-> User struct list: \n" : "");
}

std::string emptyGroups(int first, int last, bool json) {
    std::string text;
    for (int number = first; number <= last; ++number) text += emptyGroup(number, json);
    return text;
}

class UsersTest : public ProjectTest {
  protected:
    Output loadCsv(std::string_view bytes) {
        acc_list = folder_.write("list.acc", bytes);
        return outputOf(readUser);
    }

    Output loadJson(std::string_view bytes) {
        acc_list_json = folder_.write("users.json", bytes);
        return outputOf(readUserJson);
    }

    static std::vector<std::string> mailOf(int number) {
        const _group group = groupNo(number);
        return {group.mail.begin(), group.mail.end()};
    }

    static std::vector<std::string> mobilOf(int number) {
        const _group group = groupNo(number);
        return {group.mobil.begin(), group.mobil.end()};
    }
};

using Texts = std::vector<std::string>;

const char kExample[] =
    R"([{"id": 7, "level": 2, "name": "Eva", "mail": "eva@plant.example", "tel": "+420123",
    "language": "cs", "smsControl": true}])";

TEST_F(UsersTest, ACsvLineWithAnAddressAndNoNumber) {
    const Output output = loadCsv("a;b;2;eva@plant.example; \n");
    EXPECT_EQ(output.out, "Nacitam list.acc\n-->Prse file list.acc\n" + emptyGroups(0, 1, false) +
                              "..............\nGroup: 2()\n------------> eva@plant.example\n"
                              "Mail list: eva@plant.example\nAlarm list: \nUse_mail: 1\nUse_mobil: 0\n"
                              "Max_severity: 0\nReporting: 0\n" +
                              emptyGroups(3, 9, false) + kRule);
    EXPECT_EQ(output.err, "");
    EXPECT_EQ(mailOf(2), Texts{"eva@plant.example"});
    EXPECT_TRUE(mobilOf(2).empty());
    EXPECT_EQ(groupNo(2).use_mail, 1);
    EXPECT_EQ(groupNo(2).use_mobil, 0);
}

TEST_F(UsersTest, TheSummaryShowsNameAlarmsNumbersSeverityAndReporting) {
    {
        MutexLock lock(project_mutex);
        list_group[0].groupname = "Boilers";
        list_group[0].alarm_ids = {3, 5, 3};
        list_group[0].max_severity = 4;
        list_group[0].periodic_mail = 1;
    }
    const Output output = loadCsv("a;b;0;x@a;+1\na;b;0;y@a;+2\n");
    EXPECT_EQ(output.out,
              "Nacitam list.acc\n-->Prse file list.acc\n"
              "..............\nGroup: 0(Boilers)\n------------> x@a\n------------> y@a\n"
              "Mail list: x@a,y@a\nAlarm list:  3 5 3\nMobil list: +1,+2\nUse_mail: 1\nUse_mobil: 1\n"
              "Max_severity: 4\nReporting: 1\n" +
                  emptyGroups(1, 9, false) + kRule);
}

TEST_F(UsersTest, AddressesOfAGroupAreJoinedByCommas) {
    loadCsv("a;b;2;x@a; \na;b;2;y@a;+420\n");
    EXPECT_EQ(groupNo(2).mail_list, "x@a,y@a");
    EXPECT_EQ(groupNo(2).mobil_list, "+420");
    EXPECT_EQ(groupNo(2).use_mobil, 1);
    EXPECT_EQ(groupNo(2).group_id, 2);
    EXPECT_EQ(groupNo(9).group_id, 9);
    EXPECT_EQ(groupNo(10).group_id, 0);
}

TEST_F(UsersTest, AOneCharacterAddressIsAList) {
    loadCsv("a;b;2;x; \n");
    EXPECT_EQ(groupNo(2).mail_list, "x");
    EXPECT_EQ(groupNo(2).use_mail, 1);
    EXPECT_EQ(groupNo(3).mail_list, "");
    EXPECT_EQ(groupNo(3).use_mail, 0);
}

TEST_F(UsersTest, CsvUsersAreInNoUserList) {
    loadCsv("a;b;2;x@a;+420\n");
    EXPECT_TRUE(users().empty());
    EXPECT_TRUE(groupNo(2).users.empty());
}

TEST_F(UsersTest, ALineOfThreeFieldsIsSkipped) {
    loadCsv("a;b;2\n\na;b;;;2;\na;b;1;x@a;+1");
    EXPECT_TRUE(mailOf(2).empty());
    EXPECT_EQ(mailOf(1), Texts{"x@a"});
    EXPECT_EQ(mobilOf(1), Texts{"+1"});
}

TEST_F(UsersTest, TheFirstLineIsDataAndNoHeader) {
    loadCsv("a;b;1;x@a;+1\n");
    EXPECT_EQ(mailOf(1), Texts{"x@a"});
}

TEST_F(UsersTest, ALineOfFourFieldsEndsTheProcess) {
    acc_list = folder_.write("list.acc", "a;b;2;x@a;+1\na;b;2;y@a\na;b;2;z@a;+2\n");
    EXPECT_EXIT(readUser(), testing::KilledBySignal(SIGABRT),
                "alarmd: .*/list.acc, line 2: 4 columns, the 5th one \\(phone number\\) is missing\n");
}

TEST_F(UsersTest, WhatWasPrintedBeforeTheProcessEndsIsWritten) {
    acc_list = folder_.write("list.acc", "a;b;2;y@a\n");
    const std::string log = folder_.in("log");
    EXPECT_EXIT(
        {
            if (freopen(log.c_str(), "w", stdout) == nullptr) _exit(1);
            readUser();
        },
        testing::KilledBySignal(SIGABRT), "line 1");
    std::ifstream file(log);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}),
              "Nacitam list.acc\n-->Prse file list.acc\n");
}

TEST_F(UsersTest, ACsvGroupOutsideTheGroupsIsToldAndIgnored) {
    const Output output = loadCsv("a;b;12;x@a;+1\na;b;-1;y@a;+2\na;b;0;z@a;+3\n");
    EXPECT_EQ(output.err, "alarmd: " + acc_list + ", line 1: group 12 is not within 0 to 11, ignored\n" +
                              "alarmd: " + acc_list + ", line 2: group -1 is not within 0 to 11, ignored\n");
    EXPECT_EQ(mailOf(0), Texts{"z@a"});
}

TEST_F(UsersTest, GroupsTenAndElevenAreNeitherEmptiedNorSummedUp) {
    loadCsv("a;b;10;x@a;+1\n");
    loadCsv("a;b;10;x@a;+1\n");
    EXPECT_EQ(mailOf(10), (Texts{"x@a", "x@a"}));
    EXPECT_EQ(groupNo(10).mail_list, "");
    EXPECT_EQ(groupNo(10).use_mail, 0);
}

TEST_F(UsersTest, AReloadFromCsvHoldsEachEntryOnce) {
    loadCsv("a;b;2;x@a;+1\n");
    loadCsv("a;b;2;x@a;+1\n");
    EXPECT_EQ(mailOf(2), Texts{"x@a"});
    EXPECT_EQ(groupNo(2).mail_list, "x@a");
    EXPECT_EQ(groupNo(2).mobil_list, "+1");
}

TEST_F(UsersTest, AMissingCsvFileEmptiesTheListsAndPrintsTheSummary) {
    loadCsv("a;b;2;x@a;+1\n");
    acc_list = folder_.in("none");
    const Output output = outputOf(readUser);
    EXPECT_EQ(output.out, "Nacitam list.acc\nFile list.acc not exist!\n" + emptyGroups(0, 9, false) + kRule);
    EXPECT_TRUE(mailOf(2).empty());
}

TEST_F(UsersTest, AFolderInTheCsvFilesPlaceEndsWithALineAndTheSummary) {
    acc_list = folder_.folder("list.acc");
    const Output output = outputOf(readUser);
    EXPECT_EQ(output.out, "Nacitam list.acc\n-->Prse file list.acc\n" + emptyGroups(0, 9, false) + kRule);
    EXPECT_EQ(output.err, "alarmd: " + acc_list + ": Is a directory\n");
}

TEST_F(UsersTest, AnUnreadableCsvFileEndsWithALine) {
    if (geteuid() == 0) GTEST_SKIP() << "root reads every file";
    acc_list = folder_.write("list.acc", "a;b;2;x@a;+1\n");
    chmod(acc_list.c_str(), 0);
    EXPECT_EQ(outputOf(readUser).err, "alarmd: " + acc_list + ": Permission denied\n");
}

TEST_F(UsersTest, TheCarriageReturnOfACrLfFileBelongsToTheLastColumn) {
    loadCsv("a;b;2;x@a;+1\r\na;b;2;y@a;+2;end\r\n");
    EXPECT_EQ(mailOf(2), (Texts{"x@a", "y@a"}));
    EXPECT_EQ(mobilOf(2), (Texts{"+1\r", "+2"}));
}

TEST_F(UsersTest, EmptyAndMarkedCsvFilesDoNoHarm) {
    EXPECT_EQ(loadCsv("").err, "");
    loadCsv(std::string(kByteOrderMark) + "a;b;2;x@a;+1\n");
    EXPECT_EQ(mailOf(2), Texts{"x@a"});
}

TEST_F(UsersTest, ManyCsvLinesKeepTheirOrder) {
    std::string text;
    for (int i = 0; i < 2500; ++i) text += "a;b;1;m" + std::to_string(i) + ";+" + std::to_string(i) + "\n";
    loadCsv(text);
    const Texts mail = mailOf(1);
    ASSERT_EQ(mail.size(), 2500U);
    EXPECT_EQ(mail.front(), "m0");
    EXPECT_EQ(mail.back(), "m2499");
    EXPECT_EQ(mobilOf(1)[1000], "+1000");
}

TEST_F(UsersTest, AJsonUserIsKeptInTheListAndInTheGroup) {
    const Output output = loadJson(kExample);
    ASSERT_EQ(users().size(), 1U);
    ASSERT_EQ(groupNo(2).users.size(), 1U);
    for (const _user& loaded : {users()[0], groupNo(2).users[0]}) {
        EXPECT_EQ(loaded.id, 7);
        EXPECT_EQ(loaded.name, "Eva");
        EXPECT_EQ(loaded.group, 2);
        EXPECT_EQ(loaded.mail, "eva@plant.example");
        EXPECT_EQ(loaded.mobil, "+420123");
        EXPECT_EQ(loaded.lang, "cs");
        EXPECT_TRUE(loaded.sms_control);
    }
    EXPECT_EQ(mailOf(2), Texts{"eva@plant.example"});
    EXPECT_EQ(mobilOf(2), Texts{"+420123"});
    EXPECT_EQ(output.out, "Nacitam user.json\n=> List list_group struct\n" + emptyGroups(0, 1, true) +
                              "..............\nGroup: 2()\n------------> eva@plant.example\n"
                              "Mail list: eva@plant.example\nAlarm list: \nMobil list: +420123\n"
                              "Use_mail: 1\nUse_mobil: 1\nMax_severity: 0\nReporting: 0\n"
                              "-> User struct list: \n"
                              "-> Name: Eva\tMail: eva@plant.example\tMobil: +420123\tLanguage: cs\n" +
                              emptyGroups(3, 9, true) + kRule);
    EXPECT_EQ(output.err, "");
}

TEST_F(UsersTest, AUserWithoutMailAndNumberIsDropped) {
    const Output output =
        loadJson(R"([{"id": 1, "level": 2, "name": "A"}, {"id": 2, "mail": "", "tel": ""}])");
    EXPECT_TRUE(users().empty());
    EXPECT_TRUE(groupNo(2).users.empty());
    EXPECT_EQ(output.err, "");
}

TEST_F(UsersTest, MailOrNumberAloneIsEnough) {
    loadJson(R"([{"id": 1, "level": 2, "mail": "x@a"}, {"id": 2, "level": 2, "tel": "+1"}])");
    EXPECT_EQ(users().size(), 2U);
    EXPECT_EQ(mailOf(2), Texts{"x@a"});
    EXPECT_EQ(mobilOf(2), Texts{"+1"});
}

TEST_F(UsersTest, AnEmptyLanguageIsShownAsDefault) {
    dbglev = 1;
    const Output output = loadJson(
        R"([{"id": 1, "level": 0, "name": "A", "mail": "x@a"}, {"id": 2, "name": "B", "tel": "+1", "language": "en", "smsControl": true}])");
    EXPECT_EQ(output.out.substr(0, output.out.find("..............")),
              "Nacitam user.json\n=> List user_list struct\n##################\n"
              "ID: 1\nName: A\nMobil: \nGroup: 0\nSMS_Control: 0\nLanguage: default\n##################\n"
              "ID: 2\nName: B\nMobil: +1\nGroup: 0\nSMS_Control: 1\nLanguage: en\n##################\n"
              "=> List list_group struct\n");
    EXPECT_NE(output.out.find("-> Name: A\tMail: x@a\tMobil: \tLanguage: default\n"
                              "-> Name: B\tMail: \tMobil: +1\tLanguage: en\n"),
              std::string::npos);
}

TEST_F(UsersTest, AReloadListsJsonUsersTwiceAndTheirAddressesOnce) {
    loadJson(kExample);
    loadJson(kExample);
    EXPECT_EQ(users().size(), 2U);
    EXPECT_EQ(groupNo(2).users.size(), 2U);
    EXPECT_EQ(mailOf(2), Texts{"eva@plant.example"});
    EXPECT_EQ(mobilOf(2), Texts{"+420123"});
}

TEST_F(UsersTest, TheWorkingRecordKeepsIdMailAndLanguageOfTheLastUser) {
    loadJson(kExample);
    EXPECT_EQ(user.id, 7);
    EXPECT_EQ(user.mail, "eva@plant.example");
    EXPECT_EQ(user.lang, "cs");
    EXPECT_EQ(user.name, "");
    EXPECT_EQ(user.mobil, "");
    EXPECT_EQ(user.group, 0);
    EXPECT_FALSE(user.sms_control);
}

TEST_F(UsersTest, AJsonGroupOutsideTheGroupsIsToldAndTheUserIgnored) {
    const Output output = loadJson(
        R"([{"level": 12, "mail": "x@a"}, {"level": -1, "tel": "+1"}, {"level": 11, "mail": "y@a"}])");
    EXPECT_EQ(output.err,
              "alarmd: " + acc_list_json + ", element 1: group 12 is not within 0 to 11, ignored\n" +
                  "alarmd: " + acc_list_json + ", element 2: group -1 is not within 0 to 11, ignored\n");
    EXPECT_EQ(users().size(), 1U);
    EXPECT_EQ(mailOf(11), Texts{"y@a"});
    EXPECT_EQ(groupNo(11).users.size(), 1U);
}

TEST_F(UsersTest, AnElementOfAWrongTypeIsToldAndTheOthersAreLoaded) {
    const Output output =
        loadJson(R"([{"level": "2", "mail": "x@a"}, "x", {"smsControl": "yes", "mail": "x@a"},
        {"mail": {}}, {"id": 1e30, "mail": "x@a"}, {"id": 5, "mail": "y@a", "tel": 420}])");
    EXPECT_EQ(linesIn(output.err), 5U) << output.err;
    EXPECT_NE(
        output.err.find(", element 1: \"level\": Value is not convertible to Int. (element left out)\n"),
        std::string::npos);
    EXPECT_NE(output.err.find(", element 2: not an object (element left out)\n"), std::string::npos);
    EXPECT_NE(output.err.find(", element 3: \"smsControl\": "), std::string::npos);
    EXPECT_NE(output.err.find(", element 4: \"mail\": "), std::string::npos);
    EXPECT_NE(output.err.find(", element 5: \"id\": "), std::string::npos);
    ASSERT_EQ(users().size(), 1U);
    EXPECT_EQ(users()[0].mobil, "420");
}

TEST_F(UsersTest, TextThatIsNoJsonIsToldAndTheSummaryPrinted) {
    loadJson(kExample);
    const Output output = loadJson("[{");
    EXPECT_EQ(output.out.substr(0, sizeof kParseError - 1), kParseError);
    const std::string tail = "=> List list_group struct\n" + emptyGroups(0, 1, true);
    EXPECT_NE(output.out.find("\n\n" + tail), std::string::npos) << output.out;
    EXPECT_TRUE(mailOf(2).empty());
    EXPECT_EQ(users().size(), 1U);
}

TEST_F(UsersTest, ADocumentThatIsNoArrayIsToldAndTheSummaryPrinted) {
    const Output output = loadJson("{\"id\": 1}");
    EXPECT_EQ(output.err,
              "alarmd: " + acc_list_json + ": the document is not an array, nothing is taken from it\n");
    EXPECT_EQ(output.out, "Nacitam user.json\n=> List list_group struct\n" + emptyGroups(0, 9, true) + kRule);
}

TEST_F(UsersTest, JsonCutAtAnyByteLoadsNobody) {
    const std::string text = kExample;
    for (size_t length = 0; length < text.size(); ++length) {
        const Output output = loadJson(std::string_view(text).substr(0, length));
        EXPECT_EQ(output.out.substr(0, sizeof kParseError - 1), kParseError) << length;
    }
    EXPECT_TRUE(users().empty());
}

TEST_F(UsersTest, MissingFoldersBinaryAndMarkedJsonAreParseErrors) {
    const std::string expected = std::string(kParseError) +
                                 "* Line 1, Column 1\n  Syntax error: value, object or array expected.\n\n" +
                                 "=> List list_group struct\n" + emptyGroups(0, 9, true) + kRule;
    acc_list_json = folder_.in("none");
    EXPECT_EQ(outputOf(readUserJson).out, expected);
    acc_list_json = folder_.folder("users.json");
    EXPECT_EQ(outputOf(readUserJson).out, expected);
    std::filesystem::remove(acc_list_json);
    EXPECT_EQ(loadJson(std::string(kByteOrderMark) + "[]").out, expected);
    EXPECT_EQ(loadJson(binaryBytes()).out.substr(0, sizeof kParseError - 1), kParseError);
}

}  // namespace
