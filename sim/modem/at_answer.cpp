#include "sim/modem/at_answer.h"

namespace sim {
namespace {

constexpr struct {
    int code;
    const char* text;
} kCmeTexts[] = {
    {kCmeNotAllowed, "operation not allowed"}, {kCmeNotSupported, "operation not supported"},
    {kCmeSimMissing, "SIM not inserted"},      {kCmePinRequired, "SIM PIN required"},
    {kCmePukRequired, "SIM PUK required"},     {kCmeWrongPassword, "incorrect password"},
    {kCmeParameters, "Incorrect parameters"},
};

std::string cmeText(int code) {
    for (const auto& entry : kCmeTexts) {
        if (entry.code == code) return entry.text;
    }
    return "unknown";
}

}  // namespace

std::string finalResult(const AtAnswer& answer, int cmee) {
    switch (answer.kind) {
        case AtAnswer::kOk:
            return "\r\nOK\r\n";
        case AtAnswer::kPrompt:
            return "\r\n> ";
        case AtAnswer::kCms:
            return "\r\n+CMS ERROR: " + std::to_string(answer.code) + "\r\n";
        case AtAnswer::kCme:
            if (cmee == 0) break;
            return "\r\n+CME ERROR: " + (cmee == 1 ? std::to_string(answer.code) : cmeText(answer.code)) +
                   "\r\n";
        case AtAnswer::kError:
            break;
    }
    return "\r\nERROR\r\n";
}

std::string answerBytes(const AtAnswer& answer, int cmee) {
    std::string bytes;
    for (const std::string& line : answer.lines) bytes += (bytes.empty() ? "\r\n" : "") + line + "\r\n";
    return bytes + finalResult(answer, cmee);
}

}  // namespace sim
