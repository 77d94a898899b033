#include "alarmd/project/csv_file.h"

#include <random>

#include "knihovny/generalfce.h"
#include "tests/support/project_files.h"

namespace {

using Columns = std::vector<std::string>;

std::vector<Columns> linesOf(const std::string& path) {
    std::vector<Columns> lines;
    CsvFile file(path);
    while (file.next()) {
        Columns columns;
        for (size_t i = 0; i < file.size(); ++i) columns.emplace_back(file[i]);
        lines.push_back(columns);
    }
    return lines;
}

TEST(CsvFile, SplitsAtSemicolonsAndDropsEmptyColumns) {
    const TempFolder folder;
    EXPECT_EQ(linesOf(folder.write("f", "a;b\n;;a;;b;\n\n;\n x ;y")),
              (std::vector<Columns>{{"a", "b"}, {"a", "b"}, {}, {}, {" x ", "y"}}));
}

TEST(CsvFile, SplitsAsTheLibrarysSplitDoes) {
    const TempFolder folder;
    std::mt19937 random(7);
    const char letters[] = {';', ';', 'a', 'b', ' ', '\r', '\0', '"'};
    std::string text;
    for (int i = 0; i < 20000; ++i) text += random() % 12 == 0 ? '\n' : letters[random() % sizeof letters];
    CsvFile file(folder.write("f", text));
    size_t start = 0;
    while (file.next()) {
        const size_t end = std::min(text.find('\n', start), text.size());
        const Columns expected = txt2vector(text.substr(start, end - start), ";");
        start = end + 1;
        ASSERT_EQ(file.size(), std::min(expected.size(), CsvFile::kMaxColumns));
        for (size_t i = 0; i < file.size(); ++i) ASSERT_EQ(file[i], expected[i]);
    }
    EXPECT_GE(start, text.size());
}

TEST(CsvFile, ColumnsBeyondTheLastOneOfInterestAreNotSplitOff) {
    const TempFolder folder;
    std::string line;
    for (int i = 0; i < 40; ++i) line += "x;";
    CsvFile file(folder.write("f", line));
    ASSERT_TRUE(file.next());
    EXPECT_EQ(file.size(), CsvFile::kMaxColumns);
}

TEST(CsvFile, LinesOfEveryLengthAroundTheReadBufferComeWhole) {
    const TempFolder folder;
    std::string text;
    for (size_t length = 65530; length < 65545; ++length) text += std::string(length, 'x') + "\n";
    CsvFile file(folder.write("f", text));
    for (size_t length = 65530; length < 65545; ++length) {
        ASSERT_TRUE(file.next());
        ASSERT_EQ(file[0].size(), length);
    }
    EXPECT_FALSE(file.next());
}

TEST(CsvFile, ALineOfTheLargestLengthIsReadAndALongerOneToldAndPassedOver) {
    const TempFolder folder;
    const std::string path = folder.write("f", std::string(CsvFile::kMaxLine, 'x') + "\n" +
                                                   std::string(CsvFile::kMaxLine + 1, 'x') + "\nend\n");
    const Output output = outputOf([&] {
        CsvFile file(path);
        ASSERT_TRUE(file.next());
        EXPECT_EQ(file[0].size(), CsvFile::kMaxLine);
        ASSERT_TRUE(file.next());
        EXPECT_EQ(file[0], "end");
        EXPECT_EQ(file.where(), path + ", line 3");
        EXPECT_FALSE(file.next());
    });
    EXPECT_EQ(output.err, "alarmd: " + path + ", line 2: longer than 1048576 bytes, ignored\n");
}

TEST(CsvFile, AHeaderOfAnyLengthIsPassedOver) {
    const TempFolder folder;
    const std::string path = folder.write("f", std::string(CsvFile::kMaxLine * 2, 'x') + "\na;b\n");
    const Output output = outputOf([&] {
        CsvFile file(path);
        file.skipLine();
        ASSERT_TRUE(file.next());
        EXPECT_EQ(file[1], "b");
    });
    EXPECT_EQ(output.err, "");
}

TEST(LeadingNumber, ReadsBlanksSignAndDigits) {
    EXPECT_EQ(leadingNumber("12"), 12);
    EXPECT_EQ(leadingNumber(" \t\r12\r"), 12);
    EXPECT_EQ(leadingNumber("-3x"), -3);
    EXPECT_EQ(leadingNumber("+3"), 3);
    EXPECT_EQ(leadingNumber("+-3"), 0);
    EXPECT_EQ(leadingNumber("x3"), 0);
    EXPECT_EQ(leadingNumber(""), 0);
    EXPECT_EQ(leadingNumber("-"), 0);
    EXPECT_EQ(leadingNumber("0x10"), 0);
    EXPECT_EQ(leadingNumber("007"), 7);
}

TEST(LeadingNumber, StaysInRange) {
    EXPECT_EQ(leadingNumber("2147483647"), 2147483647);
    EXPECT_EQ(leadingNumber("2147483648"), 2147483647);
    EXPECT_EQ(leadingNumber("-2147483648"), -2147483647 - 1);
    EXPECT_EQ(leadingNumber("-2147483649"), -2147483647 - 1);
    EXPECT_EQ(leadingNumber(std::string(1000, '9')), 2147483647);
}

}  // namespace
