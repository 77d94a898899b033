// How long a text is as an SMS (3GPP TS 23.038 and TS 23.040).
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// The characters of a UTF-8 text. Each byte that belongs to no character gives U+FFFD.
std::vector<char32_t> charactersOf(std::string_view text);

// A character as UTF-8.
std::string utf8Of(char32_t character);

// The text with U+FFFD for each byte that belongs to no character.
std::string wellFormed(std::string_view text);

// "U+010D".
std::string codePointName(char32_t character);

struct SmsLength {
    bool gsm = true;      // in the GSM 7-bit default alphabet with its extension table; else in UCS-2
    size_t units = 0;     // septets (two for a character of the extension table), or 16-bit code units
    size_t messages = 0;  // SMS that it takes; 0 for an empty text

    // The different characters that the GSM alphabet does not have, in the order of the text: why it is
    // UCS-2.
    std::vector<char32_t> foreign;
};

// Most units of a text in one SMS, and of each part of a longer one.
struct SmsCapacity {
    size_t single;
    size_t part;
};
constexpr SmsCapacity kGsmCapacity{160, 153};
constexpr SmsCapacity kUcs2Capacity{70, 67};

// The length of a UTF-8 text. No character is divided between two parts.
SmsLength smsLength(std::string_view text);
