// The daemon's answers taken apart. Pure: text in, values out.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// The answer to a request for this protocol (50 to 56) as a JSON object with "r", "s" and "d" or "err";
// nothing when it is not understood. The frame of an answer is fixed and the data in it is not escaped, so
// the data is what stands between the known parts of the frame: quotation marks and backslashes in an SMS are
// taken as they came. All texts are valid UTF-8 then; a byte that was not becomes U+FFFD. What the daemon's
// print makes of
// "%s" is undone; a "%%" has become "%" for good.
std::optional<Json::Value> readAnswer(int protocol, const std::string& body);

// The text with each byte that makes it no UTF-8 replaced by U+FFFD.
std::string validUtf8(std::string_view text);

// The text with control characters replaced by "?", so that it cannot steer a terminal. REQUIRES: valid
// UTF-8.
std::string printable(const std::string& text);

// A position and what belongs to it, as the parsed GPS sentences (protocol 53) tell it. Texts are empty where
// the sentences have nothing.
struct GpsReport {
    bool fix = false;
    std::string latitude, longitude;        // degrees and minutes: 50°04.5859' N
    std::optional<double> north, east;      // degrees
    std::string knots, kilometres, course;  // speed over ground in knots and in km/h; degrees
    std::string altitude;                   // metres
    std::string satellites_used, satellites_in_view;
    std::optional<int64_t> time;  // seconds since 1970
};

// data: the member "d" of the answer.
GpsReport readGps(const Json::Value& data);
