#include "knihovny/splitter.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

std::vector<std::string> tokens(const Splitter& splitter) {
    std::vector<std::string> all;
    for (size_t i = 0; i < splitter.size(); ++i) all.push_back(splitter[i]);
    return all;
}

using Tokens = std::vector<std::string>;

TEST(Splitter, KeepsEmptyTokens) {
    EXPECT_EQ(tokens(Splitter("a,,b,", ",")), (Tokens{"a", "", "b", ""}));
    EXPECT_EQ(tokens(Splitter("a;;b;", ";")), (Tokens{"a", "", "b", ""}));
    EXPECT_EQ(tokens(Splitter(",", ",")), (Tokens{"", ""}));
}

TEST(Splitter, GivesOneTokenForATextWithoutTheDelimiter) {
    EXPECT_EQ(tokens(Splitter("abc", ",")), (Tokens{"abc"}));
    EXPECT_EQ(tokens(Splitter("", ",")), (Tokens{""}));
}

TEST(Splitter, SplitsAtTheWholeDelimiterOnly) {
    EXPECT_EQ(tokens(Splitter("a\r\nb\rc\nd\r\n", "\r\n")), (Tokens{"a", "b\rc\nd", ""}));
    EXPECT_EQ(tokens(Splitter("xaaay", "aa")), (Tokens{"x", "ay"}));
}

TEST(Splitter, TakesZeroBytesAsAnyOther) {
    const std::string text("a\0,b", 4);
    EXPECT_EQ(tokens(Splitter(text, ",")), (Tokens{std::string("a\0", 2), "b"}));
    EXPECT_EQ(tokens(Splitter(text, std::string(1, '\0'))), (Tokens{"a", ",b"}));
}

TEST(Splitter, ThrowsForAnIndexPastTheEnd) {
    Splitter splitter("a,b", ",");
    EXPECT_EQ(splitter[1], "b");
    EXPECT_THROW(splitter[2], std::out_of_range);
    const Splitter& constant = splitter;
    EXPECT_THROW(constant[2], std::out_of_range);
}

TEST(Splitter, ResetReplacesTheTokens) {
    Splitter splitter("a,b,c", ",");
    splitter.reset("x y", " ");
    EXPECT_EQ(tokens(splitter), (Tokens{"x", "y"}));
}

TEST(Splitter, TokensCanBeChanged) {
    Splitter splitter("a,b", ",");
    splitter[0] = "changed";
    EXPECT_EQ(tokens(splitter), (Tokens{"changed", "b"}));
}

}  // namespace
