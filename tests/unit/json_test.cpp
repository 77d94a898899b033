#include "alarmd/base/json.h"

#include "alarmd/base/files.h"
#include "tests/support/project_files.h"

namespace {

TEST(JsonReader, ParsesADocument) {
    Json::Value root;
    std::string errors;
    ASSERT_TRUE(parseJson("{\"a\": [1, 2.5, \"x\"]}", root, errors));
    EXPECT_EQ(root["a"].size(), 3U);
    EXPECT_EQ(errors, "");
}

TEST(JsonReader, CommentsAreAcceptedAndNotCollected) {
    Json::Value root;
    std::string errors;
    ASSERT_TRUE(parseJson("/* first */ {\"a\": 1 // one\n}", root, errors));
    EXPECT_EQ(writeJson(root), "{\"a\":1}\n");
}

TEST(JsonReader, AFailureGivesTheParsersMessages) {
    Json::Value root;
    std::string errors;
    EXPECT_FALSE(parseJson("{\"a\": }", root, errors));
    EXPECT_EQ(errors, "* Line 1, Column 7\n  Syntax error: value, object or array expected.\n");
    EXPECT_FALSE(parseJson("", root, errors));
    EXPECT_EQ(errors, "* Line 1, Column 1\n  Syntax error: value, object or array expected.\n");
}

TEST(JsonReader, TheFirstFaultsLineIsInTheMessages) {
    Json::Value root;
    std::string errors;
    EXPECT_FALSE(parseJson("[\n1,\n}, }]", root, errors));
    EXPECT_EQ(faultLine(errors), 3U);
    EXPECT_EQ(faultLine("* Exceeded stackLimit in readValue().\n"), 0U);
    EXPECT_EQ(faultLine(""), 0U);
}

TEST(JsonReader, NestingTooDeepIsAFailure) {
    Json::Value root;
    std::string errors;
    EXPECT_FALSE(parseJson(std::string(100000, '['), root, errors));
    EXPECT_EQ(errors.substr(0, 2), "* ");
    EXPECT_EQ(errors.back(), '\n');
}

TEST(JsonReader, TextBehindTheDocumentIsNotLookedAt) {
    Json::Value root;
    std::string errors;
    EXPECT_TRUE(parseJson("[1] and more", root, errors));
    EXPECT_EQ(root.size(), 1U);
}

TEST(JsonReader, ZeroBytesInATextAreAFailureAndInAStringAreKept) {
    Json::Value root;
    std::string errors;
    EXPECT_FALSE(parseJson(std::string("[\0]", 3), root, errors));
    EXPECT_TRUE(parseJson(std::string("[\"a\0b\"]", 7), root, errors));
    EXPECT_EQ(root[0].asString(), std::string("a\0b", 3));
}

TEST(JsonReader, TheCompactFormIsClosedByANewline) {
    Json::Value root;
    root["b"] = "text";
    root["a"] = 1;
    EXPECT_EQ(writeJson(root), "{\"a\":1,\"b\":\"text\"}\n");
}

TEST(ReadWholeFile, GivesTheBytesOfTheFile) {
    const TempFolder folder;
    for (const size_t size :
         {size_t{0}, size_t{1}, size_t{4095}, size_t{4096}, size_t{4097}, size_t{1000000}}) {
        std::string bytes;
        for (size_t i = 0; i < size; ++i) bytes += static_cast<char>(i * 131 % 256);
        std::string text = "old";
        EXPECT_TRUE(readWholeFile(folder.write("file", bytes), text));
        EXPECT_EQ(text, bytes);
    }
}

TEST(ReadWholeFile, GivesNothingForWhatIsNoReadableFile) {
    const TempFolder folder;
    for (const std::string& path :
         {folder.in("none"), folder.path(), folder.pipe("pipe"), std::string("/dev/zero")}) {
        std::string text = "old";
        EXPECT_FALSE(readWholeFile(path, text)) << path;
        EXPECT_EQ(text, "") << path;
    }
}

TEST(ReadWholeFile, GivesNothingForAFileWithoutPermission) {
    if (geteuid() == 0) GTEST_SKIP() << "root reads every file";
    const TempFolder folder;
    const std::string path = folder.write("file", "text");
    chmod(path.c_str(), 0);
    std::string text = "old";
    EXPECT_FALSE(readWholeFile(path, text));
    EXPECT_EQ(text, "");
}

}  // namespace
