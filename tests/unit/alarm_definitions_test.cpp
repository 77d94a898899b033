#include "alarmd/project/alarm_definitions.h"

#include "alarmd/project/texts.h"
#include "tests/support/project_files.h"

namespace {

const char kParseError[] = "Nacitam cas.json\nFailed to JSON parse cas.json\n";
const char kHeader[] = "severity;area;message;device;tag;...\n";

// A CSV line with the given e-mail and SMS columns, in group 0 only.
std::string row(const std::string& severity, const std::string& message, const std::string& flags,
                const std::string& id) {
    return severity + ";Area;" + message + ";Device;tag1;5;6;7;8;9;10;11;" + flags +
           ";YES;NO;NO;NO;NO;NO;NO;NO;NO;NO;" + id + "\n";
}

class AlarmDefinitionsTest : public ProjectTest {
  protected:
    Output loadCsv(const std::string& bytes) {
        cas_list = folder_.write("cas.csv", bytes);
        return outputOf(readAlarmDef);
    }

    Output loadJson(std::string_view bytes) {
        cas_list_json = folder_.write("cas.json", bytes);
        return outputOf(readAlarmDefJson);
    }

    static std::vector<std::string> messagesWithId(int id) {
        MutexLock lock(project_mutex);
        std::vector<std::string> messages;
        for (const _alarm_def* definition : definitionsWithId(id)) messages.push_back(definition->message);
        return messages;
    }

    static size_t fillGaps() {
        MutexLock lock(project_mutex);
        fillDefinitionGaps();
        return alarm_def_map.size();
    }

    static void put(int key, int id, const std::string& message) {
        MutexLock lock(project_mutex);
        alarm_def_map[key].id = id;
        alarm_def_map[key].message = message;
        definitionsChanged();
    }
};

const char kExample[] = R"([{"id": 12, "group": [true, false, true], "severity": 2,
    "area": "Area", "message": "Message", "device": "Device", "tag": "tag1",
    "areaLangs": {"cs": "Oblast"}, "messageLangs": {"en": "Msg", "cs": "Zprava"}, "deviceLangs": {"de": "Anlage"},
    "email": true, "smsAct": true, "smsDeact": false, "smsAck": false}])";

TEST_F(AlarmDefinitionsTest, ACsvLineDefinesSeverityTextsFlagsAndGroup) {
    const Output output = loadCsv(kHeader + row("2", "Message", "YES;YES;NO;YES", "12"));
    const _alarm_def loaded = definition(12);
    EXPECT_EQ(loaded.severity, 2);
    EXPECT_EQ(loaded.area, "Area");
    EXPECT_EQ(loaded.message, "Message");
    EXPECT_EQ(loaded.device, "Device");
    EXPECT_EQ(loaded.tag, "tag1");
    EXPECT_TRUE(loaded.email);
    EXPECT_TRUE(loaded.smsact);
    EXPECT_FALSE(loaded.smsdeact);
    EXPECT_TRUE(loaded.smsack);
    EXPECT_EQ(idsOf(0), std::vector<int>{12});
    for (int group = 1; group < kGroups; ++group) EXPECT_TRUE(idsOf(group).empty()) << group;
    EXPECT_EQ(output.out, "Nacitam cas.csv\nPrse file cas.csv\n");
    EXPECT_EQ(output.err, "");
}

TEST_F(AlarmDefinitionsTest, ADefinitionFromCsvCarriesNoIdAndNoTranslations) {
    loadCsv(kHeader + row("2", "Message", "YES;YES;NO;YES", "12"));
    EXPECT_EQ(definition(12).id, 0);
    EXPECT_TRUE(definition(12).areaLangs.empty());
    EXPECT_TRUE(definition(12).messageLangs.empty());
    EXPECT_TRUE(definition(12).deviceLangs.empty());
}

