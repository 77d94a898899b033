// NMEA bytes through the GPS channel's byte handler, from the ten sentences of a second of a receiver:
// bytes/s. The stream of a port of 115200 baud is 0.0115 MB/s.
#include <benchmark/benchmark.h>

#include <string>

#include "alarmd/gps/gps_thread.h"
#include "bench/quiet.h"

namespace {

constexpr char kSecond[] =
    "$GNGGA,000039.00,5004.6837,N,01426.6373,E,1,08,0.98,235.9,M,43.6,M,,*46\r\n"
    "$GNGSA,A,3,01,03,08,10,14,17,21,22,,,,,1.62,0.95,1.31*1D\r\n"
    "$GPGSV,3,1,10,01,83,040,,03,10,114,41,08,81,299,44,10,05,013,35*74\r\n"
    "$GPGSV,3,2,10,14,07,161,41,17,17,272,33,21,06,060,,22,38,097,39*73\r\n"
    "$GPGSV,3,3,10,27,80,282,42,31,66,070,32*7F\r\n"
    "$GLGSV,2,1,07,65,19,248,,66,17,285,40,72,44,147,43,75,81,258,35*6B\r\n"
    "$GLGSV,2,2,07,81,29,120,32,82,83,157,38,88,10,019,*52\r\n"
    "$GNRMC,000039.00,A,5004.6837,N,01426.6373,E,8.547,57.03,140524,,,A*48\r\n"
    "$GNVTG,57.03,T,,M,8.547,N,15.829,K,A*2B\r\n"
    "$GPTXT,01,01,02,ANTSTATUS=OK*3B\r\n";

void takeAll(ComControl& channel, const std::string& bytes) {
    char one[2] = {0, 0};
    for (const char byte : bytes) {
        one[0] = byte;
        static_cast<MyGps&>(channel).ZpracujByte(one);
    }
}

void BM_ByteHandler(benchmark::State& state) {
    Quiet quiet;
    const std::string bytes = kSecond;
    for (auto _ : state) takeAll(gps, bytes);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
}
BENCHMARK(BM_ByteHandler);

// Nothing but noise: no line is ever complete.
void BM_ByteHandlerEndlessLine(benchmark::State& state) {
    Quiet quiet;
    const std::string bytes(4096, 'x');
    for (auto _ : state) takeAll(gps, bytes);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
}
BENCHMARK(BM_ByteHandlerEndlessLine);

}  // namespace
