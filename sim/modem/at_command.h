// The syntax of AT command lines (ITU-T V.250).
#pragma once

#include <string>
#include <vector>

namespace sim {

// One command of a line. "+CMGS="123",145" is the name "+CMGS", kSet and two parameters; "E0" is the name
// "E", kExecute and one parameter.
struct AtCommand {
    enum Form {
        kExecute,  // +NAME
        kSet,      // +NAME=...
        kRead,     // +NAME?
        kTest,     // +NAME=?
    };
    std::string name;  // upper case
    Form form = kExecute;
    std::string value;                    // what stands behind the equals sign, as it is
    std::vector<std::string> parameters;  // without quotation marks
    std::vector<bool> quoted;             // which of them had some

    // A parameter as a number, or otherwise when it is missing, empty or none.
    int number(size_t index, int otherwise) const;
};

// Cuts a line, without its "AT" and its end, into commands. Returns false when it is no command line.
bool parseAtLine(const std::string& line, std::vector<AtCommand>& commands);

std::string upperCase(std::string text);
// As a string parameter stands in a line.
std::string quoted(const std::string& text);
// At most 20 digits, '*' and '#', with or without a '+' before them.
bool isTelephoneNumber(const std::string& text);

}  // namespace sim
