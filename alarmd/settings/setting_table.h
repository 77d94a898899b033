// The settings, each in one place: reading, the printed summary, the checks of the companion program and the
// tables in docs/CONFIGURATION.md and korvato.conf(5) come from here, or are compared with it by a test.
//
// The tables are constant: any thread may look at them. What a target points to is guarded as alarmd.h says.
#pragma once

#include <atomic>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

// ---------------------------------------------------------------------------------------------------------------
// settings.json, object "network", member "modem".

constexpr char kNetwork[] = "network";
constexpr char kModem[] = "modem";

// The type of the preset, which is the default, is the type of the setting.
using SettingValue = std::variant<std::string, int, bool>;

// The settings_mutex guards the texts; what is neither text nor atomic is for the main thread only. A flag
// may be set by an integer that is not 0.
using SettingTarget = std::variant<std::string*, std::atomic<int>*, std::atomic<bool>*, int*, bool*>;

// What becomes of an integer out of its range.
enum class Outside {
    kDefault,         // the default is taken, which is complained of
    kPortKeeps,       // it is taken, and the serial port keeps what it had
    kTaken,           // it is taken, with a meaning that nobody would expect
    kFunctionIsLost,  // it is taken, and a function does not work
};

struct Range {
    int least, most;
    Outside outside;
    const char* remark = "";  // kPortKeeps: what the values mean; of the last two: what comes of it
};

// A part of the printed summary: the label with all its blanks, and where it stands, counted from 1.
struct SummaryPart {
    const char* label;
    size_t place;
};

struct Setting {
    const char* name;
    SettingValue preset;
    SettingTarget target;
    const char* meaning;
    std::optional<Range> range{};  // of integers
    std::optional<SummaryPart> summary{};
};

// In the order in which the daemon looks at them, and complains.
const std::vector<Setting>& modemSettings();

// ---------------------------------------------------------------------------------------------------------------
// The key/value files.

enum class KeyFile { kMain, kMailClient };

struct ConfigKey {
    KeyFile file;
    std::string_view name;
    std::string* target;  // empty when the file does not supply the key
    const char* meaning;
};

const std::vector<ConfigKey>& configKeys();

// Whether the daemon takes a key of that name from its main file.
bool isMainKey(std::string_view name);