TEST_F(AlarmDefinitionsTest, EveryGroupColumnAddsTheIdToItsGroup) {
    loadCsv(
        "h\n1;A;M;D;t;5;6;7;8;9;10;11;NO;NO;NO;NO;YES;YES;YES;YES;YES;YES;YES;YES;YES;YES;7;more;columns\n");
    for (int group = 0; group < kNotifiedGroups; ++group)
        EXPECT_EQ(idsOf(group), std::vector<int>{7}) << group;
    EXPECT_TRUE(idsOf(10).empty());
    EXPECT_TRUE(idsOf(11).empty());
}

TEST_F(AlarmDefinitionsTest, ALineWithAnEmptyFieldHas26FieldsAndIsSkipped) {
    const Output output = loadCsv(kHeader + row("2", "", "YES;YES;NO;YES", "12"));
    EXPECT_EQ(definitionCount(), 0U);
    EXPECT_TRUE(idsOf(0).empty());
    EXPECT_EQ(output.err, "");
}

TEST_F(AlarmDefinitionsTest, AFileWithAHeaderOnlyEmptiesGroupsZeroToNine) {
    {
        MutexLock lock(project_mutex);
        for (_group& group : list_group) group.alarm_ids = {5};
    }
    loadCsv(row("2", "Message", "YES;YES;NO;YES", "12"));
    EXPECT_EQ(definitionCount(), 0U);
    for (int group = 0; group < kNotifiedGroups; ++group) EXPECT_TRUE(idsOf(group).empty()) << group;
    EXPECT_EQ(idsOf(10), std::vector<int>{5});
    EXPECT_EQ(idsOf(11), std::vector<int>{5});
}

TEST_F(AlarmDefinitionsTest, AMissingCsvFileEmptiesGroupsZeroToNineToo) {
    {
        MutexLock lock(project_mutex);
        for (_group& group : list_group) group.alarm_ids = {5};
    }
    cas_list = folder_.in("none.csv");
    EXPECT_EQ(outputOf(readAlarmDef).out, "Nacitam cas.csv\nFile cas.csv not exist!\n");
    EXPECT_TRUE(idsOf(9).empty());
    EXPECT_EQ(idsOf(10), std::vector<int>{5});
}

TEST_F(AlarmDefinitionsTest, LowerCaseYesMeansFalse) {
    loadCsv(kHeader + row("2", "Message", "yes;Yes;YES ;YES", "12"));
    EXPECT_FALSE(definition(12).email);
    EXPECT_FALSE(definition(12).smsact);
    EXPECT_FALSE(definition(12).smsdeact);
    EXPECT_TRUE(definition(12).smsack);
}

TEST_F(AlarmDefinitionsTest, OfTwoCsvLinesWithOneIdTheSecondWinsAndTheIdIsListedTwice) {
    loadCsv(kHeader + row("2", "First", "YES;YES;YES;YES", "12") + row("3", "Second", "NO;NO;NO;NO", "12"));
    EXPECT_EQ(definition(12).message, "Second");
    EXPECT_EQ(definition(12).severity, 3);
    EXPECT_FALSE(definition(12).smsack);
    EXPECT_EQ(idsOf(0), (std::vector<int>{12, 12}));
}

TEST_F(AlarmDefinitionsTest, AReloadFromCsvListsIdsOnceAndKeepsDefinitionsThatAreGone) {
    loadCsv(kHeader + row("2", "Old", "NO;NO;NO;NO", "1") + row("2", "Gone", "NO;NO;NO;NO", "2"));
    loadCsv(kHeader + row("2", "New", "NO;NO;NO;NO", "1"));
    EXPECT_EQ(definition(1).message, "New");
    EXPECT_EQ(definition(2).message, "Gone");
    EXPECT_EQ(idsOf(0), std::vector<int>{1});
}

TEST_F(AlarmDefinitionsTest, NumbersThatAreNoneAreZeroAndHugeOnesStayInRange) {
    loadCsv(kHeader + row("x", "A", "NO;NO;NO;NO", "y") +
            row("-99999999999", "B", "NO;NO;NO;NO", "99999999999") + row("1", "C", "NO;NO;NO;NO", "-7"));
    EXPECT_EQ(definition(0).message, "A");
    EXPECT_EQ(definition(2147483647).message, "B");
    EXPECT_EQ(definition(2147483647).severity, -2147483647 - 1);
    EXPECT_EQ(definition(-7).message, "C");
}

