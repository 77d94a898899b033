#include "alarmd/project/groups.h"

#include "tests/support/project_files.h"

namespace {

const char kParseError[] = "Nacitam groups.json\nFailed to JSON parse groups.json\n";

class GroupsTest : public ProjectTest {
  protected:
    Output loadCsv(std::string_view bytes) {
        group_list = folder_.write("groups.csv", bytes);
        return outputOf(readGroup);
    }

    Output loadJson(std::string_view bytes) {
        group_list_json = folder_.write("groups.json", bytes);
        return outputOf(readGroupJson);
    }

    static void expectGroup(int number, const std::string& name, int severity, int reporting) {
        const _group group = groupNo(number);
        EXPECT_EQ(group.groupname, name) << "group " << number;
        EXPECT_EQ(group.max_severity, severity) << "group " << number;
        EXPECT_EQ(group.periodic_mail, reporting) << "group " << number;
    }

    static void expectNothingLoaded() {
        for (int number = 0; number < kGroups; ++number) expectGroup(number, "", 0, 0);
    }
};

TEST_F(GroupsTest, ACsvLineSetsNameSeverityAndSwitch) {
    const Output output = loadCsv("number;severity;reporting;name\n2;3;YES;Boiler house\n");
    expectGroup(2, "Boiler house", 3, 1);
    EXPECT_EQ(output.out, group_list + "\nNacitam groups.csv\nPrse file groups.csv\n");
    EXPECT_EQ(output.err, "");
}

TEST_F(GroupsTest, TheSwitchIsOnForUpperCaseYesOnly) {
    loadCsv("h\n2;3;yes;A\n3;3;Yes;B\n4;3;YES ;C\n5;3;NO;D\n6;3;YES;E\n");
    for (const int number : {2, 3, 4, 5}) EXPECT_EQ(groupNo(number).periodic_mail, 0) << number;
    expectGroup(6, "E", 3, 1);
}

TEST_F(GroupsTest, ALineWithAnEmptyFieldHasThreeFieldsAndIsSkipped) {
    loadCsv("h\n2;;YES;A\n");
    expectNothingLoaded();
}

TEST_F(GroupsTest, FurtherFieldsAreIgnored) {
    loadCsv("h\n2;3;YES;A;B;C\n");
    expectGroup(2, "A", 3, 1);
}

TEST_F(GroupsTest, AFileWithAHeaderOnlyChangesNothing) {
    loadCsv("1;2;YES;this is the header\n");
    expectNothingLoaded();
    loadCsv("1;2;YES;a header without a line feed");
    expectNothingLoaded();
}

TEST_F(GroupsTest, ALastLineWithoutALineFeedCounts) {
    loadCsv("h\n1;2;YES;A");
    expectGroup(1, "A", 2, 1);
}

TEST_F(GroupsTest, ALaterLineWithTheSameNumberWins) {
    loadCsv("h\n1;2;YES;A\n1;7;NO;B\n");
    expectGroup(1, "B", 7, 0);
}

TEST_F(GroupsTest, TextInANumberColumnIsZero) {
    loadCsv("h\nx;y;YES;A\n");
    expectGroup(0, "A", 0, 1);
}

TEST_F(GroupsTest, AGroupThatDisappearsFromTheFileKeepsItsValues) {
    loadCsv("h\n1;2;YES;A\n");
    loadCsv("h\n2;2;YES;B\n");
    expectGroup(1, "A", 2, 1);
    expectGroup(2, "B", 2, 1);
}

TEST_F(GroupsTest, ACsvNumberOutsideTheGroupsIsToldAndIgnored) {
    const Output output = loadCsv("h\n12;1;YES;A\n-1;1;YES;B\n99999999999;1;YES;C\n11;1;YES;D\n");
    EXPECT_EQ(output.err,
              "alarmd: " + group_list + ", line 2: group 12 is not within 0 to 11, ignored\n" +
                  "alarmd: " + group_list + ", line 3: group -1 is not within 0 to 11, ignored\n" +
                  "alarmd: " + group_list + ", line 4: group 2147483647 is not within 0 to 11, ignored\n");
    expectGroup(11, "D", 1, 1);
    for (int number = 0; number < 11; ++number) expectGroup(number, "", 0, 0);
}

TEST_F(GroupsTest, AMissingCsvFileIsTold) {
    group_list = folder_.in("none.csv");
    const Output output = outputOf(readGroup);
    EXPECT_EQ(output.out, group_list + "\nNacitam groups.csv\nFile group.csv not exist!\n");
    expectNothingLoaded();
}

TEST_F(GroupsTest, AFolderInTheCsvFilesPlaceEndsWithALine) {
    group_list = folder_.folder("groups.csv");
    const Output output = outputOf(readGroup);
    EXPECT_EQ(output.out, group_list + "\nNacitam groups.csv\nPrse file groups.csv\n");
    EXPECT_EQ(output.err, "alarmd: " + group_list + ": Is a directory\n");
    expectNothingLoaded();
}

TEST_F(GroupsTest, APipeInTheCsvFilesPlaceIsNotWaitedFor) {
    group_list = folder_.pipe("groups.csv");
    EXPECT_EQ(outputOf(readGroup).err, "alarmd: " + group_list + ": Not a regular file\n");
}

TEST_F(GroupsTest, AnUnreadableCsvFileEndsWithALine) {
    if (geteuid() == 0) GTEST_SKIP() << "root reads every file";
    group_list = folder_.write("groups.csv", "h\n1;2;YES;A\n");
    chmod(group_list.c_str(), 0);
    EXPECT_EQ(outputOf(readGroup).err, "alarmd: " + group_list + ": Permission denied\n");
    expectNothingLoaded();
}

TEST_F(GroupsTest, EmptyAndBinaryCsvFilesDoNoHarm) {
    EXPECT_EQ(loadCsv("").err, "");
    expectNothingLoaded();
    loadCsv(binaryBytes());
}

TEST_F(GroupsTest, AByteOrderMarkBelongsToTheHeader) {
    loadCsv(std::string(kByteOrderMark) + "h\n1;2;YES;A\n");
    expectGroup(1, "A", 2, 1);
}

TEST_F(GroupsTest, TheCarriageReturnOfACrLfFileBelongsToTheLastColumn) {
    loadCsv("h\r\n1;2;YES;A\r\n2;3;YES;B;\r\n");
    expectGroup(1, "A\r", 2, 1);
    expectGroup(2, "B", 3, 1);
}

TEST_F(GroupsTest, InvalidUtf8PassesThroughUnchanged) {
    loadCsv("h\n1;2;YES;\xC3\x28\xFF\n");
    expectGroup(1, "\xC3\x28\xFF", 2, 1);
}

TEST_F(GroupsTest, JsonObjectsSetTheirGroups) {
    const Output output = loadJson(R"([
        {"groupNo": 0, "name": "Boilers", "reportingMaxSeverity": 3, "reporting": true},
        {"groupNo": 1, "name": "Pumps", "reportingMaxSeverity": 1, "reporting": false}])");
    expectGroup(0, "Boilers", 3, 1);
    expectGroup(1, "Pumps", 1, 0);
    EXPECT_EQ(output.out, "Nacitam groups.json\n");
    EXPECT_EQ(output.err, "");
}

