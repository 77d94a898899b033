// What is typed on the modem's line: command lines (ITU-T V.250, section 5.2), and behind a prompt the text
// of a message (3GPP TS 27.005, section 3.5.1).
#pragma once

#include <cstddef>
#include <string>

namespace sim {

// For one thread.
class LineEditor {
  public:
    static constexpr size_t kLongestLine = 2000;

    // What a byte has completed.
    enum class Typed {
        kNothing,
        kCommand,  // line()
        kText,     // text(), by Ctrl-Z
        kGivenUp,  // no text, by Escape
    };

    // Takes the next byte and puts what it shows on the line behind output: its echo, and a prompt for the
    // text's next line.
    Typed take(char c, bool echo, std::string& output);

    // From here on the text of a message is typed.
    void beginText();

    // Forgets what has been typed so far.
    void clear();

    // The last command line, with its "AT". Cut off behind kLongestLine bytes and one more.
    const std::string& line() const { return last_line_; }
    const std::string& text() const { return text_; }

    // Nothing has been typed of a text, and of a command line not even its "AT".
    bool idle() const { return !typing_text_ && line_.size() < 2; }

  private:
    Typed takeCommandByte(char c, bool echo, std::string& output);
    Typed takeTextByte(char c, bool echo, std::string& output);

    std::string line_;  // so far; empty until "A" was seen
    std::string last_line_;
    bool typing_text_ = false;
    std::string text_;
};

}  // namespace sim
