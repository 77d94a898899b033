#include "sim/server/alarm_history.h"

#include <algorithm>
#include <charconv>

#include "sim/support/event_log.h"

namespace sim {
namespace {

std::optional<int64_t> wholeNumber(std::string_view text) {
    int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

std::map<std::string, std::string> formMembers(const std::string& body) {
    std::map<std::string, std::string> members;
    size_t begin = 0;
    while (begin <= body.size()) {
        const size_t end = std::min(body.find('&', begin), body.size());
        const std::string member = body.substr(begin, end - begin);
        const size_t equals = std::min(member.find('='), member.size());
        members.emplace(member.substr(0, equals), member.substr(std::min(equals + 1, member.size())));
        begin = end + 1;
    }
    return members;
}

std::optional<int64_t> startPoint(const std::string& text) {
    const size_t dot = text.find('.');
    if (dot == std::string::npos) return std::nullopt;
    const auto seconds = wholeNumber(std::string_view(text).substr(0, dot));
    const auto microseconds = wholeNumber(std::string_view(text).substr(dot + 1));
    constexpr int64_t kMost = INT64_MAX / 1000000 - 1;
    if (!seconds || !microseconds || *seconds > kMost || *seconds < -kMost) return std::nullopt;
    int64_t start = 0;
    if (__builtin_add_overflow(*seconds * 1000000, *microseconds, &start)) return std::nullopt;
    return start;
}

}  // namespace

std::optional<HistoryRequest> parseHistoryRequest(const std::string& body) {
    auto members = formMembers(body);
    const auto start = startPoint(members["start"]);
    const auto limit = wholeNumber(members["limit"]);
    if (members["t"] != "30" || !members.contains("prj") || !start || !limit || *limit < 0)
        return std::nullopt;
    return HistoryRequest{members["prj"], *start, *limit};
}

void AlarmHistory::apply(Alarm& alarm, const AlarmChange& change, int64_t time) {
    switch (change.state) {
        case AlarmChange::kActivated:
            alarm = Alarm();
            alarm.atm = time;
            alarm.av = change.value;
            alarm.active = true;
            break;
        case AlarmChange::kDeactivated:
            alarm.dtm = time;
            alarm.dv = change.value;
            alarm.active = false;
            break;
        case AlarmChange::kAcknowledged:
        case AlarmChange::kTimedByAcknowledge:
            alarm.acktm = time;
            alarm.ackv = change.value;
            alarm.user = change.user;
            break;
        default:
            break;
    }
}

std::string AlarmHistory::entryJson(const Alarm& alarm, int id, int state) {
    Json::Value entry;
    entry["id"] = id;
    Json::Value& cell = entry["cell"];
    cell["acktm"] = momentJson(alarm.acktm);
    cell["ackv"] = alarm.ackv;
    cell["atm"] = momentJson(alarm.atm);
    cell["av"] = alarm.av;
    cell["dtm"] = momentJson(alarm.dtm);
    cell["dv"] = alarm.dv;
    cell["stat"] = state;
    cell["user"] = alarm.user;
    return compactJson(entry);
}

int64_t AlarmHistory::add(const AlarmChange& change) {
    const int64_t now = realMicroseconds();
    const std::string project = change.project.value_or(project_);
    MutexLock lock(mutex_);
    const int64_t time = change.time.value_or(std::max(now, last_time_ + 1));
    if (!change.time) last_time_ = time;
    Alarm& alarm = alarms_[{project, change.id}];
    apply(alarm, change, time);
    const auto place = std::upper_bound(entries_.begin(), entries_.end(), time,
                                        [](int64_t t, const Entry& entry) { return t < entry.time; });
    entries_.insert(place, Entry{time, project, entryJson(alarm, change.id, change.state)});
    return time;
}

bool AlarmHistory::active(int id) const {
    MutexLock lock(mutex_);
    const auto alarm = alarms_.find({project_, id});
    return alarm != alarms_.end() && alarm->second.active;
}

std::string AlarmHistory::answer(const HistoryRequest& request, size_t* entries) const {
    std::string text = "{\"d\":[";
    size_t count = 0;
    MutexLock lock(mutex_);
    auto entry = std::lower_bound(entries_.begin(), entries_.end(), request.start,
                                  [](const Entry& e, int64_t start) { return e.time < start; });
    for (; entry != entries_.end() && count < static_cast<size_t>(request.limit); ++entry) {
        if (entry->project != request.project) continue;
        if (count++ > 0) text += ',';
        text += entry->json;
    }
    if (entries) *entries = count;
    return text + "]}";
}

size_t AlarmHistory::size() const {
    MutexLock lock(mutex_);
    return entries_.size();
}

void AlarmHistory::clear() {
    MutexLock lock(mutex_);
    alarms_.clear();
    entries_.clear();
}

}  // namespace sim