TEST_F(AlarmDefinitionsTest, TheIdColumnOfACrLfFileTakesNoHarm) {
    std::string text = kHeader + row("2", "M", "YES;NO;NO;NO", "12");
    for (size_t i = text.find('\n'); i != std::string::npos; i = text.find('\n', i + 2))
        text.replace(i, 1, "\r\n");
    loadCsv(text);
    EXPECT_EQ(definition(12).message, "M");
    EXPECT_EQ(idsOf(0), std::vector<int>{12});
}

TEST_F(AlarmDefinitionsTest, ALastLineWithoutALineFeedCounts) {
    std::string text = kHeader + row("2", "M", "YES;NO;NO;NO", "12");
    text.pop_back();
    loadCsv(text);
    EXPECT_EQ(definition(12).message, "M");
}

TEST_F(AlarmDefinitionsTest, BinaryEmptyAndMarkedCsvFilesDoNoHarm) {
    EXPECT_EQ(loadCsv("").err, "");
    EXPECT_EQ(loadCsv(binaryBytes()).out, "Nacitam cas.csv\nPrse file cas.csv\n");
    loadCsv(std::string(kByteOrderMark) + kHeader + row("2", "\xC3\x28", "YES;NO;NO;NO", "12"));
    EXPECT_EQ(definition(12).message, "\xC3\x28");
}

TEST_F(AlarmDefinitionsTest, AZeroByteEndsTheLinesText) {
    std::string text = row("2", "M", "YES;NO;NO;NO", "12");
    text[text.find("YES")] = '\0';
    loadCsv(kHeader + text + row("2", "M", "YES;NO;NO;NO", "13"));
    EXPECT_FALSE(hasDefinition(12));
    EXPECT_TRUE(hasDefinition(13));
}

TEST_F(AlarmDefinitionsTest, AFolderInTheCsvFilesPlaceEndsWithALine) {
    cas_list = folder_.folder("cas.csv");
    const Output output = outputOf(readAlarmDef);
    EXPECT_EQ(output.out, "Nacitam cas.csv\nPrse file cas.csv\n");
    EXPECT_EQ(output.err, "alarmd: " + cas_list + ": Is a directory\n");
}

TEST_F(AlarmDefinitionsTest, AnUnreadableCsvFileEndsWithALine) {
    if (geteuid() == 0) GTEST_SKIP() << "root reads every file";
    cas_list = folder_.write("cas.csv", kHeader);
    chmod(cas_list.c_str(), 0);
    EXPECT_EQ(outputOf(readAlarmDef).err, "alarmd: " + cas_list + ": Permission denied\n");
}

TEST_F(AlarmDefinitionsTest, AGiantLineIsPassedOver) {
    std::string text = kHeader;
    while (text.size() < 20U << 20) text += "some;text;";
    text += "\n" + row("2", "M", "YES;NO;NO;NO", "12");
    const Output output = loadCsv(text);
    EXPECT_EQ(output.err, "alarmd: " + cas_list + ", line 2: longer than 1048576 bytes, ignored\n");
    EXPECT_EQ(definition(12).message, "M");
    EXPECT_EQ(definitionCount(), 1U);
}

TEST_F(AlarmDefinitionsTest, AFileOfManyBatchesIsLoadedWholeAndInOrder) {
    std::string text = kHeader;
    for (int id = 2500; id > 0; --id)
        text += row("1", "M" + std::to_string(id), "NO;NO;NO;NO", std::to_string(id));
    loadCsv(text);
    EXPECT_EQ(definitionCount(), 2500U);
    const std::vector<int> ids = idsOf(0);
    ASSERT_EQ(ids.size(), 2500U);
    for (int i = 0; i < 2500; ++i) ASSERT_EQ(ids[static_cast<size_t>(i)], 2500 - i);
    EXPECT_EQ(definition(1000).message, "M1000");
}

