#include "tests/fuzz/world.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <set>

#include "alarmd/base/fatal.h"
#include "alarmd/intake/acknowledge.h"
#include "alarmd/mail/mail_channel.h"
#include "alarmd/project/alarm_definitions.h"
#include "alarmd/project/csv_file.h"
#include "alarmd/project/texts.h"
#include "alarmd/sms/sms_thread.h"
#include "alarmd/sms/timed_text/modem_port.h"
#include "knihovny/clock.h"
#include "knihovny/debugerror.h"
#include "knihovny/generalfce.h"
#include "tests/support/resets.h"

namespace fuzz {

World world;

namespace {

constexpr int64_t kNanosecondsPerSecond = 1000000000;
constexpr int64_t kStart = 1700000000 * kNanosecondsPerSecond;

const char* running = "";  // the present target

int64_t seconds() {
    return world.nanoseconds / kNanosecondsPerSecond;
}

class Console final : public LogTarget {
  public:
    void print(std::string_view text) override { world.printed += text; }
    void printError(std::string_view text) override { world.complained += text; }
};

class WorldClock final : public Clock {
  public:
    time_t now() const override { return seconds(); }

    // While the daemon waits, the modem answers.
    void sleep(long length, long nanoseconds) override {
        world.nanoseconds += length * kNanosecondsPerSecond + nanoseconds;
        if (!world.modem_has_command) return;
        world.modem_has_command = false;
        modemSays(world.modem_answer);
    }
};

// Puts the world in the place of what the daemon reaches outside of itself.
void takePlaces() {
    static Console console;
    static WorldClock clock;
    setLogTarget(&console);
    process_clock = &clock;
    end_process = [](std::string_view line) { throw ProcessEnd{std::string(line)}; };
    write_to_modem = [](const char* data, int length) {
        world.to_modem.emplace_back(data, static_cast<size_t>(length));
        world.modem_has_command = true;
        return length;
    };
    write_to_server = [](const char* data, int length) {
        world.to_server.emplace_back(data, static_cast<size_t>(length));
        return length;
    };
    run_mail_client = [](const std::string& path, const std::vector<std::string>& arguments,
                         const std::string& input) {
        world.mails.push_back({path, arguments, input});
        return ClientResult();
    };
}

void reset() {
    resetDaemonState();
    smspeermin = 1000000;  // no message is to wait for the next minute
    srand(1);
    takePlaces();
    world = World();
    world.nanoseconds = kStart;
}

// The definition's part of a text in a language, as a walk over the definitions adds it up.
void addText(std::string& text, const std::vector<_translate>& translations, const std::string& otherwise,
             const std::string& lang) {
    for (const _translate& translation : translations) {
        if (translation.lang == lang) text = translation.text;
    }
    if (text.empty()) text = otherwise;
}

_langs textsByWalk(int id, const std::string& lang) {
    _langs texts;
    MutexLock lock(project_mutex);
    for (const auto& [key, definition] : alarm_def_map) {
        if (key < 0 || definition.id != id) continue;
        addText(texts.deviceLangs, definition.deviceLangs, definition.device, lang);
        addText(texts.messageLangs, definition.messageLangs, definition.message, lang);
        addText(texts.areaLangs, definition.areaLangs, definition.area, lang);
    }
    return texts;
}

void checkTexts(int id, const std::string& lang) {
    const _langs expected = textsByWalk(id, lang);
    const _langs texts = getTextForLangs(id, lang);
    MUST(texts.deviceLangs == expected.deviceLangs);
    MUST(texts.messageLangs == expected.messageLangs);
    MUST(texts.areaLangs == expected.areaLangs);
}

}  // namespace

void finding(const char* file, int line, const char* what) {
    const std::string text =
        std::string(file) + ":" + std::to_string(line) + ": target " + running + ": " + what + "\n";
    fwrite(text.data(), 1, text.size(), stderr);
    std::abort();
}

std::vector<Target>& targets() {
    static std::vector<Target> all;
    return all;
}

void run(const Target& target, std::string_view input) {
    running = target.name;
    reset();
    try {
        target.body(input);
    } catch (const ProcessEnd& end) {
        finding(__FILE__, __LINE__, ("the process ends: " + end.line).c_str());
    } catch (const std::exception& error) {
        finding(__FILE__, __LINE__, error.what());
    }
}

void modemSays(std::string_view bytes) {
    for (const char c : bytes) {
        char byte[2] = {c, '\0'};
        MyModem.ZpracujByte(byte);
        MutexLock lock(reply_mutex);
        MUST(pocetpz >= 0 && pocetpz <= kReplyLimit);
    }
}

// For each message the number, in one command line of its own, and then a text that nothing in it ends,
// unless the modem may have refused the number.
void sendWaitingSms() {
    const size_t before = world.to_modem.size();
    const bool refuses = count(world.modem_answer, "ERROR") > 0;
    zpracuj_sms();
    for (size_t i = before; i < world.to_modem.size(); ++i) {
        const std::string& command = world.to_modem[i];
        if (command == "\x1b") continue;  // to a prompt that came behind a refusal
        MUST(command.starts_with("at+CMGS=\"") && command.ends_with("\"\r"));
        MUST(count(command, "\"") == 2 && count(command, "\r") == 1 && count(command, "\n") == 0);
        if (refuses && (i + 1 == world.to_modem.size() || world.to_modem[i + 1] == "\x1b" ||
                        world.to_modem[i + 1].starts_with("at+CMGS=")))
            continue;
        MUST(++i < world.to_modem.size());
        const std::string& text = world.to_modem[i];
        MUST(count(text, "\x1b") == 0 && count(text, "\x1a") == 1);
        MUST(text.ends_with(std::string("\r\x1a\0\0\0\0\0\0\0\0\0\0", 12)));
    }
}

MemoryFile::MemoryFile(std::string_view content) : descriptor_(memfd_create("fuzz", MFD_CLOEXEC)) {
    if (descriptor_.get() < 0 ||
        write(descriptor_.get(), content.data(), content.size()) != static_cast<ssize_t>(content.size()))
        finding(__FILE__, __LINE__, "no file in memory");
}

std::string MemoryFile::path() const {
    return "/proc/self/fd/" + std::to_string(descriptor_.get());
}

std::vector<std::string> parts(std::string_view text, char separator) {
    std::vector<std::string> all;
    for (size_t end; (end = text.find(separator)) != std::string_view::npos; text.remove_prefix(end + 1)) {
        all.emplace_back(text.substr(0, end));
    }
    all.emplace_back(text);
    return all;
}

std::string Fields::text() {
    const size_t end = std::min(rest_.find(kBetweenFields), rest_.size());
    const std::string field(rest_.substr(0, end));
    rest_.remove_prefix(std::min(end + 1, rest_.size()));
    return field;
}

int64_t Fields::integer() {
    return strtoll(text().c_str(), nullptr, 10);
}

double Fields::real() {
    return strtod(text().c_str(), nullptr);
}

std::vector<std::vector<std::string>> csvRows(std::string_view content) {
    std::vector<std::vector<std::string>> rows;
    std::vector<std::string> lines = parts(content, '\n');
    if (lines.back().empty()) lines.pop_back();
    for (const std::string& line : lines) {
        rows.push_back(txt2vector(line, ";"));
        if (rows.back().size() > CsvFile::kMaxColumns) rows.back().resize(CsvFile::kMaxColumns);
    }
    return rows;
}

size_t count(std::string_view text, std::string_view part) {
    size_t times = 0;
    for (size_t at = text.find(part); at != std::string_view::npos; at = text.find(part, at + part.size()))
        ++times;
    return times;
}

void checkDefinitions() {
    constexpr size_t kMostTexts = 20;
    std::set<int> ids{-1, 0, 1};
    std::set<std::string> langs{"", "default"};
    {
        MutexLock lock(project_mutex);
        for (const auto& [key, definition] : alarm_def_map) {
            if (ids.size() < kMostTexts) ids.insert({key, definition.id});
            for (const auto* list :
                 {&definition.areaLangs, &definition.messageLangs, &definition.deviceLangs}) {
                for (const _translate& translation : *list) {
                    if (langs.size() < kMostTexts) langs.insert(translation.lang);
                }
            }
        }
        for (const _group& group : list_group) {
            for (const int id : group.alarm_ids) MUST(alarm_def_map.contains(id));
        }
    }
    for (const int id : ids) {
        for (const std::string& lang : langs) checkTexts(id, lang);
    }
}

void defineAlarm(const _alarm_def& definition) {
    MutexLock lock(project_mutex);
    alarm_def_map[definition.id] = definition;
    list_group[0].alarm_ids.push_back(definition.id);
    definitionsChanged();
}

void addUser(const _user& entry) {
    MutexLock lock(project_mutex);
    list_group[entry.group].users.push_back(entry);
    user_list.push_back(entry);
}

}  // namespace fuzz
