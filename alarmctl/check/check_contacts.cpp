#include "alarmctl/check/check_contacts.h"

#include <algorithm>

#include "alarmctl/check/findings.h"

namespace {

constexpr size_t kFewestDigits = 7;
constexpr size_t kMostDigits = 15;

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
    while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
    return text;
}

bool isBlankOrControl(char c) {
    return static_cast<unsigned char>(c) <= ' ' || c == '\x7f';
}

std::string faultOfOne(std::string_view text) {
    std::string_view address = trimmed(text);
    const size_t open = address.rfind('<');
    if (open != std::string_view::npos && address.back() == '>') {
        address = address.substr(open + 1, address.size() - open - 2);
    }
    if (address.empty()) return "an empty address";
    const size_t at = address.rfind('@');
    if (at == std::string_view::npos) return "no \"@\"";
    const std::string_view local = address.substr(0, at);
    const std::string_view domain = address.substr(at + 1);
    if (local.empty()) return "nothing in front of the \"@\"";
    if (domain.empty()) return "nothing behind the \"@\"";
    if (local.find('@') != std::string_view::npos) return "more than one \"@\"";
    if (std::any_of(address.begin(), address.end(), isBlankOrControl)) return "a blank in the address";
    if (address.find_first_of(";<>\"") != std::string_view::npos)
        return "a character that may not stand there";
    if (domain.front() == '.' || domain.back() == '.' || domain.find("..") != std::string_view::npos)
        return "a misplaced \".\" behind the \"@\"";
    return "";
}

}  // namespace

std::string addressFault(std::string_view text) {
    while (true) {
        const size_t comma = text.find(',');
        std::string fault = faultOfOne(text.substr(0, comma));
        if (!fault.empty() || comma == std::string_view::npos) return fault;
        text.remove_prefix(comma + 1);
    }
}

bool isInternationalNumber(std::string_view text) {
    if (text.size() < kFewestDigits + 1 || text.size() > kMostDigits + 1) return false;
    if (text[0] != '+' || text[1] == '0') return false;
    return std::all_of(text.begin() + 1, text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::string numberRemark(std::string_view number) {
    return "the number " + inQuotes(number) +
           " is not in international form (+ and 7 to 15 digits): the network may refuse it, and an answer "
           "from it is not recognised when the modem tells the sender otherwise";
}