TEST_F(AlarmDefinitionsTest, AJsonObjectDefinesAllFields) {
    const Output output = loadJson(kExample);
    const _alarm_def loaded = definition(12);
    EXPECT_EQ(loaded.id, 12);
    EXPECT_EQ(loaded.severity, 2);
    EXPECT_EQ(loaded.area, "Area");
    EXPECT_EQ(loaded.message, "Message");
    EXPECT_EQ(loaded.device, "Device");
    EXPECT_EQ(loaded.tag, "tag1");
    EXPECT_TRUE(loaded.email);
    EXPECT_TRUE(loaded.smsact);
    EXPECT_FALSE(loaded.smsdeact);
    EXPECT_FALSE(loaded.smsack);
    EXPECT_EQ(idsOf(0), std::vector<int>{12});
    EXPECT_TRUE(idsOf(1).empty());
    EXPECT_EQ(idsOf(2), std::vector<int>{12});
    EXPECT_EQ(output.out, "Nacitam cas.json\n");
    EXPECT_EQ(output.err, "");
}

TEST_F(AlarmDefinitionsTest, TranslationsComeInTheByteOrderOfTheirLanguages) {
    loadJson(kExample);
    const _alarm_def loaded = definition(12);
    ASSERT_EQ(loaded.messageLangs.size(), 2U);
    EXPECT_EQ(loaded.messageLangs[0].lang, "cs");
    EXPECT_EQ(loaded.messageLangs[0].text, "Zprava");
    EXPECT_EQ(loaded.messageLangs[1].lang, "en");
    EXPECT_EQ(loaded.messageLangs[1].text, "Msg");
    ASSERT_EQ(loaded.areaLangs.size(), 1U);
    EXPECT_EQ(loaded.areaLangs[0].text, "Oblast");
    ASSERT_EQ(loaded.deviceLangs.size(), 1U);
    EXPECT_EQ(loaded.deviceLangs[0].lang, "de");
}

TEST_F(AlarmDefinitionsTest, AJsonObjectWithoutGroupBelongsToNone) {
    loadJson(R"([{"id": 3, "message": "M"}])");
    EXPECT_EQ(definition(3).message, "M");
    for (int group = 0; group < kGroups; ++group) EXPECT_TRUE(idsOf(group).empty()) << group;
}

TEST_F(AlarmDefinitionsTest, AJsonObjectWithoutIdIsStoredUnderZero) {
    loadJson(R"([{"message": "M", "group": [true]}])");
    EXPECT_EQ(definition(0).message, "M");
    EXPECT_EQ(idsOf(0), std::vector<int>{0});
}

TEST_F(AlarmDefinitionsTest, GroupsTenAndElevenTakeIdsFromJsonAndTwelveDoesNotExist) {
    const Output output = loadJson(
        R"([{"id": 1, "group": [0,0,0,0,0,0,0,0,0,0,true,true,true,true]}, {"id": 2, "group": [0,0,0,0,0,0,0,0,0,0,0,0,0]}])");
    EXPECT_EQ(idsOf(10), std::vector<int>{1});
    EXPECT_EQ(idsOf(11), std::vector<int>{1});
    EXPECT_EQ(output.err,
              "alarmd: " + cas_list_json + ", element 1: group 12 is not within 0 to 11, ignored\n");
    EXPECT_TRUE(hasDefinition(1));
    EXPECT_TRUE(hasDefinition(2));
}

TEST_F(AlarmDefinitionsTest, AReloadFromJsonListsTheIdsASecondTime) {
    loadJson(kExample);
    loadJson(kExample);
    EXPECT_EQ(idsOf(0), (std::vector<int>{12, 12}));
    EXPECT_EQ(definitionCount(), 1U);
}

TEST_F(AlarmDefinitionsTest, TheWorkingRecordKeepsTheLastJsonObject) {
    loadJson(R"([{"id": 1, "message": "A"}, {"id": 2, "message": "B", "messageLangs": {"cs": "C"}}])");
    EXPECT_EQ(alarm_def.id, 2);
    EXPECT_EQ(alarm_def.message, "B");
    ASSERT_EQ(alarm_def.messageLangs.size(), 1U);
    EXPECT_EQ(definition(2).message, "B");
}

