// json_parse of an answer of new alarms that all go into both queues, beside the bare parse of the same text.
#include <benchmark/benchmark.h>
#include <json/reader.h>

#include <chrono>
#include <string>

#include "alarmd/alarmd.h"
#include "alarmd/intake/alarm_parser.h"
#include "alarmd/project/alarm_definitions.h"
#include "bench/quiet.h"

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr int64_t kStart = 1700000000;

std::string answerText(int entries) {
    std::string text = "{\"d\":[";
    for (int i = 0; i < entries; ++i) {
        const std::string time = std::to_string(kStart + 1 + i / 100) + "," + std::to_string(i % 100 * 10000);
        text += (i == 0 ? "{\"id\":" : ",{\"id\":") + std::to_string(i) +
                ",\"cell\":{\"acktm\":[0,0],\"ackv\":0,\"atm\":[" + time + "],\"av\":" + std::to_string(i) +
                ".25,\"dtm\":[0,0],\"dv\":0,\"stat\":1,\"user\":\"\"}}";
    }
    return text + "]}";
}

void define(int alarms) {
    MutexLock lock(project_mutex);
    clearDefinitions();
    for (int id = 0; id < alarms; ++id) {
        const std::string number = std::to_string(id);
        _alarm_def& definition = alarm_def_map[id];
        definition.id = id;
        definition.severity = 2;
        definition.area = "Boiler house";
        definition.message = "Pressure of boiler " + number + " is too high";
        definition.device = "Boiler " + number;
        definition.email = definition.smsact = true;
    }
}

void forget() {
    fronta_mail.clear();
    fronta_sms.clear();
    last_timestamp = kStart;
    last_timestamp_ms = 0;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
void bareParse(const std::string& text, Json::Value& root) {
    benchmark::DoNotOptimize(Json::Reader().parse(text, root, false));
}
#pragma GCC diagnostic pop

// Both by turns, so that a busy machine weighs on both alike. The time is that of json_parse; the release of
// the parsed values is in it, and is not in that of the bare parse.
void parseAnswer(benchmark::State& state) {
    const Quiet quiet;
    const int entries = static_cast<int>(state.range(0));
    const std::string text = answerText(entries);
    define(entries);
    double bare = 0;
    double all = 0;
    while (state.KeepRunning()) {
        forget();
        {
            Json::Value root;
            const auto start = Clock::now();
            bareParse(text, root);
            bare += Seconds(Clock::now() - start).count();
        }
        const auto start = Clock::now();
        json_parse(text.c_str());
        const double taken = Seconds(Clock::now() - start).count();
        all += taken;
        state.SetIterationTime(taken);
        if (fronta_mail.size() != entries || fronta_sms.size() != entries)
            state.SkipWithError("not all queued");
    }
    forget();
    const auto iterations = static_cast<double>(state.iterations());
    state.counters["bare_parse_ms"] = 1000 * bare / iterations;
    state.counters["times_bare_parse"] = all / bare;
    state.counters["ns_per_entry"] = 1e9 * all / iterations / entries;
}
BENCHMARK(parseAnswer)
    ->Name("json_parse")
    ->RangeMultiplier(10)
    ->Range(100, 10000)
    ->UseManualTime()
    ->MinTime(2)
    ->Unit(benchmark::kMillisecond);

}  // namespace
