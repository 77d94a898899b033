#include "alarmctl/text/wording.h"

#include <algorithm>
#include <vector>

#include "alarmctl/text/sms_length.h"

namespace {

constexpr size_t kLongestQuote = 40;  // characters
constexpr size_t kFewNames = 5;

}  // namespace

std::string counted(size_t count, const std::string& noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string inQuotes(std::string_view text) {
    const std::vector<char32_t> characters = charactersOf(text);
    std::string result = "\"";
    for (size_t i = 0; i < std::min(characters.size(), kLongestQuote); ++i) result += utf8Of(characters[i]);
    return result + (characters.size() > kLongestQuote ? "...\"" : "\"");
}

void Naming::add(std::string name) {
    if (count_++ >= kFewNames) return;
    if (!names_.empty()) names_ += ", ";
    names_ += name;
}

std::string Naming::names() const {
    if (count_ <= kFewNames) return names_;
    return names_ + " and " + std::to_string(count_ - kFewNames) + " more";
}
