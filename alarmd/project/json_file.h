// The project's JSON files: an array of objects each.
#pragma once

#include <json/value.h>

#include <functional>
#include <string>
#include <string_view>

// One element of the array. A member that is missing or null gives 0, an empty text or false; other types are
// converted as far as the JSON library converts them. Functions throw std::runtime_error, its text naming the
// key, for a member that cannot be converted (or an integer out of range), and for an element that is no
// object.
class JsonElement {
  public:
    explicit JsonElement(const Json::Value& value) : value_(value) {}

    int number(const char* key) const;
    std::string text(const char* key) const;
    bool flag(const char* key) const;
    const Json::Value& member(const char* key) const;

  private:
    const Json::Value& value_;
};

// Reads the array in path into root. When that fails, tells of it and returns false: text that is no JSON on
// standard output ("Failed to JSON parse " and name, then the parser's messages), a document that is no array
// on standard error.
bool readJsonArray(const std::string& path, std::string_view name, Json::Value& root);

// Calls convert for each element of root in order. An element that convert throws for is left out, which is
// told in one line on standard error (file, number of the element counted from 1, reason); so is a remark
// that convert left.
void convertElements(const std::string& path, const Json::Value& root,
                     const std::function<void(const JsonElement& element, std::string& remark)>& convert);
