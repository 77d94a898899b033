// Files as the checks read them, JSON files above all.
#pragma once

#include <json/value.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "alarmctl/check/findings.h"

// Reads a whole file. False when that fails, which is reported as a finding of that severity.
bool readForCheck(const std::string& path, Severity severity, const std::string& consequence,
                  Findings& findings, std::string& text);

// Parses the file as the daemon does. False when it cannot be read or is no JSON.
bool parseForCheck(const std::string& path, Json::Value& root);

// The same; a failure is reported as a finding of that severity, with its line when there is one, and so is a
// text that is not UTF-8.
bool parseForCheck(const std::string& path, Severity severity, const std::string& consequence,
                   Findings& findings, Json::Value& root);

// Collects the members of objects that the daemon does not look at: one finding a name.
class UnreadKeys {
  public:
    explicit UnreadKeys(std::vector<std::string_view> known) : known_(std::move(known)) {}

    // REQUIRES: object is an object.
    void look(const Json::Value& object, const Place& place);

    // A name that differs from a known one in its case only is a warning, any other a note.
    void tell(Findings& findings) const;

  private:
    struct Unread {
        Place first;
        size_t count = 0;
    };

    std::vector<std::string_view> known_;
    std::map<std::string, Unread, std::less<>> unread_;
};