TEST_F(AlarmDefinitionsTest, CsvAfterJsonCarriesIdAndTranslationsOfTheLastJsonObject) {
    loadJson(kExample);
    loadCsv(kHeader + row("1", "From CSV", "NO;NO;NO;NO", "5"));
    const _alarm_def loaded = definition(5);
    EXPECT_EQ(loaded.id, 12);
    EXPECT_EQ(loaded.message, "From CSV");
    ASSERT_EQ(loaded.messageLangs.size(), 2U);
    EXPECT_EQ(loaded.messageLangs[0].text, "Zprava");
    // Both records carry the id 12 now. The default text of key 5 comes first.
    EXPECT_EQ(getTextForLangs(12, "fr").messageLangs, "From CSV");
    EXPECT_EQ(getTextForLangs(12, "cs").messageLangs, "Zprava");
    EXPECT_EQ(getTextForLangs(5, "fr").messageLangs, "");
}

TEST_F(AlarmDefinitionsTest, AnElementOfAWrongTypeIsToldAndTheOthersAreLoaded) {
    const Output output = loadJson(R"([{"id": "1"}, 5, {"id": 3, "group": ["x"]},
        {"id": 4, "areaLangs": ["x"]}, {"id": 5, "areaLangs": {"cs": []}}, {"id": 6, "email": "x"},
        {"id": 3000000000}, {"id": 9, "message": "M", "areaLangs": [], "group": null}])");
    const std::string file = "alarmd: " + cas_list_json + ", element ";
    EXPECT_EQ(linesIn(output.err), 7U) << output.err;
    EXPECT_NE(output.err.find(file + "1: \"id\": Value is not convertible to Int. (element left out)\n"),
              std::string::npos);
    EXPECT_NE(output.err.find(file + "2: not an object (element left out)\n"), std::string::npos);
    EXPECT_NE(output.err.find(file + "3: \"group\": Value is not convertible to bool. (element left out)\n"),
              std::string::npos);
    EXPECT_NE(output.err.find(file + "4: \"areaLangs\": not an object (element left out)\n"),
              std::string::npos);
    EXPECT_NE(
        output.err.find(file + "5: \"areaLangs\": Type is not convertible to string (element left out)\n"),
        std::string::npos);
    EXPECT_NE(output.err.find(file + "6: \"email\": "), std::string::npos);
    EXPECT_NE(output.err.find(file + "7: \"id\": "), std::string::npos);
    EXPECT_EQ(definitionCount(), 1U);
    EXPECT_EQ(definition(9).message, "M");
}

TEST_F(AlarmDefinitionsTest, ADefinitionWhoseGroupIsNoArrayIsToldAndStoredWithoutGroups) {
    const Output output = loadJson(R"([{"id": 1, "group": "x", "message": "M", "email": true},
        {"id": 2, "group": true}, {"id": 3, "group": {"0": true}}, {"id": 4, "group": {}}, {"id": 5, "group": 7},
        {"id": 6, "group": ""}, {"id": 7, "group": null}, {"id": 8}, {"id": 9, "group": []}, {"id": 10, "group": [true]}])");
    std::string remarks;
    for (int element = 1; element <= 6; ++element) {
        remarks += "alarmd: " + cas_list_json + ", element " + std::to_string(element) +
                   ": \"group\" is ignored: not an array\n";
    }
    EXPECT_EQ(output.err, remarks);
    EXPECT_EQ(definitionCount(), 10U);
    EXPECT_EQ(definition(1).message, "M");
    EXPECT_TRUE(definition(1).email);
    EXPECT_EQ(idsOf(0), std::vector<int>{10});
    for (int group = 1; group < kGroups; ++group) EXPECT_EQ(idsOf(group), std::vector<int>{});
}

