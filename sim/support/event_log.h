// What happens in the simulated world, told as it happens.
#pragma once

#include <json/value.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace sim {

// Microseconds since the epoch on the real clock.
int64_t realMicroseconds();

// A time in microseconds as the array of seconds and microseconds that all JSON of this project uses.
Json::Value momentJson(int64_t microseconds);

// Seconds without digits that mean nothing.
double roundToMicroseconds(double seconds);

// JSON on one line, without a newline at its end. Numbers carry at most 15 significant digits.
std::string compactJson(const Json::Value& value);

// Hands each event to one sink. Any thread may call it; the sink is called on the thread that tells the
// event, so it must be thread-safe and must not block for long.
class EventLog {
  public:
    using Sink = std::function<void(const Json::Value& event)>;

    explicit EventLog(Sink sink = {}) : sink_(std::move(sink)) {}

    // Tells one event. The event's JSON gets, beside the members given: "event" (the name, for programs),
    // "line" (for people), "at" (seconds since the log began, from the steady clock), "time" (the real clock,
    // see momentJson).
    void tell(const char* name, const std::string& line, Json::Value members = Json::objectValue) const;

    // Seconds since the log began.
    double elapsed() const;

  private:
    const Sink sink_;
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

// The readable line of an event, such as "12.003 server alarm 12 activated", without a newline.
std::string readableLine(const Json::Value& event);

// A text for a readable line: bytes outside printable ASCII as "\xNN", at most limit
// bytes of text, then "..." and the length.
std::string printable(const std::string& text, size_t limit = 200);

}  // namespace sim
