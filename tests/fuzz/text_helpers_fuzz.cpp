// The text and time helpers. Fields: text, delimiter, four numbers (seconds and microseconds of two moments).
#include <algorithm>
#include <cctype>
#include <limits>
#include <stdexcept>

#include "alarmd/project/csv_file.h"
#include "knihovny/generalfce.h"
#include "knihovny/splitter.h"
#include "tests/fuzz/world.h"

namespace {

std::string upToZero(const std::string& text) {
    return text.c_str();
}

void checkPieces(const std::string& text, const std::string& delimiters) {
    const std::string set = upToZero(delimiters);
    std::string rest = upToZero(text);
    std::erase_if(rest, [&](char c) { return set.find(c) != std::string::npos; });
    std::string all;
    for (const std::string& piece : txt2vector(text, delimiters)) {
        MUST(!piece.empty() && piece.find_first_of(set) == std::string::npos);
        all += piece;
    }
    MUST(all == rest);
}

void checkSplitter(const std::string& text, const std::string& delimiter) {
    if (delimiter.empty()) return;
    const Splitter tokens(text, delimiter);
    std::string joined = tokens[0];
    for (size_t i = 1; i < tokens.size(); ++i) {
        MUST(tokens[i].find(delimiter) == std::string::npos);
        joined += delimiter + tokens[i];
    }
    MUST(joined == text);
    bool thrown = false;
    try {
        MUST(tokens[tokens.size()].empty());
    } catch (const std::out_of_range&) {
        thrown = true;
    }
    MUST(thrown);
}

int digit(const std::string& text, size_t i) {
    static const std::string kDigits = "0123456789abcdef";
    if (i >= text.size() || text[i] == '\0') return -1;
    const size_t found = kDigits.find(static_cast<char>(tolower(static_cast<unsigned char>(text[i]))));
    return found == std::string::npos ? -1 : static_cast<int>(found);
}

std::string decoded(const std::string& text) {
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            result += text[i] == '+' ? ' ' : text[i];
        } else if (digit(text, i + 1) >= 0 && digit(text, i + 2) >= 0) {
            result += static_cast<char>(16 * digit(text, i + 1) + digit(text, i + 2));
            i += 2;
        } else {
            ++i;  // with the byte behind it
        }
    }
    return result;
}

std::string hexDump(const std::string& text) {
    std::string result;
    for (const char c : text) {
        char piece[8];
        const auto byte = static_cast<unsigned char>(c);
        snprintf(piece, sizeof piece, byte > 31 && byte < 126 ? "%c" : " %02X", byte);
        result += piece;
    }
    return result;
}

void checkNumber(const std::string& text) {
    constexpr long long kLowest = std::numeric_limits<int>::min();
    constexpr long long kHighest = std::numeric_limits<int>::max();
    const long long value = strtoll(text.c_str(), nullptr, 10);
    MUST(leadingNumber(text) == static_cast<int>(std::clamp(value, kLowest, kHighest)));
}

timeval moment(fuzz::Fields& fields) {
    constexpr int64_t kFar = 1000000000000;
    const int64_t seconds = std::clamp(fields.integer(), -kFar, kFar);
    return {seconds, static_cast<suseconds_t>(static_cast<uint64_t>(fields.integer()) % 1000000)};
}

int64_t microseconds(const timeval& time) {
    return time.tv_sec * 1000000 + time.tv_usec;
}

void checkMoments(timeval a, timeval b) {
    timeval difference;
    const bool earlier = microseconds(a) < microseconds(b);
    MUST(TimevalMinus(&difference, &a, &b) == (earlier ? 1 : 0));
    MUST(TimevalMensi(&a, &b) == earlier);
    MUST(difference.tv_sec >= 0 && difference.tv_usec >= 0 && difference.tv_usec < 1000000);
    const int64_t size = earlier ? microseconds(b) - microseconds(a) : microseconds(a) - microseconds(b);
    MUST(microseconds(difference) == size);
}

void checkTimeText(size_t room) {
    constexpr size_t kLength = 19;  // dd.mm.yyyy hh:mm:ss
    std::vector<char> buffer(room, 'x');
    TiskTed2(buffer.data(), static_cast<int>(room));
    const std::string text(buffer.begin(), std::find(buffer.begin(), buffer.end(), '\0'));
    if (room > 0) MUST(text.size() == (room > kLength ? kLength : 0));
}

}  // namespace

FUZZ_TARGET(text_helpers) {
    fuzz::Fields fields(input);
    const std::string text = fields.text();
    const std::string delimiter = fields.text();
    checkPieces(text, delimiter);
    checkSplitter(text, delimiter);
    MUST(urldecode(text) == decoded(text));
    MUST(urldecode(text).size() <= text.size());
    const std::string upper = StringToUpper(text);
    MUST(upper.size() == text.size() && StringToUpper(upper) == upper);
    binTiskHex2(static_cast<int>(text.size()), text.data());
    MUST(fuzz::world.printed == hexDump(text) + "\n");
    checkNumber(text);
    checkTimeText(text.size() % 64);
    const timeval a = moment(fields);
    checkMoments(a, moment(fields));
}
