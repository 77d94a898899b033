#include "sim/modem/at_settings.h"

#include <vector>

namespace sim {
namespace {

constexpr struct Setting {
    const char* name;
    const char* value;  // after power-up
    const char* range;  // the answer to the test form
    bool huawei;
} kSettings[] = {
    {"+CMEE", "1", "(0-2)", false},
    {"+CMGF", "0", "(0,1)", false},
    {"+CNMI", "2,1,0,0,0", "(0-3),(0-3),(0,2),(0-2),(0,1)", false},
    {"+CSDH", "0", "(0,1)", false},
    {"+CSCS", "\"IRA\"", "(\"IRA\",\"UCS2\",\"GSM\")", false},
    {"+CSMP", "17,167,0,0", "(0-255),(0-255),(0-255),(0-255)", false},
    {"+CSMS", "0,1,1,1", "(0,1)", false},
    {"+CFUN", "1", "(0,1,4-7),(0,1)", false},
    {"+CLIP", "0", "(0,1)", false},
    {"^CURC", "1", "(0,1)", true},
    {"^BOOT", "0,0", "", true},
    {"^SYSCFG", "2,0,3FFFFFFF,1,2", "(2,13,14,16),(0-3),(3FFFFFFF),(0-2),(0-4)", true},
    {"^SYSCFGEX", "\"00\",3FFFFFFF,1,2,7FFFFFFFFFFFFFFF", "", true},
};

AtAnswer answerOf(const Setting& setting, const AtCommand& command, std::string& value) {
    switch (command.form) {
        case AtCommand::kRead:
            return AtAnswer::line(command.name + (setting.huawei ? ":" : ": ") + value);
        case AtCommand::kTest:
            return AtAnswer::line(command.name + ": " + setting.range);
        case AtCommand::kSet:
            if (command.value.empty()) return AtAnswer::cme(kCmeParameters);
            if (command.name == "+CMGF" && command.value != "0" && command.value != "1") {
                return AtAnswer::cms(kCmsNotSupported);
            }
            value = command.value;
            return {};
        case AtCommand::kExecute:
            break;
    }
    return AtAnswer::error();
}

}  // namespace

void AtSettings::reset() {
    echo = true;
    for (const Setting& entry : kSettings) values_[entry.name] = entry.value;
}

std::optional<AtAnswer> AtSettings::execute(const AtCommand& command, bool huawei) {
    for (const Setting& entry : kSettings) {
        if (command.name == entry.name && (huawei || !entry.huawei))
            return answerOf(entry, command, values_[entry.name]);
    }
    return {};
}

int AtSettings::number(const char* name, size_t index) const {
    std::vector<AtCommand> commands;
    parseAtLine(std::string(name) + "=" + values_.at(name), commands);
    return commands[0].number(index, 0);
}

}  // namespace sim
