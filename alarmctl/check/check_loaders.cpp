#include "alarmctl/check/check_loaders.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "alarmctl/commands.h"
#include "alarmd/alarmd.h"
#include "alarmd/project/csv_file.h"
#include "alarmd/settings/config.h"
#include "alarmd/settings/modem_settings.h"
#include "knihovny/splitter.h"

namespace {

constexpr char kPrefix[] = "alarmd: ";

// Which finding a reason is, by a part of it; the first that fits.
struct Kind {
    std::string_view part;
    Severity severity;
    const char* code;
};

constexpr Kind kKinds[] = {
    {"is not within 0 to", Severity::kWarning, "group-number"},
    {"longer than", Severity::kWarning, "line-too-long"},
    {"(element left out)", Severity::kWarning, "element-dropped"},
    {"is ignored: out of range", Severity::kWarning, "out-of-range"},
    {"is ignored: not an object", Severity::kError, "wrong-shape"},
    {"is ignored: ", Severity::kWarning, "wrong-type"},
    {"the document is not an", Severity::kError, "wrong-shape"},
    {"", Severity::kError, "unreadable"},
};

constexpr Kind kLastWords[] = {
    {"4 columns", Severity::kError, "four-columns"},
    {"", Severity::kError, "malformed-setting"},
};

template <size_t N>
const Kind& kindOf(const Kind (&kinds)[N], std::string_view reason) {
    return *std::find_if(std::begin(kinds), std::end(kinds),
                         [&](const Kind& kind) { return reason.find(kind.part) != std::string_view::npos; });
}

// Takes ", line 12: " or ", element 12: " or ": " from the front of text.
Place takePlace(const std::string& file, std::string_view& text) {
    Place place{file};
    const auto take = [&](std::string_view label, size_t& number) {
        if (text.substr(0, label.size()) != label) return;
        text.remove_prefix(label.size());
        number = static_cast<size_t>(leadingNumber(text));
        text.remove_prefix(std::min(text.find(':'), text.size()));
    };
    take(", line ", place.line);
    take(", element ", place.element);
    text.remove_prefix(std::min(text.find_first_not_of(": "), text.size()));
    // The JSON parser names the line in its own words.
    constexpr std::string_view kParserLine = "Line ";
    if (text.substr(0, kParserLine.size()) == kParserLine)
        place.line = static_cast<size_t>(leadingNumber(text.substr(kParserLine.size())));
    return place;
}

// The longest of the daemon's files that text begins with.
std::string fileAtFrontOf(std::string_view text) {
    const std::string* longest = nullptr;
    for (const std::string* file :
         {&conf_file, &msmtp_conf_file, &sms_conf_file, &system_setting, &group_list, &group_list_json,
          &cas_list, &cas_list_json, &project_file, &project_file_json, &acc_list, &acc_list_json}) {
        if (text.substr(0, file->size()) != *file) continue;
        if (longest == nullptr || file->size() > longest->size()) longest = file;
    }
    return longest == nullptr ? conf_file : *longest;
}

void readAll() {
    readConfigFiles();
    loadProjectFiles(false);
    readSMSset();
}

[[noreturn]] void runChild(int standard_error) {
    const rlimit no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    const int nowhere = open("/dev/null", O_WRONLY);
    dup2(nowhere, STDOUT_FILENO);
    dup2(standard_error, STDERR_FILENO);
    readAll();
    fflush(nullptr);
    _exit(0);
}

std::string textIn(int descriptor) {
    std::string text;
    char buffer[4096];
    ssize_t count;
    lseek(descriptor, 0, SEEK_SET);
    while ((count = read(descriptor, buffer, sizeof buffer)) > 0)
        text.append(buffer, static_cast<size_t>(count));
    return text;
}

}  // namespace

Silence::Silence() {
    fflush(nullptr);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    for (int i = 0; i < 2; ++i) {
        saved_[i] = fcntl(i + 1, F_DUPFD_CLOEXEC, 3);
        dup2(nowhere, i + 1);
    }
    close(nowhere);
}

Silence::~Silence() {
    fflush(nullptr);
    for (int i = 0; i < 2; ++i) {
        dup2(saved_[i], i + 1);
        close(saved_[i]);
    }
}

LoaderRun::LoaderRun() : errors_(memfd_create("loaders", MFD_CLOEXEC)) {
    fflush(nullptr);
    child_ = fork();
    if (child_ < 0) {
        perror("alarmctl: fork");
        exit(kFailed);
    }
    if (child_ == 0) runChild(errors_.get());
}

LoaderRun::~LoaderRun() {
    if (child_ > 0) outcome();
}

LoaderOutcome LoaderRun::outcome() {
    LoaderOutcome result;
    int status = 0;
    while (waitpid(child_, &status, 0) < 0 && errno == EINTR) {
    }
    child_ = 0;
    result.survived = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    const Splitter lines(textIn(errors_.get()), "\n");
    for (size_t i = 0; i < lines.size(); ++i) {
        if (!lines[i].empty()) result.complaints.push_back(lines[i]);
    }
    return result;
}

void loadAll() {
    const Silence silence;
    readAll();
}

void loadConfiguration() {
    const Silence silence;
    readConfigFiles();
}

Finding findingFrom(const std::string& complaint, bool last_words) {
    std::string_view text = complaint;
    if (text.substr(0, sizeof kPrefix - 1) == kPrefix) text.remove_prefix(sizeof kPrefix - 1);
    const std::string file = fileAtFrontOf(text);
    if (text.substr(0, file.size()) == file) text.remove_prefix(file.size());
    Place place = takePlace(file, text);
    const Kind& kind = last_words ? kindOf(kLastWords, text) : kindOf(kKinds, text);
    return {kind.severity, std::move(place), kind.code,
            std::string(text) + (last_words ? ": the daemon ends" : "")};
}
