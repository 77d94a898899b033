#include "sim/modem/at_command.h"

#include <cctype>
#include <charconv>

namespace sim {
namespace {

constexpr size_t kLongestNumber = 20;

char upper(char c) {
    return static_cast<char>(toupper(static_cast<unsigned char>(c)));
}
bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
bool isLetter(char c) {
    return upper(c) >= 'A' && upper(c) <= 'Z';
}
bool isExtended(char c) {
    return c == '+' || c == '^' || c == '$' || c == '*' || c == '%';
}

// Splits at commas that stand outside of quotation marks.
void splitParameters(AtCommand& command) {
    std::string parameter;
    bool inside = false, quoted = false;
    for (const char c : command.value + ",") {
        if (c == '"') {
            inside = !inside;
            quoted = true;
        } else if (c == ',' && !inside) {
            command.parameters.push_back(parameter);
            command.quoted.push_back(quoted);
            parameter.clear();
            quoted = false;
        } else {
            parameter += c;
        }
    }
    if (inside) command.parameters.push_back(parameter.substr(0, parameter.size() - 1));  // never closed
    command.quoted.resize(command.parameters.size(), true);
}

// The end of an extended command: the next semicolon outside of quotation marks, or the line's end.
size_t extendedEnd(const std::string& line, size_t begin) {
    bool inside = false;
    for (size_t i = begin; i < line.size(); ++i) {
        if (line[i] == '"') inside = !inside;
        if (line[i] == ';' && !inside) return i;
    }
    return line.size();
}

AtCommand extendedCommand(const std::string& text) {
    AtCommand command;
    size_t end = 1;
    while (end < text.size() && (isLetter(text[end]) || isDigit(text[end]) || text[end] == '_')) ++end;
    command.name = upperCase(text.substr(0, end));
    const std::string rest = text.substr(end);
    if (rest == "?") {
        command.form = AtCommand::kRead;
    } else if (rest == "=?") {
        command.form = AtCommand::kTest;
    } else if (rest.starts_with("=")) {
        command.form = AtCommand::kSet;
        command.value = rest.substr(1);
        splitParameters(command);
    } else if (!rest.empty()) {
        command.name += rest;  // an unknown command, and answered as one
    }
    return command;
}

// A basic command: a letter, or '&' and a letter, and a number; S has a register's number, and "=" or "?"
// behind it.
bool basicCommand(const std::string& line, size_t& place, AtCommand& command) {
    if (line[place] == '&') command.name += line[place++];
    if (place >= line.size() || !isLetter(line[place])) return false;
    command.name += upper(line[place++]);
    std::string number;
    while (place < line.size() && (isDigit(line[place]) || (command.name == "S" && line[place] == '='))) {
        number += line[place++];
    }
    if (place < line.size() && line[place] == '?') {
        command.form = AtCommand::kRead;
        ++place;
    }
    command.value = number;
    command.parameters.push_back(number);
    command.quoted.push_back(false);
    return true;
}

}  // namespace

int AtCommand::number(size_t index, int otherwise) const {
    if (index >= parameters.size()) return otherwise;
    const std::string& text = parameters[index];
    int parsed = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), parsed);
    return error == std::errc() && end == text.data() + text.size() ? parsed : otherwise;
}

std::string upperCase(std::string text) {
    for (char& c : text) c = upper(c);
    return text;
}

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

bool isTelephoneNumber(const std::string& text) {
    return !text.empty() && text.size() <= kLongestNumber &&
           text.find_first_not_of("0123456789*#", text[0] == '+' ? 1 : 0) == std::string::npos && text != "+";
}

bool parseAtLine(const std::string& line, std::vector<AtCommand>& commands) {
    size_t place = 0;
    while (place < line.size()) {
        if (line[place] == ' ' || line[place] == ';') {
            ++place;
        } else if (isExtended(line[place])) {
            const size_t end = extendedEnd(line, place);
            std::string text = line.substr(place, end - place);
            text.erase(text.find_last_not_of(' ') + 1);
            commands.push_back(extendedCommand(text));
            place = end;
        } else {
            AtCommand command;
            if (!basicCommand(line, place, command)) return false;
            commands.push_back(command);
        }
    }
    return true;
}

}  // namespace sim
