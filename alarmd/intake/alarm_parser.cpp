#include "alarmd/intake/alarm_parser.h"

#include <json/value.h>

#include <cstring>
#include <string>
#include <string_view>

#include "alarmd/alarmd.h"
#include "alarmd/base/fatal.h"
#include "alarmd/base/json.h"
#include "alarmd/intake/notification_queues.h"
#include "alarmd/notify/event.h"
#include "alarmd/project/alarm_definitions.h"
#include "knihovny/debugerror.h"

namespace {

[[noreturn]] void endOnWrongShape(const std::string& where, const Json::Exception& why) {
    fatal("history answer, " + where + ": " + why.what());
}

// The instant in seconds. A double holds the present time to a quarter of a microsecond.
double instant(int64_t seconds, int64_t microseconds) {
    return static_cast<double>(seconds) + static_cast<double>(microseconds) / 1000000.0;
}

double instant(const TimeTriple& time) {
    return instant(time[0], time[1]);
}

// 32 bits hold the seconds until January 2038 only.
void readTime(const Json::Value& value, TimeTriple& time) {
    time[0] = value[0U].asInt64();
    time[1] = value[1U].asInt();
}

// Overwrites what an entry can carry in alarm_tag; a missing member gives 0 or an empty text. Values are only
// looked at as const, since a look-up in a value that may change would add the missing member.
void readEntry(const Json::Value& entry) {
    alarm_tag.id = entry["id"].asInt();
    const Json::Value& cell = entry["cell"];
    readTime(cell["acktm"], alarm_tag.acktm);
    alarm_tag.ackv = cell["ackv"].asDouble();
    readTime(cell["atm"], alarm_tag.atm);
    alarm_tag.av = cell["av"].asDouble();
    readTime(cell["dtm"], alarm_tag.dtm);
    alarm_tag.dv = cell["dv"].asDouble();
    alarm_tag.stat = cell["stat"].asInt();
    alarm_tag.user = cell["user"].asString();
}

void copyDefinitionTexts() {
    MutexLock lock(project_mutex);
    const _alarm_def& definition = definitionFor(alarm_tag.id);
    alarm_tag.area = definition.area;
    alarm_tag.msg = definition.message;
    alarm_tag.sv = definition.severity;
    alarm_tag.dev = definition.device;
}

void appendTime(std::string& log, const char* name, const TimeTriple& time) {
    AppendLine(log, name, time[0], '.', time[1], '(', instant(time), ')');
}

void appendAlarm(std::string& log) {
    AppendLine(log, "---------------NEW ALARM-----------------------");
    AppendLine(log, "id: ", alarm_tag.id);
    appendTime(log, "acktm: ", alarm_tag.acktm);
    AppendLine(log, "ackv: ", alarm_tag.ackv);
    AppendLine(log, "area: ", alarm_tag.area);
    appendTime(log, "atm: ", alarm_tag.atm);
    AppendLine(log, "av: ", alarm_tag.av);
    AppendLine(log, "dev: ", alarm_tag.dev);
    appendTime(log, "dtm: ", alarm_tag.dtm);
    AppendLine(log, "dv: ", alarm_tag.dv);
    AppendLine(log, "stat: ", alarm_tag.stat);
    AppendLine(log, "sv: ", alarm_tag.sv);
    AppendLine(log, "user: ", alarm_tag.user);
    AppendLine(log, "--------------------------------------------");
}

// What is printed of an answer's entries, in portions: one write for each entry would cost as much as reading
// it.
constexpr size_t kLogPortion = 16384;

void printPortion(std::string& log) {
    Print(log);
    log.clear();
}

// Queues the alarm in alarm_tag, and adds it to the log, when its state is newer than the start point.
void takeIfNew(std::string& log) {
    if (!isKnownState(alarm_tag.stat)) return;
    if (!(instant(eventTime(alarm_tag)) > instant(last_timestamp, last_timestamp_ms))) return;
    uloz_alarm(alarm_tag.stat, log);
    appendAlarm(log);
    if (log.size() >= kLogPortion) printPortion(log);
}

// The next poll begins one microsecond behind the alarm in alarm_tag.
void moveStartPoint() {
    if (!isKnownState(alarm_tag.stat)) return;
    const TimeTriple& time = eventTime(alarm_tag);
    last_timestamp = time[0];
    last_timestamp_ms = time[1] + 1;
}

const Json::Value& entriesOf(const Json::Value& answer) {
    try {
        const Json::Value& entries = answer["d"];
        // Members of an object are no entries: taking one by its position fails.
        if (entries.isObject() && !entries.empty()) return entries[0U];
        return entries;
    } catch (const Json::Exception& error) {
        endOnWrongShape("the whole", error);
    }
}

void tryReadEntry(const Json::Value& entry, Json::ArrayIndex i, std::string& log) {
    try {
        readEntry(entry);
    } catch (const Json::Exception& error) {
        printPortion(log);
        endOnWrongShape("entry " + std::to_string(i), error);
    }
}

// The text as it is, printed on its way: a large answer is copied once.
std::string printedAnswer(const char* text) {
    constexpr std::string_view kLabel = "JSON : ";
    const size_t length = strlen(text);
    std::string line;
    line.reserve(kLabel.size() + length + 1);
    line.append(kLabel).append(text, length).append(1, '\n');
    Print(line);
    line.erase(0, kLabel.size());
    line.pop_back();
    return line;
}

}  // namespace

void json_parse(const char* text) {
    Json::Value answer;
    std::string errors;
    if (!parseJson(printedAnswer(text), answer, errors)) {
        PrintLine("Failed to parse JSON\n", errors);
        return;
    }
    const Json::Value& entries = entriesOf(answer);
    const Json::ArrayIndex size = entries.size();
    std::string log;
    Json::ArrayIndex i = 0;
    // Going from entry to entry is cheaper than looking each one up by its index.
    for (const Json::Value& entry : entries) {
        tryReadEntry(entry, i, log);
        copyDefinitionTexts();
        takeIfNew(log);
        if (++i == size) moveStartPoint();
    }
    printPortion(log);
}