TEST_F(AlarmDefinitionsTest, ADocumentThatIsNoArrayIsToldAndChangesNothing) {
    loadJson(kExample);
    const Output output = loadJson("{\"id\": 1}");
    EXPECT_EQ(output.out, "Nacitam cas.json\n");
    EXPECT_EQ(output.err,
              "alarmd: " + cas_list_json + ": the document is not an array, nothing is taken from it\n");
    EXPECT_EQ(definitionCount(), 1U);
    EXPECT_EQ(idsOf(0), std::vector<int>{12});
}

TEST_F(AlarmDefinitionsTest, JsonCutAtAnyByteChangesNothing) {
    const std::string text = kExample;
    for (size_t length = 0; length < text.size(); ++length) {
        const Output output = loadJson(std::string_view(text).substr(0, length));
        EXPECT_EQ(output.out.substr(0, sizeof kParseError - 1), kParseError) << length;
        EXPECT_EQ(output.err, "") << length;
    }
    EXPECT_EQ(definitionCount(), 0U);
}

TEST_F(AlarmDefinitionsTest, AMissingFileAFolderOrAMarkedFileIsAParseError) {
    const std::string expected =
        std::string(kParseError) + "* Line 1, Column 1\n  Syntax error: value, object or array expected.\n\n";
    cas_list_json = folder_.in("none.json");
    EXPECT_EQ(outputOf(readAlarmDefJson).out, expected);
    cas_list_json = folder_.folder("cas.json");
    EXPECT_EQ(outputOf(readAlarmDefJson).out, expected);
    EXPECT_EQ(loadJson(std::string(kByteOrderMark) + "[]").out, expected);
    EXPECT_EQ(loadJson(binaryBytes()).out.substr(0, sizeof kParseError - 1), kParseError);
}

TEST_F(AlarmDefinitionsTest, InvalidUtf8AndZeroBytesInJsonTextsPassThrough) {
    loadJson("[{\"id\": 1, \"message\": \"a\xC3(\xFF\", \"area\": \"x\\u0000y\"}]");
    EXPECT_EQ(definition(1).message, "a\xC3(\xFF");
    EXPECT_EQ(definition(1).area, std::string("x\0y", 3));
}

TEST_F(AlarmDefinitionsTest, NothingIsPrintedWithoutDebugLevel) {
    put(5, 5, "M");
    const Output output = outputOf(printAlarmDefJson);
    EXPECT_EQ(output.out, "");
    EXPECT_EQ(definitionCount(), 1U);
}

TEST_F(AlarmDefinitionsTest, ThePrintoutOfKeys5And100ShowsTwoDefinitionsAndLeaves101Keys) {
    put(5, 5, "Five");
    put(100, 100, "Hundred");
    dbglev = 1;
    const Output output = outputOf(printAlarmDefJson);
    EXPECT_EQ(output.out,
              "--------ALARM TAG DEFINITION----------\n"
              "Alarm ID: 5\t Tag alarm: \n-> Default [message]: \tFive\n-> Default [area]: \t\n"
              "-> Default [device]: \t\n"
              "Alarm ID: 100\t Tag alarm: \n-> Default [message]: \tHundred\n-> Default [area]: \t\n"
              "-> Default [device]: \t\n"
              "--------------------------------------\n");
    EXPECT_EQ(definitionCount(), 101U);
    EXPECT_TRUE(hasDefinition(0));
    EXPECT_TRUE(hasDefinition(99));
    EXPECT_EQ(definition(99).id, 0);
}

TEST_F(AlarmDefinitionsTest, ThePrintoutShowsMessageAreaAndDeviceTranslationsInThisOrder) {
    loadJson(kExample);
    dbglev = 1;
    const Output output = outputOf(printAlarmDefJson);
    EXPECT_EQ(output.out,
              "--------ALARM TAG DEFINITION----------\n"
              "Alarm ID: 12\t Tag alarm: tag1\n-> Default [message]: \tMessage\n-> Default [area]: \tArea\n"
              "-> Default [device]: \tDevice\n"
              "-> cs [message]\tZprava\n-> en [message]\tMsg\n-> cs [area]\tOblast\n-> de [area]\tAnlage\n"
              "--------------------------------------\n");
    EXPECT_EQ(definitionCount(), 13U);
}

