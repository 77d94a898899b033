#include "alarmctl/daemon/daemon_answers.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "alarmd/base/json.h"
#include "alarmd/requests/answers.h"

namespace {

// ---- the frame

enum class Kind { kText, kNumber, kTexts };

struct Member {
    const char* name;
    Kind kind;
};

struct Frame {
    int protocol;
    std::vector<Member> members;
};

constexpr Kind kText = Kind::kText;

const Frame kFrames[] = {
    {51,
     {{"TYPE", kText},
      {"IMEI", kText},
      {"CSQ", kText},
      {"SYSCFG", kText},
      {"SYSCFGEX", kText},
      {"COPS", kText},
      {"CREG", kText},
      {"CARDLOCK", kText},
      {"SYSINFO", kText},
      {"SYSINFOEX", kText},
      {"CGPADDR", kText},
      {"CGEQNEG", kText},
      {"SMSCOUNT", kText},
      {"UPDATED", kText}}},
    {52, {{"GGA", kText}, {"GSA", kText}, {"RMC", kText}, {"VTG", kText}, {"GSV", Kind::kTexts}}},
    {53, {{"GGA", kText}, {"GSA", kText}, {"RMC", kText}, {"VTG", kText}, {"GSV", kText}}},
    {54, {{"Timestamp", Kind::kNumber}, {"From", kText}, {"Text", kText}}},
};

std::string frameHead(const Frame& frame) {
    return "{\"r\":" + std::to_string(frame.protocol) + ",\"s\":1,\"d\":{";
}

std::string opening(const Member& member) {
    const char* const begin = member.kind == Kind::kText ? "\"" : member.kind == Kind::kTexts ? "[" : "";
    return std::string("\"") + member.name + "\":" + begin;
}

std::string closing(const Member& member) {
    return member.kind == Kind::kText ? "\"" : member.kind == Kind::kTexts ? "]" : "";
}

// The answer is the format of its own print: its first "%s" has been replaced by all of it. The original then
// stands in the result, and is the part that gives the result.
std::string undoPrint(const std::string& text, const std::string& head) {
    const size_t begin = text.find(head, 1);
    if (begin == std::string::npos) return text;
    for (size_t end = text.find("}}", begin); end != std::string::npos; end = text.find("}}", end + 1)) {
        for (const size_t tail : {size_t{3}, size_t{2}}) {  // with and without a line feed
            std::string original = text.substr(begin, end + tail - begin);
            if (formatWithItself(original) == text) return original;
        }
    }
    return text;
}

// ---- values

// The length of the UTF-8 character at the begin of text, 0 when there is no valid one.
size_t characterLength(std::string_view text) {
    const auto at = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const size_t length = at(0) < 0x80                    ? 1
                          : at(0) >= 0xc2 && at(0) < 0xe0 ? 2
                          : at(0) >= 0xe0 && at(0) < 0xf0 ? 3
                          : at(0) >= 0xf0 && at(0) < 0xf5 ? 4
                                                          : 0;
    if (length == 0 || length > text.size()) return 0;
    for (size_t i = 1; i < length; ++i) {
        if ((at(i) & 0xc0) != 0x80) return 0;
    }
    // Too long a form, a half of a pair, beyond the last character.
    if ((at(0) == 0xe0 && at(1) < 0xa0) || (at(0) == 0xed && at(1) > 0x9f) ||
        (at(0) == 0xf0 && at(1) < 0x90) || (at(0) == 0xf4 && at(1) > 0x8f)) {
        return 0;
    }
    return length;
}

bool readNumber(std::string_view text, Json::Value& value) {
    Json::Int64 number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return false;
    value = number;
    return true;
}

// Texts in quotation marks with commas between them.
bool readTexts(std::string_view text, Json::Value& value) {
    value = Json::Value(Json::arrayValue);
    if (text.empty()) return true;
    if (text.size() < 2 || text.front() != '"' || text.back() != '"') return false;
    text = text.substr(1, text.size() - 2);
    constexpr std::string_view kBetween = "\",\"";
    for (size_t end = text.find(kBetween); end != std::string_view::npos; end = text.find(kBetween)) {
        value.append(validUtf8(text.substr(0, end)));
        text.remove_prefix(end + kBetween.size());
    }
    value.append(validUtf8(text));
    return true;
}

bool readValue(Kind kind, std::string_view text, Json::Value& value) {
    switch (kind) {
        case Kind::kNumber:
            return readNumber(text, value);
        case Kind::kTexts:
            return readTexts(text, value);
        case Kind::kText:
            break;
    }
    value = validUtf8(text);
    return true;
}

// The data of a whole answer. A value ends where the frame goes on for the first time, the last one at the
// end.
bool readFrame(const Frame& frame, std::string_view text, Json::Value& data) {
    while (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    const std::string head = frameHead(frame) + opening(frame.members.front());
    if (text.substr(0, head.size()) != head) return false;
    text.remove_prefix(head.size());
    for (size_t i = 0; i < frame.members.size(); ++i) {
        const bool last = i + 1 == frame.members.size();
        const std::string end =
            closing(frame.members[i]) + (last ? "}}" : "," + opening(frame.members[i + 1]));
        const size_t at = last && text.size() >= end.size() ? text.size() - end.size() : text.find(end);
        if (at == std::string_view::npos || text.substr(at, end.size()) != end) return false;
        if (!readValue(frame.members[i].kind, text.substr(0, at), data[frame.members[i].name])) return false;
        text.remove_prefix(at + end.size());
    }
    return true;
}

// ---- GPS

std::vector<std::string> fieldsOf(const Json::Value& data, const char* name) {
    std::vector<std::string> fields(1);
    for (const char c : data[name].asString()) {
        if (c == ',') {
            fields.emplace_back();
        } else {
            fields.back() += c;
        }
    }
    fields.resize(std::max<size_t>(fields.size(), 20));
    return fields;
}

// From "5004.5859", with so many digits of degrees.
bool readAngle(const std::string& text, const std::string& side, size_t digits, std::string& shown,
               std::optional<double>& degrees) {
    if (text.size() < digits + 2 || side.empty() ||
        text.find_first_not_of("0123456789.") != std::string::npos) {
        return false;
    }
    const std::string whole = text.substr(0, digits);
    const std::string minutes = text.substr(digits);
    shown = whole + "°" + minutes + "' " + side;
    const double value = atof(whole.c_str()) + atof(minutes.c_str()) / 60;
    degrees = side == "S" || side == "W" ? -value : value;
    return true;
}

// From "045606.00" and "211126", both in UTC.
std::optional<int64_t> readTime(const std::string& time, const std::string& date) {
    tm parts = {};
    if (time.size() < 6 || date.size() != 6 ||
        sscanf(time.c_str(), "%2d%2d%2d", &parts.tm_hour, &parts.tm_min, &parts.tm_sec) != 3 ||
        sscanf(date.c_str(), "%2d%2d%2d", &parts.tm_mday, &parts.tm_mon, &parts.tm_year) != 3) {
        return {};
    }
    parts.tm_mon -= 1;
    parts.tm_year += parts.tm_year < 80 ? 100 : 0;
    return timegm(&parts);
}

}  // namespace

std::optional<Json::Value> readAnswer(int protocol, const std::string& body) {
    Json::Value answer;
    bool with_data = false;
    for (const Frame& frame : kFrames) {
        if (frame.protocol != protocol) continue;
        with_data = true;
        const std::string text = undoPrint(body, frameHead(frame));
        if (readFrame(frame, text, answer["d"])) {
            answer["r"] = protocol;
            answer["s"] = 1;
            return answer;
        }
    }
    std::string reasons;
    answer = Json::Value();
    // The refusal of a request that was not understood has no "r".
    if (!parseJson(body, answer, reasons) || !answer.isObject() || !answer["s"].isInt() ||
        !answer.get("r", protocol).isInt() || answer.get("r", protocol) != protocol ||
        !answer.get("err", "").isString() || (with_data && answer["s"] != 0)) {
        return {};
    }
    return answer;
}

std::string validUtf8(std::string_view text) {
    std::string valid;
    while (!text.empty()) {
        const size_t length = characterLength(text);
        valid += length > 0 ? text.substr(0, length) : "\xef\xbf\xbd";
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return valid;
}

std::string printable(const std::string& text) {
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : '\0');
        if (byte < 0x20 || byte == 0x7f) {
            result += '?';
        } else if (byte == 0xc2 && next < 0xa0) {  // U+0080 to U+009F
            result += '?';
            ++i;
        } else {
            result += text[i];
        }
    }
    return result;
}

GpsReport readGps(const Json::Value& data) {
    const auto rmc = fieldsOf(data, "RMC");  // time, status, latitude, N, longitude, E, knots, course, date
    const auto gga = fieldsOf(data, "GGA");  // time, four of the position, quality, satellites, -, altitude
    const auto vtg = fieldsOf(data, "VTG");  // course, T, -, M, knots, N, km/h
    GpsReport report;
    report.fix = rmc[1] == "A" && readAngle(rmc[2], rmc[3], 2, report.latitude, report.north) &&
                 readAngle(rmc[4], rmc[5], 3, report.longitude, report.east);
    report.knots = rmc[6];
    report.course = rmc[7];
    report.kilometres = vtg[6];
    report.altitude = gga[8];
    report.satellites_used = gga[6];
    report.satellites_in_view = fieldsOf(data, "GSV")[0];
    report.time = readTime(rmc[0], rmc[8]);
    return report;
}