TEST_F(GroupsTest, AJsonObjectWithNumberAndNameOnlyResetsTheRest) {
    loadJson(R"([{"groupNo": 5, "name": "A", "reportingMaxSeverity": 3, "reporting": true}])");
    loadJson(R"([{"groupNo": 5, "name": "B"}])");
    expectGroup(5, "B", 0, 0);
}

TEST_F(GroupsTest, AJsonObjectWithoutNumberMeansGroupZero) {
    loadJson(R"([{"name": "A", "reportingMaxSeverity": 4}])");
    expectGroup(0, "A", 4, 0);
}

TEST_F(GroupsTest, AJsonNumberOutsideTheGroupsIsToldAndIgnored) {
    const Output output =
        loadJson(R"([{"groupNo": 12, "name": "A"}, {"groupNo": -1}, {"groupNo": 11, "name": "B"}])");
    EXPECT_EQ(output.err,
              "alarmd: " + group_list_json + ", element 1: group 12 is not within 0 to 11, ignored\n" +
                  "alarmd: " + group_list_json + ", element 2: group -1 is not within 0 to 11, ignored\n");
    expectGroup(11, "B", 0, 0);
}

TEST_F(GroupsTest, AnElementOfAWrongTypeIsToldAndTheOthersAreLoaded) {
    const Output output = loadJson(R"([{"groupNo": "1", "name": "A"}, 7, {"groupNo": 3000000000},
        {"groupNo": 2, "name": ["x"]}, {"groupNo": 3, "name": "B", "reporting": "yes"}, {"groupNo": 4, "name": "C"}])");
    EXPECT_EQ(linesIn(output.err), 5U) << output.err;
    const std::string file = "alarmd: " + group_list_json;
    EXPECT_NE(output.err.find(
                  file + ", element 1: \"groupNo\": Value is not convertible to Int. (element left out)\n"),
              std::string::npos)
        << output.err;
    EXPECT_NE(output.err.find(file + ", element 2: not an object (element left out)\n"), std::string::npos);
    EXPECT_NE(output.err.find(file + ", element 3: \"groupNo\": "), std::string::npos);
    EXPECT_NE(output.err.find(file + ", element 4: \"name\": "), std::string::npos);
    EXPECT_NE(output.err.find(file + ", element 5: \"reporting\": "), std::string::npos);
    expectGroup(4, "C", 0, 0);
    for (const int number : {0, 1, 2, 3}) expectGroup(number, "", 0, 0);
}

