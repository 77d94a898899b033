#include "alarmctl/check/check_json_text.h"

#include <strings.h>
#include <unistd.h>

#include <algorithm>

#include "alarmctl/text/sms_length.h"
#include "alarmd/base/files.h"
#include "alarmd/base/json.h"
#include "knihovny/regular_file.h"

namespace {

// The place of the first of the parser's messages and the reason in the line behind it.
struct ParseFault {
    size_t line = 0;
    std::string reason;
};

ParseFault faultIn(const std::string& messages) {
    ParseFault fault{faultLine(messages), ""};
    size_t begin = 0;
    if (fault.line > 0) {
        begin = std::min(messages.find('\n'), messages.size() - 1) + 1;
    }
    begin = std::min(messages.find_first_not_of("* \n", begin), messages.size());
    fault.reason = messages.substr(begin, messages.find('\n', begin) - begin);
    return fault;
}

// The line of the first byte that belongs to no character, 0 when there is none.
size_t lineOfBadByte(std::string_view text) {
    for (size_t line = 1; !text.empty(); ++line) {
        const size_t feed = std::min(text.find('\n'), text.size() - 1);
        const std::string_view bytes = text.substr(0, feed + 1);
        const bool plain = std::all_of(bytes.begin(), bytes.end(),
                                       [](char c) { return static_cast<unsigned char>(c) < 0x80; });
        if (!plain) {
            const std::vector<char32_t> characters = charactersOf(bytes);
            if (std::find(characters.begin(), characters.end(), char32_t{0xfffd}) != characters.end())
                return line;
        }
        text.remove_prefix(feed + 1);
    }
    return 0;
}

bool sameButForCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace

bool parseForCheck(const std::string& path, Json::Value& root) {
    std::string text, errors;
    return readWholeFile(path, text) && parseJson(text, root, errors);
}

bool readForCheck(const std::string& path, Severity severity, const std::string& consequence,
                  Findings& findings, std::string& text) {
    findings.lookedAt(path);
    std::string reason;
    const int descriptor = openRegularFile(path, reason);
    if (descriptor < 0) {
        findings.add({severity, {path}, "unreadable", "cannot be opened (" + reason + "): " + consequence});
        return false;
    }
    close(descriptor);
    readWholeFile(path, text);
    return true;
}

bool parseForCheck(const std::string& path, Severity severity, const std::string& consequence,
                   Findings& findings, Json::Value& root) {
    std::string text, errors;
    if (!readForCheck(path, severity, consequence, findings, text)) return false;
    if (!parseJson(text, root, errors)) {
        const ParseFault fault = faultIn(errors);
        findings.add(
            {severity, {path, fault.line}, "not-json", "is no JSON (" + fault.reason + "): " + consequence});
        return false;
    }
    if (const size_t line = lineOfBadByte(text); line > 0)
        findings.warning({path, line}, "not-utf8",
                         "is not UTF-8, and mails say that they are: the text comes out wrong");
    return true;
}

void UnreadKeys::look(const Json::Value& object, const Place& place) {
    for (auto member = object.begin(); member != object.end(); ++member) {
        const char* end = nullptr;
        const char* start = member.memberName(&end);
        const std::string_view name(start, static_cast<size_t>(end - start));
        if (std::find(known_.begin(), known_.end(), name) != known_.end()) continue;
        auto found = unread_.find(name);
        if (found == unread_.end()) found = unread_.emplace(name, Unread{place}).first;
        ++found->second.count;
    }
}

void UnreadKeys::tell(Findings& findings) const {
    for (const auto& [name, unread] : unread_) {
        const auto meant = std::find_if(known_.begin(), known_.end(), [&name = name](std::string_view key) {
            return sameButForCase(key, name);
        });
        const std::string times = unread.count > 1 ? " (" + std::to_string(unread.count) + " times)" : "";
        std::string text = inQuotes(name) + " is not read" + times;
        if (meant != known_.end()) text += ": the key is \"" + std::string(*meant) + "\"";
        findings.add({meant == known_.end() ? Severity::kNote : Severity::kWarning, unread.first,
                      "unknown-key", std::move(text)});
    }
}
