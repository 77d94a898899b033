#include "alarmctl/text/sms_length.h"

#include <algorithm>
#include <cstdio>

namespace {

constexpr char32_t kReplacement = 0xfffd;
constexpr char32_t kFirstBeyondBmp = 0x10000;

// Of the GSM 7-bit default alphabet what is not at its place of ASCII or is not in ASCII at all, and then
// ASCII as far as the alphabet has it.
constexpr std::u32string_view kDefaultAlphabet =
    U"@£$¥èéùìòÇ\nØø\rÅåΔ_ΦΓΛΩΠΨΣΘΞÆæßÉ !\"#¤%&'()*+,-./0123456789:;<=>?¡"
    U"ABCDEFGHIJKLMNOPQRSTUVWXYZÄÖÑÜ§¿abcdefghijklmnopqrstuvwxyzäöñüà";
constexpr std::u32string_view kExtension = U"\f^{}\\[~]|€";
static_assert(kDefaultAlphabet.size() == 127 && kExtension.size() == 10);

// Septets of a character, 0 for one that the alphabet does not have.
size_t septetsOf(char32_t character) {
    if (kDefaultAlphabet.find(character) != std::u32string_view::npos) return 1;
    return kExtension.find(character) != std::u32string_view::npos ? 2 : 0;
}

size_t codeUnitsOf(char32_t character) {
    return character < kFirstBeyondBmp ? 1 : 2;
}

// Takes one character from the front. REQUIRES: text is not empty.
char32_t takeCharacter(std::string_view& text) {
    struct Form {
        unsigned char mask, mark;
        size_t length;
        char32_t lowest;
    };
    constexpr Form kForms[] = {
        {0x80, 0x00, 1, 0}, {0xe0, 0xc0, 2, 0x80}, {0xf0, 0xe0, 3, 0x800}, {0xf8, 0xf0, 4, kFirstBeyondBmp}};
    const auto first = static_cast<unsigned char>(text[0]);
    for (const Form& form : kForms) {
        if ((first & form.mask) != form.mark || text.size() < form.length) continue;
        char32_t character = first & static_cast<unsigned char>(~form.mask);
        bool whole = true;
        for (size_t i = 1; i < form.length; ++i) {
            const auto byte = static_cast<unsigned char>(text[i]);
            whole = whole && (byte & 0xc0) == 0x80;
            character = character << 6 | (byte & 0x3f);
        }
        const bool surrogate = character >= 0xd800 && character <= 0xdfff;
        if (!whole || character < form.lowest || surrogate || character > 0x10ffff) break;
        text.remove_prefix(form.length);
        return character;
    }
    text.remove_prefix(1);
    return kReplacement;
}

// Parts of capacity units each, filled one after the other.
size_t partsOf(const std::vector<size_t>& lengths, size_t capacity) {
    size_t parts = 1;
    size_t used = 0;
    for (const size_t length : lengths) {
        if (used + length > capacity) {
            ++parts;
            used = 0;
        }
        used += length;
    }
    return parts;
}

}  // namespace

std::vector<char32_t> charactersOf(std::string_view text) {
    std::vector<char32_t> characters;
    while (!text.empty()) characters.push_back(takeCharacter(text));
    return characters;
}

std::string utf8Of(char32_t character) {
    const auto tail = [&](int shift) { return static_cast<char>(0x80 | (character >> shift & 0x3f)); };
    if (character < 0x80) return {static_cast<char>(character)};
    if (character < 0x800) return {static_cast<char>(0xc0 | character >> 6), tail(0)};
    if (character < kFirstBeyondBmp) return {static_cast<char>(0xe0 | character >> 12), tail(6), tail(0)};
    return {static_cast<char>(0xf0 | character >> 18), tail(12), tail(6), tail(0)};
}

std::string wellFormed(std::string_view text) {
    std::string result;
    for (const char32_t character : charactersOf(text)) result += utf8Of(character);
    return result;
}

std::string codePointName(char32_t character) {
    char name[16];
    snprintf(name, sizeof name, "U+%04X", static_cast<unsigned>(character));
    return name;
}

SmsLength smsLength(std::string_view text) {
    const std::vector<char32_t> characters = charactersOf(text);
    SmsLength result;
    for (const char32_t character : characters) {
        const auto known = std::find(result.foreign.begin(), result.foreign.end(), character);
        if (septetsOf(character) == 0 && known == result.foreign.end()) result.foreign.push_back(character);
    }
    result.gsm = result.foreign.empty();
    std::vector<size_t> lengths;
    for (const char32_t character : characters) {
        lengths.push_back(result.gsm ? septetsOf(character) : codeUnitsOf(character));
        result.units += lengths.back();
    }
    const SmsCapacity capacity = result.gsm ? kGsmCapacity : kUcs2Capacity;
    if (result.units > capacity.single) {
        result.messages = partsOf(lengths, capacity.part);
    } else {
        result.messages = result.units > 0 ? 1 : 0;
    }
    return result;
}
