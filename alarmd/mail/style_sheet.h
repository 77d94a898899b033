#pragma once

#include <cstddef>
#include <string_view>

// The head that every alarm mail begins with: the opening html tag, a style sheet, an empty title and the
// opening body tag. ASCII. The mail is declared quoted-printable and is not encoded, so there is no "=" but
// in the style tag, and no line is longer than 900 characters (RFC 5322 allows 998).
constexpr size_t kMailHeadLength = 3381;
extern const std::string_view kMailHead;
