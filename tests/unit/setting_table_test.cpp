#include "alarmd/settings/setting_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <limits>
#include <set>
#include <sstream>

#include "knihovny/debugerror.h"

namespace {

std::string documentOf(const char* name) {
    std::ifstream file(std::filesystem::path(__FILE__).parent_path() / "../.." / name);
    EXPECT_TRUE(file) << name;
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// The rows of the table in a Markdown text whose head begins with head.
std::vector<std::string> tableIn(const std::string& text, const std::string& head) {
    std::istringstream lines(text);
    std::vector<std::string> rows;
    std::string line;
    while (std::getline(lines, line) && !line.starts_with(head)) {
    }
    std::getline(lines, line);  // the rule below the head
    while (std::getline(lines, line) && line.starts_with("|")) rows.push_back(line);
    return rows;
}

const char* typeOf(const Setting& setting) {
    constexpr const char* kTypes[] = {"text", "integer", "boolean"};
    return kTypes[setting.preset.index()];
}

std::string defaultOf(const Setting& setting) {
    if (const bool* flag = std::get_if<bool>(&setting.preset)) return *flag ? "true" : "false";
    std::string text;
    std::visit([&](const auto& value) { AppendPart(text, value); }, setting.preset);
    return text.empty() ? "empty" : text;
}

std::string rangeOf(const Setting& setting) {
    if (!setting.range) return "";
    const Range& range = *setting.range;
    const std::string least = std::to_string(range.least);
    const bool open = range.most == std::numeric_limits<int>::max();
    return least + (open ? " or more" : " to " + std::to_string(range.most));
}

std::string outsideOf(const Setting& setting) {
    if (!setting.range) return "";
    switch (setting.range->outside) {
        case Outside::kDefault:
            return ", else the default";
        case Outside::kPortKeeps:
            return ", else the port keeps what it had";
        case Outside::kTaken:
        case Outside::kFunctionIsLost:
            return std::string(", else ") + setting.range->remark;
    }
    return "";
}

std::string meaningOf(const Setting& setting) {
    const bool values = setting.range && setting.range->outside == Outside::kPortKeeps;
    return setting.meaning + (values ? std::string(": ") + setting.range->remark : "");
}

std::string rowOf(const Setting& setting) {
    const bool path = defaultOf(setting).starts_with("/");
    const std::string quote = path ? "`" : "";
    return "| `" + std::string(setting.name) + "` | " + typeOf(setting) + " | " + quote + defaultOf(setting) +
           quote + " | " + rangeOf(setting) + outsideOf(setting) + " | " + meaningOf(setting) + " |";
}

TEST(SettingTableTest, TheDocumentHasARowForEachSetting) {
    std::vector<std::string> rows;
    for (const Setting& setting : modemSettings()) rows.push_back(rowOf(setting));
    EXPECT_EQ(tableIn(documentOf("docs/CONFIGURATION.md"), "| key | type | default |"), rows);
}

TEST(SettingTableTest, TheManualPageHasARowForEachSetting) {
    const std::string page = documentOf("packaging/man/korvato.conf.5");
    const std::string head = "key@type@default@meaning\n";
    const size_t begin = page.find(head) + head.size();
    const std::string table = "\n" + page.substr(begin, page.find("\n.TE", begin) - begin);
    size_t place = 0;
    for (const Setting& setting : modemSettings()) {
        const std::string row =
            std::string("\n") + setting.name + "@" + typeOf(setting) + "@" + defaultOf(setting) + "@";
        place = table.find(row, place);
        ASSERT_NE(place, std::string::npos) << row;
    }
    size_t rows = 0;
    for (const char* type : {"@text@", "@integer@", "@boolean@"}) {
        for (size_t at = 0; (at = table.find(type, at)) != std::string::npos; ++at) ++rows;
    }
    EXPECT_EQ(rows, modemSettings().size());
}

// "| file | `key` | meaning; more of it |", the file only where it changes.
TEST(SettingTableTest, TheDocumentHasARowForEachKey) {
    std::vector<std::string> rows = tableIn(documentOf("docs/CONFIGURATION.md"), "| file | key | meaning |");
    ASSERT_EQ(rows.size(), configKeys().size() + 1);
    EXPECT_EQ(rows.back(), "| `sms.conf` | | no key is taken from it |");
    std::string file;
    for (size_t i = 0; i < configKeys().size(); ++i) {
        const ConfigKey& key = configKeys()[i];
        if (!rows[i].starts_with("| | ")) file = rows[i].substr(0, rows[i].find(" |"));
        EXPECT_EQ(file, key.file == KeyFile::kMain ? "| `korvato.conf`" : "| `msmtp.conf`") << rows[i];
        const std::string cells = "| `" + std::string(key.name) + "` | " + key.meaning;
        EXPECT_NE(rows[i].find(cells), std::string::npos) << cells;
    }
}

TEST(SettingTableTest, NamesAndTargetsStandOnce) {
    std::set<std::string> names;
    std::set<const void*> targets;
    for (const Setting& setting : modemSettings()) {
        names.insert(setting.name);
        std::visit([&](const auto* target) { targets.insert(target); }, setting.target);
    }
    EXPECT_EQ(names.size(), modemSettings().size());
    EXPECT_EQ(targets.size(), modemSettings().size());
}

TEST(SettingTableTest, ADefaultFitsItsTargetAndItsRange) {
    for (const Setting& setting : modemSettings()) {
        EXPECT_EQ(std::holds_alternative<std::string>(setting.preset),
                  std::holds_alternative<std::string*>(setting.target))
            << setting.name;
        if (!setting.range) continue;
        ASSERT_TRUE(std::holds_alternative<int>(setting.preset)) << setting.name;
        EXPECT_GE(std::get<int>(setting.preset), setting.range->least) << setting.name;
        EXPECT_LE(std::get<int>(setting.preset), setting.range->most) << setting.name;
    }
}

TEST(SettingTableTest, ThePartsOfTheSummaryHaveThePlacesFromOneOn) {
    std::set<size_t> places;
    size_t parts = 0;
    for (const Setting& setting : modemSettings()) {
        if (!setting.summary) continue;
        ++parts;
        places.insert(setting.summary->place);
    }
    EXPECT_EQ(places.size(), parts);
    EXPECT_EQ(*places.begin(), 1U);
    EXPECT_EQ(*places.rbegin(), parts);
}

TEST(SettingTableTest, OnlyTheMainFilesKeysAreMainKeys) {
    for (const char* name : {"pFolder", "http_port", "https_port", "binFolder"})
        EXPECT_TRUE(isMainKey(name)) << name;
    for (const char* name : {"from", "pfolder", "", "projectID"}) EXPECT_FALSE(isMainKey(name)) << name;
}

}  // namespace
