// The server's alarm history: a list of entries in time order, one for each change of an alarm.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "knihovny/mutex.h"

namespace sim {

// One change of an alarm. Activation, deactivation and acknowledgement move the alarm's own times; a change
// to any other state leaves them alone, but for kTimedByAcknowledge.
struct AlarmChange {
    static constexpr int kDeactivated = 0, kActivated = 1, kAcknowledged = 2, kTimedByAcknowledge = 8;

    int id = 0;
    int state = kActivated;
    double value = 0;                    // the process value at that moment
    std::string user;                    // who acknowledged
    std::optional<int64_t> time;         // microseconds since the epoch; now when not given
    std::optional<std::string> project;  // the history's own when not given
};

// A history request: the entries of project at or after start (microseconds since the epoch), at most limit.
struct HistoryRequest {
    std::string project;
    int64_t start = 0;
    int64_t limit = 0;
};

// Reads "t=30&prj=P&start=S.U&limit=N". U is a plain decimal number of microseconds: ".5" is 5 us. Nothing is
// returned when a member is missing or is no number, or t is not 30.
std::optional<HistoryRequest> parseHistoryRequest(const std::string& body);

// Any thread may call any function.
class AlarmHistory {
  public:
    explicit AlarmHistory(std::string project) : project_(std::move(project)) {}

    const std::string& project() const { return project_; }

    // Adds the entry of one change, with the times and values of the alarm that are known by then, and
    // returns its time. Without a time of its own the entry gets the real clock's, or one microsecond more
    // than the latest entry's when that is not earlier: times are unique, and a clock set back does not turn
    // the order around.
    int64_t add(const AlarmChange& change) EXCLUDES(mutex_);

    // True from an alarm's activation until its deactivation.
    bool active(int id) const EXCLUDES(mutex_);

    // The answer {"d":[...]} and how many entries it holds.
    std::string answer(const HistoryRequest& request, size_t* entries = nullptr) const EXCLUDES(mutex_);

    size_t size() const EXCLUDES(mutex_);

    // Forgets all entries and all alarms' states.
    void clear() EXCLUDES(mutex_);

  private:
    struct Alarm {
        int64_t atm = 0, dtm = 0, acktm = 0;  // microseconds, 0 while not known
        double av = 0, dv = 0, ackv = 0;
        std::string user;
        bool active = false;
    };
    struct Entry {
        int64_t time;
        std::string project;
        std::string json;
    };

    static void apply(Alarm& alarm, const AlarmChange& change, int64_t time);
    static std::string entryJson(const Alarm& alarm, int id, int state);

    const std::string project_;
    mutable Mutex mutex_;
    std::map<std::pair<std::string, int>, Alarm> alarms_ GUARDED_BY(mutex_);
    std::vector<Entry> entries_ GUARDED_BY(mutex_);  // by time
    int64_t last_time_ GUARDED_BY(mutex_) = 0;       // of the entries that took the clock's time
};

}  // namespace sim
