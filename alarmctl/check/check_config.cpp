#include "alarmctl/check/check_config.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>
#include <sstream>
#include <string_view>
#include <vector>

#include "alarmctl/check/check_json_text.h"
#include "alarmd/alarmd.h"
#include "alarmd/project/csv_file.h"
#include "alarmd/settings/setting_table.h"
#include "knihovny/generalfce.h"

namespace {

constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
constexpr int kHighestPort = 65535;
constexpr char kServiceUser[] = "korvato";
constexpr char kServiceFolder[] = "/etc/korvato";

struct Line {
    size_t number;
    std::string key;  // empty for a comment and for a line that is too long
    std::string text;
    std::string value;
    bool ended;  // by a line feed; the daemon does not read it otherwise
    bool too_long;
};

// The lines of a key/value file as ParamNacti sees them.
std::vector<Line> linesOf(const std::string& text) {
    std::vector<Line> lines;
    std::string_view rest = text;
    while (!rest.empty()) {
        const size_t feed = rest.find('\n');
        std::string line(rest.substr(0, feed));
        std::erase(line, '\r');
        const bool comment = line.empty() || std::string_view("#$ ").find(line[0]) != std::string_view::npos;
        const bool too_long = line.size() > kLongestParameterLine;
        const size_t blank = line.find(' ');
        std::string key = comment || too_long ? "" : line.substr(0, blank);
        std::string value = blank == std::string::npos ? "" : line.substr(blank + 1);
        lines.push_back({lines.size() + 1, std::move(key), std::move(line), std::move(value),
                         feed != std::string_view::npos, too_long});
        rest.remove_prefix(feed == std::string_view::npos ? rest.size() : feed + 1);
    }
    return lines;
}

std::string firstWord(const std::string& text) {
    std::istringstream words(text);
    std::string word;
    words >> word;
    return word;
}

// Reads a configuration file; false when that fails, which is reported.
bool readLines(const std::string& path, Severity severity, const char* consequence, Findings& findings,
               std::vector<Line>& lines) {
    std::string text;
    if (!readForCheck(path, severity, consequence, findings, text)) return false;
    lines = linesOf(text);
    return true;
}

// The line whose value counts, or null.
const Line* lineOf(const std::vector<Line>& lines, std::string_view key) {
    const auto found = std::find_if(lines.rbegin(), lines.rend(),
                                    [&](const Line& line) { return line.ended && line.key == key; });
    return found == lines.rend() ? nullptr : &*found;
}

void checkForm(const std::string& path, const std::vector<Line>& lines, Findings& findings) {
    std::map<std::string, size_t> first;
    for (const Line& line : lines) {
        if (line.key.empty()) {
            const std::string word = firstWord(line.text);
            if (isMainKey(word) && line.text[0] == ' ')
                findings.warning({path, line.number}, "indented-key",
                                 "begins with a blank, so \"" + word + "\" is taken for a comment");
            continue;
        }
        if (!line.ended) {
            findings.warning(
                {path, line.number}, "no-line-feed",
                "the last line has no line feed at its end, so " + inQuotes(line.key) + " is not read");
            continue;
        }
        const auto [place, fresh] = first.emplace(line.key, line.number);
        if (!fresh) {
            findings.warning({path, line.number}, "duplicate-key",
                             inQuotes(line.key) + " stands in line " + std::to_string(place->second) +
                                 " already: the last one counts");
        }
    }
}

// The lines up to the first that begins with a zero byte, where the daemon stops.
void cutAtZero(const std::string& path, Findings& findings, std::vector<Line>& lines) {
    const auto zero = std::find_if(lines.begin(), lines.end(), [](const Line& line) {
        return !line.text.empty() && line.text[0] == '\0' && !line.too_long;
    });
    if (zero == lines.end()) return;
    findings.error({path, zero->number}, "zero-byte",
                   "begins with a zero byte: this line and all behind it are not read");
    lines.erase(zero, lines.end());
}

void checkKnownKeys(const std::vector<Line>& lines, Findings& findings) {
    for (const Line& line : lines) {
        if (line.key.empty() || !line.ended || isMainKey(line.key)) continue;
        const Place place{conf_file, line.number};
        if (std::string_view(line.key).substr(0, kByteOrderMark.size()) == kByteOrderMark) {
            findings.warning(place, "byte-order-mark",
                             "the file begins with a byte order mark, which becomes a part of its first key");
        } else {
            const bool tab = line.key.find('\t') != std::string::npos;
            findings.warning(place, "unknown-key",
                             inQuotes(line.key) + " is no key of this file and is not read" +
                                 (tab ? " (a tab does not separate key and value)" : ""));
        }
    }
}

// The value of a key of the main file; an empty one is reported.
const Line* mainKey(const std::vector<Line>& lines, std::string_view key, const char* consequence,
                    Findings& findings) {
    const Line* line = lineOf(lines, key);
    if (line == nullptr || line->value.empty()) {
        const std::string what = line == nullptr ? " is missing: " : " is empty: ";
        findings.error({conf_file, line == nullptr ? 0 : line->number}, "missing-key",
                       "\"" + std::string(key) + "\"" + what + consequence);
        return nullptr;
    }
    if (line->value.front() == ' ' || line->value.back() == ' ') {
        findings.warning({conf_file, line->number}, "blank-in-value",
                         "the value begins or ends with a blank, which belongs to it");
    }
    return line;
}

void checkFolder(const Line& line, const char* use, Findings& findings) {
    const Place place{conf_file, line.number};
    struct stat info;
    if (stat(line.value.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        findings.error(place, "no-folder", inQuotes(line.value) + " is no folder: " + use);
    } else if (line.value[0] != '/') {
        findings.note(place, "relative-path",
                      inQuotes(line.value) + " is looked for in the daemon's working directory");
    }
}

bool isPort(const std::string& text) {
    return !text.empty() && text.size() <= 5 && std::all_of(text.begin(), text.end(), ::isdigit) &&
           std::stoi(text) >= 1 && std::stoi(text) <= kHighestPort;
}

bool readMain(Findings& findings, std::vector<Line>& lines) {
    return readLines(conf_file, Severity::kError,
                     "the daemon knows neither its project nor the server nor the mail client", findings,
                     lines);
}

bool checkMain(Findings& findings) {
    std::vector<Line> lines;
    if (!readMain(findings, lines)) return false;
    cutAtZero(conf_file, findings, lines);
    checkForm(conf_file, lines, findings);
    checkKnownKeys(lines, findings);
    if (const Line* line =
            mainKey(lines, "pFolder", "the project is looked for in the root directory", findings))
        checkFolder(*line, "no project is loaded", findings);
    const Line* port_line = mainKey(lines, "https_port", "the alarm history is not reached", findings);
    if (port_line != nullptr && !isPort(port_line->value)) {
        findings.error(
            {conf_file, port_line->number}, "bad-port",
            inQuotes(port_line->value) + " is no port (1 to 65535): the alarm history is not reached");
    }
    if (const Line* line =
            mainKey(lines, "binFolder", "the mail client is looked for in /ext/msmtp", findings))
        checkFolder(*line, "the mail client is not found", findings);
    return true;
}

// The words of the lines as the mail client reads them: blanks in front do not matter to it.
bool hasAccount(const std::vector<Line>& lines) {
    return std::any_of(lines.begin(), lines.end(), [](const Line& line) {
        std::istringstream words(line.text);
        std::string command, name;
        words >> command >> name;
        return command == "account" && (name == "korvato" || name == "korvato:");
    });
}

bool holdsPassword(const std::vector<Line>& lines) {
    return std::any_of(lines.begin(), lines.end(),
                       [](const Line& line) { return firstWord(line.text) == "password"; });
}

void checkSender(const std::vector<Line>& lines, Findings& findings) {
    const Line* from = lineOf(lines, "from");
    if (from != nullptr && !from->value.empty()) return;
    const auto hidden = std::find_if(lines.begin(), lines.end(),
                                     [](const Line& line) { return firstWord(line.text) == "from"; });
    std::string why = "\"from\" is missing";
    if (hidden != lines.end() && !hidden->ended) {
        why = "\"from\" stands in a last line without a line feed, which the daemon does not read";
    } else if (hidden != lines.end()) {
        why = "the daemon finds no \"from\": it must begin its line, one blank and the sender behind it";
    }
    findings.warning({msmtp_conf_file, hidden == lines.end() ? 0 : hidden->number}, "no-sender",
                     why + ": the mails name no sender");
}

bool liesInServiceFolder(const std::string& path) {
    std::error_code error;
    const auto file = std::filesystem::absolute(path, error);
    return !error && std::filesystem::canonical(file.parent_path(), error) == kServiceFolder;
}

// Who the mail client runs as: whoever checks his own files, but for root the service's user, when it is the
// service's file. Root, when that is not known.
uid_t mailClientUser() {
    const uid_t self = geteuid();
    if (self != 0 || !liesInServiceFolder(msmtp_conf_file)) return self;
    const passwd* service = getpwnam(kServiceUser);
    return service == nullptr ? self : service->pw_uid;
}

std::string userName(uid_t id) {
    const passwd* entry = getpwuid(id);
    return entry == nullptr ? std::to_string(id) : entry->pw_name;
}

void checkPasswordFile(Findings& findings) {
    constexpr mode_t kOthers = 077;
    const Place place{msmtp_conf_file};
    struct stat info;
    if (stat(msmtp_conf_file.c_str(), &info) != 0) return;
    const uid_t reader = mailClientUser();
    const std::string refusal = passwordFileRefusal(info, reader);
    const std::string said = ": the mail client refuses every mail (\"" + refusal + "\"); ";
    const std::string mend = "chmod 600 " + msmtp_conf_file;
    if (!refusal.empty() && info.st_uid != reader) {
        findings.error(place, "foreign-owner",
                       "holds a password and belongs to " + userName(info.st_uid) + ", not to " +
                           userName(reader) + said + "chown " + userName(reader) + " " + msmtp_conf_file +
                           " && " + mend);
    } else if (!refusal.empty()) {
        findings.error(place, "open-permissions",
                       "holds a password and has rights beyond its owner's to read and write" + said + mend);
    } else if (reader == 0 && (info.st_mode & kOthers) != 0) {
        findings.error(place, "open-permissions",
                       "holds a password and others have rights to it: the mail client refuses every mail, "
                       "unless it runs as root (chmod 600)");
    }
}

void checkMailClientFile(Findings& findings) {
    std::vector<Line> lines;
    if (!readLines(msmtp_conf_file, Severity::kError, "no mail is sent", findings, lines)) return;
    checkSender(lines, findings);
    if (!hasAccount(lines)) {
        findings.error({msmtp_conf_file}, "no-account",
                       "there is no account \"korvato\": the mail client refuses every mail");
    }
    if (holdsPassword(lines)) checkPasswordFile(findings);
}

}  // namespace

std::string passwordFileRefusal(const struct stat& file, uid_t reader) {
    constexpr mode_t kReadByOthers = 044;
    constexpr mode_t kMoreThanReadAndWrite = 0177;
    if (reader == 0) return "";
    if (file.st_uid != reader) {
        return (file.st_mode & kReadByOthers) == 0 ? "Permission denied"
                                                   : "contains secrets and therefore must be owned by you";
    }
    if ((file.st_mode & kMoreThanReadAndWrite) != 0)
        return "contains secrets and therefore must have no more than user read/write permissions";
    return "";
}

bool mainFileIsReadable(Findings& findings) {
    std::vector<Line> lines;
    return readMain(findings, lines);
}

bool checkConfiguration(Findings& findings) {
    if (!checkMain(findings)) return false;
    checkMailClientFile(findings);
    std::vector<Line> lines;
    readLines(sms_conf_file, Severity::kNote, "nothing is taken from it anyway", findings, lines);
    return true;
}

void checkProjectIdFile(Findings& findings) {
    std::vector<Line> lines;
    if (!readLines(project_file, Severity::kError, "the project id is the character with the code 0",
                   findings, lines))
        return;
    checkForm(project_file, lines, findings);
    const Line* line = lineOf(lines, "projectID");
    const int number = line == nullptr ? 0 : leadingNumber(line->value);
    const int code = number & 0xff;
    const Place place{project_file, line == nullptr ? 0 : line->number};
    if (code > ' ' && code < 0x7f) {
        findings.note(place, "narrow-project-id",
                      "the project id " + std::to_string(number) + " is sent as the one character '" +
                          static_cast<char>(code) + "' whose code it is (setting.json carries longer ids)");
    } else {
        findings.warning(place, "no-project-id",
                         std::string(line == nullptr ? "\"projectID\" is missing, so its value is 0"
                                                     : "the project id " + std::to_string(number)) +
                             ": sent as the character with the code " + std::to_string(code) +
                             ", which no text can show");
    }
}
