// JSON text in and out, through jsoncpp's classic reader and writer. Any thread.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <string>

// Parses text into root, comments not collected, and returns true. On a failure, also one of nesting too deep
// for the parser, returns false and fills errors with the parser's formatted messages.
bool parseJson(const std::string& text, Json::Value& root, std::string& errors);

// The line, counted from 1, in which the parser's messages place the first fault; 0 when they name none.
size_t faultLine(const std::string& errors);

// The compact form of value, closed by a newline.
std::string writeJson(const Json::Value& value);