TEST_F(GroupsTest, ADocumentThatIsNoArrayIsToldAndChangesNothing) {
    for (const char* text : {"{}", "{\"groupNo\": 1}", "7", "\"x\"", "null"}) {
        const Output output = loadJson(text);
        EXPECT_EQ(output.out, "Nacitam groups.json\n");
        EXPECT_EQ(output.err, "alarmd: " + group_list_json +
                                  ": the document is not an array, nothing is taken from it\n");
    }
    expectNothingLoaded();
}

TEST_F(GroupsTest, TextThatIsNoJsonIsToldWithTheParsersMessages) {
    const Output output = loadJson("[{\"groupNo\": }]");
    EXPECT_EQ(output.out, std::string(kParseError) +
                              "* Line 1, Column 14\n  Syntax error: value, object or array expected.\n\n");
    EXPECT_EQ(output.err, "");
}

TEST_F(GroupsTest, AMissingFileOrAFolderIsAParseError) {
    const std::string expected =
        std::string(kParseError) + "* Line 1, Column 1\n  Syntax error: value, object or array expected.\n\n";
    group_list_json = folder_.in("none.json");
    EXPECT_EQ(outputOf(readGroupJson).out, expected);
    group_list_json = folder_.folder("groups.json");
    EXPECT_EQ(outputOf(readGroupJson).out, expected);
    EXPECT_EQ(loadJson("").out, expected);
    EXPECT_EQ(loadJson(std::string(kByteOrderMark) + "[]").out, expected);
}

TEST_F(GroupsTest, JsonCutAtAnyByteChangesNothing) {
    const std::string text =
        R"([{"groupNo": 1, "name": "A\u00e1", "reportingMaxSeverity": 3, "reporting": true}])";
    for (size_t length = 0; length < text.size(); ++length) {
        const Output output = loadJson(std::string_view(text).substr(0, length));
        EXPECT_EQ(output.out.substr(0, sizeof kParseError - 1), kParseError) << length;
    }
    expectNothingLoaded();
    loadJson(text);
    expectGroup(1, "A\xC3\xA1", 3, 1);
}

TEST_F(GroupsTest, BinaryAndCrLfJsonDoNoHarm) {
    EXPECT_EQ(loadJson(binaryBytes()).out.substr(0, sizeof kParseError - 1), kParseError);
    loadJson("[\r\n{\"groupNo\": 1,\r\n\"name\": \"A\"}\r\n]\r\n");
    expectGroup(1, "A", 0, 0);
}

TEST_F(GroupsTest, NestingTooDeepIsAParseError) {
    EXPECT_EQ(loadJson(std::string(100000, '[')).out.substr(0, sizeof kParseError - 1), kParseError);
    expectNothingLoaded();
}

}  // namespace
