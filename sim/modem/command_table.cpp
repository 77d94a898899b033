#include "sim/modem/command_table.h"

#include "sim/modem/network.h"

namespace sim {
namespace {

constexpr int kCapacity = 50;

}  // namespace

struct CommandTable::Entry {
    const char* name;
    AtAnswer (*answer)(CommandTable&, const AtCommand&);
    bool huawei = false;  // these models only
};

CommandTable::CommandTable(const ModemModel& model, ModemWorld& world)
    : model_(&model),
      world_(world),
      sim_(world),
      store_(model.first_index, kCapacity),
      messages_(store_, sim_, settings_) {}

void CommandTable::powerUp() {
    settings_.reset();
    sim_.powerUp();
}

void CommandTable::setModel(const ModemModel& model) {
    model_ = &model;
    store_.renumber(model.first_index);
}

AtAnswer CommandTable::execute(const std::vector<AtCommand>& commands) {
    AtAnswer whole;
    for (const AtCommand& command : commands) {
        const AtAnswer part = execute(command);
        whole.kind = part.kind;
        whole.code = part.code;
        whole.lines.insert(whole.lines.end(), part.lines.begin(), part.lines.end());
        if (part.kind != AtAnswer::kOk) break;
    }
    return whole;
}

AtAnswer CommandTable::execute(const AtCommand& command) {
    using Table = CommandTable;
    static constexpr auto kIdentity = [](Table& t, const AtCommand& c) { return t.identity(c); };
    static constexpr auto kState = [](Table& t, const AtCommand& c) {
        return networkState(c, t.registered());
    };
    static constexpr Entry kTable[] = {
        {"+CPIN", [](Table& t, const AtCommand& c) { return t.sim_.cpin(c); }},
        {"+CSCA", [](Table& t, const AtCommand& c) { return t.sim_.csca(c); }},
        {"+CIMI", [](Table& t, const AtCommand& c) { return t.sim_.cimi(c); }},
        {"+CMGS", [](Table& t, const AtCommand& c) { return t.cmgs(c); }},
        {"+CMGR", [](Table& t, const AtCommand& c) { return t.messages_.cmgr(c); }},
        {"+CMGL", [](Table& t, const AtCommand& c) { return t.messages_.cmgl(c); }},
        {"+CMGD", [](Table& t, const AtCommand& c) { return t.messages_.cmgd(c); }},
        {"+CPMS", [](Table& t, const AtCommand& c) { return t.messages_.cpms(c); }},
        {"+CGMI", kIdentity},
        {"+CGMM", kIdentity},
        {"+GMM", kIdentity},
        {"+CGSN", kIdentity},
        {"+CSQ", kState},
        {"+COPS", kState},
        {"+CREG", kState},
        {"+CGPADDR", kState},
        {"^SYSINFO", kState, true},
        {"^SYSINFOEX", kState, true},
        {"^CARDLOCK", kState, true},
    };
    const char first = command.name[0];
    if (first == '&' || (first >= 'A' && first <= 'Z')) return basic(command);
    for (const Entry& entry : kTable) {
        if (command.name == entry.name && (model_->huawei || !entry.huawei))
            return entry.answer(*this, command);
    }
    return settings_.execute(command, model_->huawei).value_or(AtAnswer::error());
}

AtAnswer CommandTable::basic(const AtCommand& command) {
    static const std::string kWithoutEffect = "HLMQVXOS";
    const std::string& name = command.name;
    if (name == "E") {
        const int value = command.value.empty() ? 0 : command.number(0, -1);
        if (value != 0 && value != 1) return AtAnswer::error();
        settings_.echo = value == 1;
        return {};
    }
    if (name == "Z" || name == "&F") {
        settings_.reset();
        return {};
    }
    if (name == "I") return identity(command);
    const bool known = name[0] == '&' || kWithoutEffect.find(name[0]) != std::string::npos;
    return known ? AtAnswer() : AtAnswer::error();
}

AtAnswer CommandTable::identity(const AtCommand& command) const {
    const std::string& name = command.name;
    if (command.form == AtCommand::kTest) return {};
    if (name == "I") {
        return {AtAnswer::kOk,
                0,
                {std::string("Manufacturer: ") + model_->manufacturer, std::string("Model: ") + model_->name,
                 "Revision: 11.430.61.00.00", "IMEI: 866710030000001"}};
    }
    if (name == "+CGMI") return AtAnswer::line(model_->manufacturer);
    if (name == "+CGSN") return AtAnswer::line("866710030000001");
    return AtAnswer::line(model_->name);
}

AtAnswer CommandTable::cmgs(const AtCommand& command) {
    if (command.form == AtCommand::kTest) return {};
    if (command.form != AtCommand::kSet) return AtAnswer::error();
    if (const int error = messages_.textModeError()) return AtAnswer::cms(error);
    if (!isTelephoneNumber(command.parameters[0])) return AtAnswer::cms(kCmsTextParameter);
    number_ = command.parameters[0];
    return {AtAnswer::kPrompt};
}

}  // namespace sim
