// The project's JSON files: an array of objects each.
#pragma once

#include <json/value.h>

#include <functional>
#include <string>
#include <string_view>

#include "alarmd/base/complaint.h"

// A value as a number, a text or a flag. Null gives 0, an empty text or false; other types are converted as
// far as the JSON library converts them. Throw std::runtime_error, its text naming the key, for a value that
// cannot be converted and for an integer out of range.
int numberFrom(const Json::Value& value, std::string_view key);
std::string textFrom(const Json::Value& value, std::string_view key);
bool flagFrom(const Json::Value& value, std::string_view key);

// One element of the array. A missing member is the same as null. Besides, all functions throw
// std::runtime_error for an element that is no object; null counts as one without members.
class JsonElement {
  public:
    explicit JsonElement(const Json::Value& value) : value_(value) {}

    int number(const char* key) const { return numberFrom(member(key), key); }
    std::string text(const char* key) const { return textFrom(member(key), key); }
    bool flag(const char* key) const { return flagFrom(member(key), key); }

    // All members, which come in the ascending byte order of their names.
    const Json::Value& members() const;

  private:
    const Json::Value& member(const char* key) const { return members()[key]; }

    const Json::Value& value_;
};

// Reads the array in path into root. When that fails, complains and returns false: of text that is no JSON
// ("Failed to JSON parse " and name, then the parser's messages), of a document that is no array.
bool readJsonArray(const std::string& path, std::string_view name, Json::Value& root);

// Calls convert for each element of root in order. An element that convert throws std::runtime_error for is
// left out, which is complained of; so is a remark that convert left. All complaints come behind the last
// element.
void convertElements(const std::string& path, const Json::Value& root,
                     const std::function<void(const JsonElement& element, Remark& remark)>& convert);
