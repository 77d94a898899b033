#include <gtest/gtest.h>

#include <string>

#include "alarmctl/text/sms_length.h"

namespace {

using Characters = std::vector<char32_t>;

std::string times(size_t count, const std::string& text) {
    std::string result;
    for (size_t i = 0; i < count; ++i) result += text;
    return result;
}

struct Row {
    const char* what;
    std::string text;
    bool gsm;
    size_t units;
    size_t messages;
};

TEST(SmsLengthTest, CountsUnitsAndMessages) {
    const Row rows[] = {
        {"no text", "", true, 0, 0},
        {"an alarm", "(ACT) Flame lost /ack:101", true, 25, 1},
        {"letters that German and French share with the alphabet", "äöüßÄÖÜèéùìòÇ", true, 13, 1},
        {"Greek capitals", "ΔΦΓΛΩΠΨΣΘΞ", true, 10, 1},
        {"a full message", times(160, "a"), true, 160, 1},
        {"one septet more", times(161, "a"), true, 161, 2},
        {"two full parts", times(306, "a"), true, 306, 2},
        {"one septet more than two parts", times(307, "a"), true, 307, 3},
        {"two septets each", "^{}\\[~]|€", true, 18, 1},
        {"80 of them", times(80, "€"), true, 160, 1},
        {"an escaped character never spans two parts", times(152, "a") + times(77, "€"), true, 306, 3},
        {"a Czech text", "Výpadek", false, 7, 1},
        {"the grave accent is not in it", "`", false, 1, 1},
        {"a full message in UCS-2", times(70, "č"), false, 70, 1},
        {"one more", times(71, "č"), false, 71, 2},
        {"two full parts in UCS-2", times(134, "č"), false, 134, 2},
        {"one more than two parts", times(135, "č"), false, 135, 3},
        {"a character beyond the first plane is two units", "\U0001F525", false, 2, 1},
        {"and never spans two parts", times(66, "č") + times(34, "\U0001F525"), false, 134, 3},
    };
    for (const Row& row : rows) {
        const SmsLength length = smsLength(row.text);
        EXPECT_EQ(length.gsm, row.gsm) << row.what;
        EXPECT_EQ(length.units, row.units) << row.what;
        EXPECT_EQ(length.messages, row.messages) << row.what;
    }
}

TEST(SmsLengthTest, EveryCharacterOfTheAlphabetIsInIt) {
    // 3GPP TS 23.038, 6.2.1, column by column; the escape is no character.
    const std::string alphabet =
        "@£$¥èéùìòÇ\nØø\rÅåΔ_ΦΓΛΩΠΨΣΘΞÆæßÉ !\"#¤%&'()*+,-./0123456789:;<=>?¡ABCDEFGHIJKLMNOPQRSTUVWXYZÄÖÑÜ§¿"
        "abcdefghijklmnopqrstuvwxyzäöñüà";
    EXPECT_EQ(charactersOf(alphabet).size(), 127U);
    EXPECT_TRUE(smsLength(alphabet).gsm);
    EXPECT_EQ(smsLength(alphabet).units, 127U);
    for (const char* outside : {"ç", "á", "ê", "`", "\t", "\x1b", "ř", "α", "…", "“"}) {
        EXPECT_FALSE(smsLength(outside).gsm) << outside;
    }
}

TEST(SmsLengthTest, TellsWhatForcesUcs2OnceInTheOrderOfTheText) {
    EXPECT_EQ(smsLength("Vysoká hladina, čerpá se").foreign, (Characters{U'á', U'č'}));
    EXPECT_TRUE(smsLength("High level").foreign.empty());
    EXPECT_EQ(codePointName(U'č'), "U+010D");
    EXPECT_EQ(codePointName(0x1F525), "U+1F525");
}

TEST(SmsLengthTest, BytesOfNoCharacterAreReplacedOneByOne) {
    EXPECT_EQ(charactersOf("a\xff\xc4"), (Characters{U'a', 0xfffd, 0xfffd}));
    EXPECT_EQ(charactersOf("\xc0\x80"), (Characters{0xfffd, 0xfffd}));
    EXPECT_EQ(charactersOf("\xed\xa0\x80").size(), 3U);
    EXPECT_EQ(charactersOf("\xf4\x90\x80\x80").size(), 4U);
    EXPECT_EQ(charactersOf("\xe2\x82"
                           "a"),
              (Characters{0xfffd, 0xfffd, U'a'}));
}

TEST(SmsLengthTest, WritesCharactersAsTheyWereRead) {
    for (const char* text : {"a", "č", "€", "\U0001F525"}) {
        const Characters characters = charactersOf(text);
        ASSERT_EQ(characters.size(), 1U) << text;
        EXPECT_EQ(utf8Of(characters[0]), text);
    }
}

}  // namespace
