#include "alarmd/project/texts.h"

#include <random>
#include <thread>

#include "tests/support/project_files.h"

namespace {

using Translations = std::vector<_translate>;

class TextsTest : public ProjectTest {
  protected:
    static void put(int key, const _alarm_def& definition) {
        MutexLock lock(project_mutex);
        alarm_def_map[key] = definition;
        definitionsChanged();
    }

    static _alarm_def make(int id, const std::string& message, const Translations& langs = {}) {
        _alarm_def definition;
        definition.id = id;
        definition.message = message;
        definition.messageLangs = langs;
        return definition;
    }

    static std::string message(int id, const std::string& lang) {
        return getTextForLangs(id, lang).messageLangs;
    }
};

TEST_F(TextsTest, ATranslationWinsOverTheDefaultText) {
    put(12, make(12, "M", {{"cs", "T1"}, {"en", "T2"}}));
    EXPECT_EQ(message(12, "cs"), "T1");
    EXPECT_EQ(message(12, "en"), "T2");
    EXPECT_EQ(message(12, "de"), "M");
    EXPECT_EQ(message(12, "default"), "M");
    EXPECT_EQ(message(12, ""), "M");
}

TEST_F(TextsTest, ATranslationCanBeCalledDefault) {
    put(12, make(12, "M", {{"default", "D"}}));
    EXPECT_EQ(message(12, "default"), "D");
}

TEST_F(TextsTest, TheLanguageIsComparedByteForByte) {
    put(12, make(12, "M", {{"en", "T"}}));
    EXPECT_EQ(message(12, "EN"), "M");
    EXPECT_EQ(message(12, "en "), "M");
    EXPECT_EQ(message(12, "e"), "M");
}

TEST_F(TextsTest, TheThreeTextsAreChosenIndependently) {
    _alarm_def definition = make(1, "M", {{"cs", "Zprava"}});
    definition.device = "Device";
    definition.deviceLangs = {{"de", "Anlage"}};
    definition.area = "Area";
    definition.areaLangs = {{"cs", "Oblast"}, {"de", "Bereich"}};
    put(1, definition);
    const _langs texts = getTextForLangs(1, "de");
    EXPECT_EQ(texts.deviceLangs, "Anlage");
    EXPECT_EQ(texts.messageLangs, "M");
    EXPECT_EQ(texts.areaLangs, "Bereich");
}

TEST_F(TextsTest, AnEmptyDefaultWithoutTranslationGivesAnEmptyText) {
    put(1, make(1, "M"));
    EXPECT_EQ(getTextForLangs(1, "cs").deviceLangs, "");
}

TEST_F(TextsTest, AnEmptyTranslationGivesTheDefaultText) {
    put(1, make(1, "M", {{"cs", ""}}));
    EXPECT_EQ(message(1, "cs"), "M");
}

TEST_F(TextsTest, TheLastOfSeveralTranslationsWins) {
    put(1, make(1, "M", {{"cs", "first"}, {"en", "x"}, {"cs", "last"}}));
    EXPECT_EQ(message(1, "cs"), "last");
    put(1, make(1, "M", {{"cs", "first"}, {"cs", ""}}));
    EXPECT_EQ(message(1, "cs"), "M");
}

TEST_F(TextsTest, AnUnknownIdGivesThreeEmptyTexts) {
    put(1, make(1, "M"));
    for (const int id : {2, 0, -1, 2000000000}) {
        const _langs texts = getTextForLangs(id, "cs");
        EXPECT_EQ(texts.deviceLangs + texts.messageLangs + texts.areaLangs, "") << id;
    }
    EXPECT_EQ(definitionCount(), 2U);
}

TEST_F(TextsTest, DefinitionsFromCsvAnswerToNoIdButZero) {
    std::string text = "h\n";
    for (const char* id : {"1", "2"}) {
        text += std::string("1;Area;M") + id +
                ";Dev;t;5;6;7;8;9;10;11;NO;NO;NO;NO;NO;NO;NO;NO;NO;NO;NO;NO;NO;NO;" + id + "\n";
    }
    cas_list = folder_.write("cas.csv", text);
    outputOf(readAlarmDef);
    EXPECT_EQ(message(1, "cs"), "");
    EXPECT_EQ(message(2, "cs"), "");
    EXPECT_EQ(message(0, "cs"), "M1");
}

TEST_F(TextsTest, OneCallForIds5And100Leaves101Keys) {
    put(5, make(5, "A"));
    put(100, make(100, "B"));
    EXPECT_EQ(message(100, "cs"), "B");
    EXPECT_EQ(definitionCount(), 101U);
}

TEST_F(TextsTest, ALaterRecordWithTheSameIdAddsToWhatTheFirstGave) {
    put(1, make(7, "First"));
    put(2, make(7, "Second", {{"cs", "T"}}));
    EXPECT_EQ(message(7, "cs"), "T");
    EXPECT_EQ(message(7, "en"), "First");
}

TEST_F(TextsTest, DefinitionsBeyondTheFilledKeysAreFound) {
    put(2000000000, make(2000000000, "Far", {{"cs", "Daleko"}}));
    EXPECT_EQ(message(2000000000, "cs"), "Daleko");
    EXPECT_EQ(message(2000000000, "en"), "Far");
    EXPECT_EQ(definitionCount(), 1U);
}

TEST_F(TextsTest, NegativeKeysAreNeverFound) {
    put(-5, make(-5, "N"));
    put(3, make(3, "M"));
    EXPECT_EQ(message(-5, "cs"), "");
    EXPECT_EQ(message(3, "cs"), "M");
    EXPECT_EQ(definitionCount(), 5U);
}

// The walk over all records, with no shortcut.
std::string plainWalk(const std::map<int, _alarm_def>& definitions, int id, const std::string& lang) {
    std::string result;
    for (const auto& [key, definition] : definitions) {
        if (key < 0 || definition.id != id) continue;
        for (const _translate& translation : definition.messageLangs) {
            if (translation.lang == lang) result = translation.text;
        }
        if (result.empty()) result = definition.message;
    }
    return result;
}

TEST_F(TextsTest, TheTextsAreThoseOfAPlainWalkOverAllRecords) {
    std::mt19937 random(1);
    const auto upTo = [&](int limit) {
        return static_cast<int>(random() % static_cast<unsigned>(limit + 1));
    };
    const std::string languages[] = {"cs", "en", "de"};
    for (int round = 0; round < 300; ++round) {
        resetDaemonState();
        std::map<int, _alarm_def> all;
        for (int entry = 0; entry < 12; ++entry) {
            _alarm_def definition = make(upTo(2), upTo(1) == 0 ? "" : "D" + std::to_string(entry));
            for (int i = upTo(3); i > 0; --i) {
                definition.messageLangs.push_back(
                    {languages[upTo(2)],
                     upTo(2) == 0 ? "" : "T" + std::to_string(entry) + std::to_string(i)});
            }
            const int key = upTo(20) - 2;
            all[key] = definition;
            put(key, definition);
        }
        for (int id = 0; id <= 2; ++id) {
            for (const char* lang : {"cs", "en", "de", "fr"}) {
                ASSERT_EQ(message(id, lang), plainWalk(all, id, lang))
                    << "round " << round << " id " << id << lang;
            }
        }
    }
}

TEST_F(TextsTest, TwoThreadsMayLookUpWhileAReloadRuns) {
    std::string text = "[";
    for (int id = 1; id <= 60; ++id) {
        text += (id == 1 ? "" : ",") + ("{\"id\":" + std::to_string(id * 3)) +
                ",\"message\":\"M\",\"messageLangs\":{\"cs\":\"T\"}}";
    }
    cas_list_json = folder_.write("cas.json", text + "]");
    std::string rows = "h\n";
    for (int id = 1; id <= 2100; ++id) {
        rows += "1;A;M;D;t;5;6;7;8;9;10;11;NO;NO;NO;NO;NO;NO;NO;NO;NO;NO;NO;NO;NO;NO;" + std::to_string(id) +
                "\n";
    }
    cas_list = folder_.write("cas.csv", rows);
    testing::internal::CaptureStdout();
    std::atomic<bool> done{false};
    std::atomic<int> wrong{0};
    const auto look = [&] {
        while (!done) {
            const std::string found = message(30, "cs");
            if (found != "T" && !found.empty()) ++wrong;
        }
    };
    std::thread first(look);
    std::thread second(look);
    for (int i = 0; i < 10; ++i) {
        readAlarmDefJson();
        readAlarmDef();
    }
    done = true;
    first.join();
    second.join();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(wrong, 0);
}

}  // namespace
