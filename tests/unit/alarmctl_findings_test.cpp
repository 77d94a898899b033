#include <gtest/gtest.h>

#include "alarmctl/check/findings.h"
#include "alarmd/base/json.h"

namespace {

Findings someFindings() {
    Findings findings;
    findings.lookedAt("/p/groups.csv");
    findings.warning({"/p/cas.csv", 12}, "short-line", "3 columns");
    findings.warning({"/p/cas.csv", 2}, "short-line", "4 columns");
    findings.note({"/p/users.json", 0, 3}, "no-address", "nobody");
    findings.error({"/p/cas.csv"}, "unreadable", "cannot be opened");
    findings.warning({"/p/cas.csv", 14}, "short-line", "5 columns");
    return findings;
}

TEST(FindingsTest, AreALineEachFileByFileLikeACompilers) {
    EXPECT_EQ(someFindings().text(0),
              "/p/cas.csv: error: cannot be opened [unreadable]\n"
              "/p/cas.csv:2: warning: 4 columns [short-line]\n"
              "/p/cas.csv:12: warning: 3 columns [short-line]\n"
              "/p/cas.csv:14: warning: 5 columns [short-line]\n"
              "/p/users.json: element 3: note: nobody [no-address]\n");
}

TEST(FindingsTest, OfEachCodeSoManyAreShownAndTheRestIsCounted) {
    EXPECT_EQ(someFindings().text(1),
              "/p/cas.csv: error: cannot be opened [unreadable]\n"
              "/p/cas.csv:2: warning: 4 columns [short-line]\n"
              "/p/cas.csv: and 2 more [short-line]\n"
              "/p/users.json: element 3: note: nobody [no-address]\n");
}

TEST(FindingsTest, TheJsonFormHasThemAll) {
    const Json::Value json = someFindings().json();
    EXPECT_EQ(writeJson(json["files"]), "[\"/p/groups.csv\",\"/p/cas.csv\",\"/p/users.json\"]\n");
    EXPECT_EQ(json["findings"].size(), 5U);
    EXPECT_EQ(writeJson(json["findings"][1]),
              "{\"code\":\"short-line\",\"file\":\"/p/cas.csv\",\"line\":2,\"severity\":\"warning\","
              "\"text\":\"4 columns\"}\n");
    EXPECT_EQ(json["findings"][4]["element"].asInt(), 3);
    EXPECT_FALSE(json["findings"][4].isMember("line"));
    EXPECT_EQ(json["errors"].asInt(), 1);
    EXPECT_EQ(json["warnings"].asInt(), 3);
    EXPECT_EQ(json["notes"].asInt(), 1);
}

TEST(FindingsTest, BytesOfAFileDoNotReachTheTerminal) {
    Findings findings;
    findings.note({"/p/\x1b[2J"}, "code", inQuotes("a\x1b\xff\nb"));
    EXPECT_EQ(findings.text(0), "/p/?[2J: note: \"a?\xef\xbf\xbd?b\" [code]\n");
}

TEST(FindingsTest, NamesAFew) {
    Naming naming;
    EXPECT_EQ(naming.names(), "");
    for (int i = 1; i <= 5; ++i) naming.add(std::to_string(i));
    EXPECT_EQ(naming.names(), "1, 2, 3, 4, 5");
    naming.add("6");
    naming.add("7");
    EXPECT_EQ(naming.names(), "1, 2, 3, 4, 5 and 2 more");
    EXPECT_EQ(naming.count(), 7U);
    EXPECT_EQ(counted(1, "alarm") + counted(2, "alarm"), "1 alarm2 alarms");
    EXPECT_EQ(inQuotes(std::string(41, 'x')), "\"" + std::string(40, 'x') + "...\"");
}

}  // namespace
