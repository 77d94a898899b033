// Addresses, numbers and users as the checks judge them. Pure.
#pragma once

#include <string>
#include <string_view>

// Why text is no mail address, or no list of addresses with commas between them; empty when it is one. Takes
// "local@domain" and "Name <local@domain>" and looks at the shape only (RFC 5322 allows more).
std::string addressFault(std::string_view text);

// Whether text is a number in international form (E.164): "+" and 7 to 15 digits, the first not 0.
bool isInternationalNumber(std::string_view text);

// What is said of a number that is not.
std::string numberRemark(std::string_view number);