TEST_F(AlarmDefinitionsTest, DefinitionsWithoutAnIdInTheRecordAreNotPrinted) {
    loadCsv(kHeader + row("1", "M", "NO;NO;NO;NO", "2"));
    dbglev = 1;
    EXPECT_EQ(outputOf(printAlarmDefJson).out,
              "--------ALARM TAG DEFINITION----------\n--------------------------------------\n");
    EXPECT_EQ(definitionCount(), 3U);
}

TEST_F(AlarmDefinitionsTest, GapsAreFilledFromZeroToTheLargestKey) {
    EXPECT_EQ(fillGaps(), 0U);
    put(5, 5, "M");
    EXPECT_EQ(fillGaps(), 6U);
    EXPECT_EQ(fillGaps(), 6U);
    put(100, 100, "M");
    EXPECT_EQ(fillGaps(), 101U);
    put(7, 7, "M");
    EXPECT_EQ(fillGaps(), 101U);
}

TEST_F(AlarmDefinitionsTest, GapsAreFilledAnewAfterTheDefinitionsAreForgotten) {
    put(100, 100, "M");
    fillGaps();
    {
        MutexLock lock(project_mutex);
        clearDefinitions();
    }
    EXPECT_EQ(fillGaps(), 0U);
    put(200, 200, "M");
    EXPECT_EQ(fillGaps(), 201U);
    EXPECT_TRUE(messagesWithId(100).empty());
    EXPECT_EQ(messagesWithId(200), std::vector<std::string>{"M"});
}

TEST_F(AlarmDefinitionsTest, HugeAndNegativeKeysFillNothingAndHugeOnesAreFound) {
    loadJson(
        R"([{"id": 2000000000, "message": "Huge"}, {"id": -3, "message": "Negative"}, {"id": 4, "message": "M"}])");
    EXPECT_EQ(fillGaps(), 7U);
    EXPECT_EQ(messagesWithId(2000000000), std::vector<std::string>{"Huge"});
    EXPECT_TRUE(messagesWithId(-3).empty());
    EXPECT_EQ(messagesWithId(4), std::vector<std::string>{"M"});
    EXPECT_TRUE(messagesWithId(5).empty());
}

TEST_F(AlarmDefinitionsTest, TheGapBeforeTheLargestFilledKeyIsFilledWhole) {
    put(kFilledKeys - 1, kFilledKeys - 1, "Last");
    put(kFilledKeys, kFilledKeys, "Beyond");
    EXPECT_EQ(fillGaps(), static_cast<size_t>(kFilledKeys) + 1);
}

TEST_F(AlarmDefinitionsTest, TheRecordsIdCountsAndNotTheKey) {
    put(3, 40, "C");
    put(1, 40, "");
    put(2, 41, "B");
    EXPECT_EQ(messagesWithId(40), std::vector<std::string>{"C"});
    EXPECT_EQ(messagesWithId(41), std::vector<std::string>{"B"});
    EXPECT_TRUE(messagesWithId(3).empty());
}

TEST_F(AlarmDefinitionsTest, OfManyRecordsWithOneIdOnlyThoseAreKeptThatDecideTexts) {
    std::string text = kHeader;
    for (int id = 1; id <= 3000; ++id)
        text += row("1", "M" + std::to_string(id), "NO;NO;NO;NO", std::to_string(id));
    loadCsv(text);
    EXPECT_EQ(messagesWithId(0), std::vector<std::string>{"M1"});
    fillGaps();
    EXPECT_EQ(messagesWithId(0), std::vector<std::string>{"M1"});
}

TEST_F(AlarmDefinitionsTest, LookingUpADefinitionInsertsAnEmptyOne) {
    put(1, 1, "M");
    MutexLock lock(project_mutex);
    EXPECT_EQ(definitionFor(1).message, "M");
    EXPECT_EQ(definitionFor(77).id, 0);
    EXPECT_EQ(alarm_def_map.size(), 2U);
    EXPECT_EQ(definitionsWithId(1).size(), 1U);
    fillDefinitionGaps();
    EXPECT_EQ(alarm_def_map.size(), 78U);
}

}  // namespace
