#include "sim/support/event_log.h"

#include <json/writer.h>

#include <cmath>
#include <cstdio>
#include <ctime>

namespace sim {

int64_t realMicroseconds() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

Json::Value momentJson(int64_t microseconds) {
    Json::Value moment(Json::arrayValue);
    moment.append(Json::Int64{microseconds / 1000000});
    moment.append(Json::Int64{microseconds % 1000000});
    return moment;
}

std::string compactJson(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["precision"] = 15;
    builder["commentStyle"] = "None";
    return Json::writeString(builder, value);
}

double roundToMicroseconds(double seconds) {
    return std::round(seconds * 1e6) / 1e6;
}

void EventLog::tell(const char* name, const std::string& line, Json::Value members) const {
    if (!sink_) return;
    members["event"] = name;
    members["line"] = line;
    members["at"] = roundToMicroseconds(elapsed());
    members["time"] = momentJson(realMicroseconds());
    sink_(members);
}

double EventLog::elapsed() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

std::string readableLine(const Json::Value& event) {
    char at[40];
    snprintf(at, sizeof at, "%.3f ", event["at"].asDouble());
    return at + event["line"].asString();
}

std::string printable(const std::string& text, size_t limit) {
    std::string shown;
    for (const char c : text.substr(0, limit)) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 32 && byte < 127) {
            shown += c;
        } else {
            char hex[8];
            snprintf(hex, sizeof hex, "\\x%02X", byte);
            shown += hex;
        }
    }
    if (text.size() > limit) shown += "... (" + std::to_string(text.size()) + " bytes)";
    return shown;
}

}  // namespace sim
