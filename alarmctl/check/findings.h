// What a check found, and its forms for people and for programs.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "alarmctl/text/wording.h"

enum class Severity {
    kNote,     // worth knowing
    kWarning,  // something is skipped, dropped or reaches nobody
    kError,    // the daemon would end, or a whole file or function does not work
};

// "note", "warning" or "error".
const char* severityName(Severity severity);

// A place in a file: a line or an element of an array, counted from 1, or the file as a whole (both 0).
struct Place {
    std::string file;
    size_t line = 0;
    size_t element = 0;
};

struct Finding {
    Severity severity;
    Place place;
    std::string code;  // stable, for programs
    std::string text;  // one sentence: what is there and what the daemon makes of it
};

class Findings {
  public:
    void error(Place place, std::string code, std::string text);
    void warning(Place place, std::string code, std::string text);
    void note(Place place, std::string code, std::string text);
    void add(Finding finding);

    // Notes that a file was looked at. Files are listed in the order in which they were first named here or
    // by a finding.
    void lookedAt(const std::string& file);

    const std::vector<std::string>& files() const { return files_; }
    size_t count(Severity severity) const;

    // File by file, by line or element within a file; otherwise as they were added.
    std::vector<Finding> sorted() const;

    // "PATH:12: warning: TEXT [CODE]", a finding a line, in the order of sorted. most > 0: of each code in
    // each file so many lines at most, then one that counts the rest. Control characters are replaced.
    std::string text(size_t most) const;

    // The members "files", "findings", "errors", "warnings", "notes".
    Json::Value json() const;

  private:
    std::vector<Finding> findings_;
    std::vector<std::string> files_;
};
