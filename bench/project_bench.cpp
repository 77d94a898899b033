// The project loaders and the look-up of texts.
#include <benchmark/benchmark.h>
#include <json/reader.h>
#include <malloc.h>
#include <stdlib.h>
#include <time.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "alarmd/alarmd.h"
#include "alarmd/project/alarm_definitions.h"
#include "alarmd/project/texts.h"
#include "bench/quiet.h"

namespace {

constexpr int kCsvLines = 100000;
constexpr int kJsonAlarms = 10000;

// A file that is there as long as the object.
class TempFile {
  public:
    explicit TempFile(const std::string& bytes) {
        std::string name = (std::filesystem::temp_directory_path() / "alarmd_bench_XXXXXX").string();
        close(mkstemp(name.data()));
        path_ = name;
        std::ofstream(path_, std::ios::binary) << bytes;
    }
    ~TempFile() { std::filesystem::remove(path_); }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

std::string csvText() {
    std::string text = "severity;area;message;device;tag;...\n";
    for (int id = 1; id <= kCsvLines; ++id) {
        const std::string number = std::to_string(id);
        text += "2;Boiler house;Pressure of boiler " + number + " is too high;Boiler " + number + ";boiler." +
                number + ".pressure;5;6;7;8;9;10;11;YES;YES;NO;YES;YES;NO;NO;YES;NO;NO;NO;NO;NO;YES;" +
                number + "\n";
    }
    return text;
}

std::string langs(const std::string& name, const std::string& number) {
    return "\"" + name + "\":{\"cs\":\"Tlak kotle " + number + " je vysoky\",\"de\":\"Druck im Kessel " +
           number + " zu hoch\",\"en\":\"Pressure of boiler " + number + " too high\"}";
}

std::string jsonText(int alarms) {
    std::string text = "[";
    for (int id = 1; id <= alarms; ++id) {
        const std::string number = std::to_string(id);
        text += (id == 1 ? "{\"id\":" : ",{\"id\":") + number +
                ",\"group\":[true,false,true,false,false,false,false,false,false,false,false,false],"
                "\"severity\":2," +
                "\"area\":\"Boiler house\",\"message\":\"Pressure of boiler " + number +
                " is too high\",\"device\":\"Boiler " + number + "\",\"tag\":\"boiler." + number +
                ".pressure\"," + langs("areaLangs", number) + "," + langs("deviceLangs", number) + "," +
                langs("messageLangs", number) +
                ",\"email\":true,\"smsAct\":true,\"smsDeact\":false,\"smsAck\":true}";
    }
    return text + "]";
}

void forgetProject() {
    MutexLock lock(project_mutex);
    clearDefinitions();
    for (_group& group : list_group) group = _group();
    alarm_def = _alarm_def();
}

void loadCsv(benchmark::State& state) {
    const Quiet quiet;
    const TempFile file(csvText());
    cas_list = file.path();
    for (auto _ : state) {
        state.PauseTiming();
        forgetProject();
        state.ResumeTiming();
        readAlarmDef();
    }
    forgetProject();
    state.SetItemsProcessed(state.iterations() * kCsvLines);
}
BENCHMARK(loadCsv)->Name("cas.csv/100000")->Unit(benchmark::kMillisecond);

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
bool bareParse(const std::string& text) {
    Json::Value root;
    return Json::Reader().parse(text, root, false);
}
#pragma GCC diagnostic pop

double cpuSeconds() {
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// The CPU time of action. It starts with a tidy heap, for the allocator leaves what a large free costs to a
// later allocation: without that each of two actions would pay for the other one.
template <class Action>
double cpuSecondsOf(const Action& action) {
    malloc_trim(0);
    const double start = cpuSeconds();
    action();
    return cpuSeconds() - start;
}

// The loader and the bare parse of the same text by turns, so that a busy machine weighs on both alike.
void loadJson(benchmark::State& state) {
    const Quiet quiet;
    const std::string text = jsonText(kJsonAlarms);
    const TempFile file(text);
    cas_list_json = file.path();
    double bare = 0;
    double load = 0;
    for (auto _ : state) {
        forgetProject();
        bare += cpuSecondsOf([&] { benchmark::DoNotOptimize(bareParse(text)); });
        const double taken = cpuSecondsOf(readAlarmDefJson);
        load += taken;
        state.SetIterationTime(taken);
    }
    forgetProject();
    state.counters["bare_parse_ms"] = 1000 * bare / static_cast<double>(state.iterations());
    state.counters["times_bare_parse"] = load / bare;
}
BENCHMARK(loadJson)->Name("cas.json/10000")->UseManualTime()->MinTime(3)->Unit(benchmark::kMillisecond);

void lookUpTexts(benchmark::State& state) {
    const Quiet quiet;
    const int alarms = static_cast<int>(state.range(0));
    const TempFile file(jsonText(alarms));
    cas_list_json = file.path();
    forgetProject();
    readAlarmDefJson();
    const std::string lang = "de";
    unsigned step = 0;
    for (auto _ : state) {
        step = step * 1664525U + 1013904223U;
        const int id = 1 + static_cast<int>((step >> 8) % static_cast<unsigned>(alarms));
        benchmark::DoNotOptimize(getTextForLangs(id, lang));
    }
    forgetProject();
}
BENCHMARK(lookUpTexts)->Name("getTextForLangs")->Arg(20)->Arg(kJsonAlarms);

}  // namespace
