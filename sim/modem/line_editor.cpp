#include "sim/modem/line_editor.h"

#include <cctype>
#include <utility>

namespace sim {
namespace {

constexpr char kCtrlZ = 0x1A;
constexpr char kEscape = 0x1B;
constexpr char kBackspace = 8;

}  // namespace

LineEditor::Typed LineEditor::take(char c, bool echo, std::string& output) {
    return typing_text_ ? takeTextByte(c, echo, output) : takeCommandByte(c, echo, output);
}

void LineEditor::beginText() {
    typing_text_ = true;
    text_.clear();
}

void LineEditor::clear() {
    typing_text_ = false;
    line_.clear();
    last_line_.clear();
}

// A command line begins with "AT" in one case or the other; whatever stands before it is passed over.
LineEditor::Typed LineEditor::takeCommandByte(char c, bool echo, std::string& output) {
    if (echo) output += c;
    const char upper = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    if (c == '\r') {
        const std::string line = std::exchange(line_, {});
        if (line.size() < 2) return Typed::kNothing;
        last_line_ = line;
        return Typed::kCommand;
    }
    if (c == kBackspace) {
        if (!line_.empty()) line_.pop_back();
    } else if (line_.size() >= 2) {
        if (line_.size() <= kLongestLine) line_ += c;
    } else if (upper == 'A') {
        line_ = c;
    } else if (line_.size() == 1 && upper == 'T') {
        line_ += c;
    } else {
        const bool again = line_.size() == 1 && c == '/' && !last_line_.empty();
        line_.clear();
        if (again) return Typed::kCommand;
    }
    return Typed::kNothing;
}

LineEditor::Typed LineEditor::takeTextByte(char c, bool echo, std::string& output) {
    if (c == kCtrlZ || c == kEscape) {
        typing_text_ = false;
        return c == kCtrlZ ? Typed::kText : Typed::kGivenUp;
    }
    if (c == kBackspace) {
        if (!text_.empty()) text_.pop_back();
        return Typed::kNothing;
    }
    text_ += c;
    if (c == '\r') {
        output += "\r\n> ";
    } else if (echo) {
        output += c;
    }
    return Typed::kNothing;
}

}  // namespace sim
