// The modem's bytes through the handler that collects its replies: bytes a second, and allocations a byte.
// And the time from a queued message to its Ctrl-Z on the line, on a pseudo terminal: over_pauses_ms is what
// it takes more than the two pauses of 1.005 s that wait for the modem's prompt.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <string>
#include <thread>

#include "alarmd/alarmd.h"
#include "alarmd/sms/sms_thread.h"
#include "alarmd/sms/timed_text/modem_port.h"
#include "bench/quiet.h"
#include "knihovny/descriptor.h"

namespace {

std::atomic<int64_t> allocations{0};

}  // namespace

// Not inlined: g++ would see a pointer of new given to free().
[[gnu::noinline]] void* operator new(size_t size) {
    ++allocations;
    if (void* memory = malloc(std::max<size_t>(size, 1))) return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept {
    free(memory);
}

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr double kPausesSeconds = 2 * 1.005;

// Half a kilobyte, as one read gives it.
std::string block(const std::string& reply) {
    std::string bytes;
    while (bytes.size() < 512) bytes += reply;
    bytes.resize(512);
    return bytes;
}

void handle(benchmark::State& state, const std::string& reply) {
    const Quiet quiet;
    std::string bytes = block(reply);
    char one[2] = {0, 0};
    int64_t handled = 0;
    int64_t allocated = 0;
    while (state.KeepRunning()) {
        const int64_t before = allocations;
        for (const char byte : bytes) {
            one[0] = byte;
            MyModem.ZpracujByte(one);
            MyModem.ZpracujByte(static_cast<unsigned char>(byte));
        }
        allocated += allocations - before;
        handled += static_cast<int64_t>(bytes.size());
    }
    state.SetBytesProcessed(handled);
    state.counters["allocations"] = static_cast<double>(allocated);
}
BENCHMARK_CAPTURE(
    handle, message,
    std::string("\tAT+CMGR=0\r\r\n+CMGR: \"REC UNREAD\",\"+420601000001\",,\"26/11/21,10:00:00+04\"\r\n"
                "ACK:17\r\n\r\nOK\r\n"));
BENCHMARK_CAPTURE(handle, oks, std::string("\r\nOK\r\n"));
BENCHMARK_CAPTURE(handle, noise, std::string("\r\n^RSSI:20\r\n"));

// The modem's side of a pseudo terminal.
class Line {
  public:
    Line() : master_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
        grantpt(master_.get());
        unlockpt(master_.get());
        termios raw{};
        tcgetattr(master_.get(), &raw);
        cfmakeraw(&raw);
        tcsetattr(master_.get(), TCSANOW, &raw);
    }

    std::string device() const {
        char name[128];
        return ptsname_r(master_.get(), name, sizeof name) == 0 ? name : "";
    }

    // Reads until this byte has come, and some bytes behind it.
    Clock::time_point waitFor(char wanted, size_t behind) const {
        Clock::time_point seen{};
        bool found = false;
        for (size_t after = 0; !found || after < behind;) {
            char byte = 0;
            if (read(master_.get(), &byte, 1) != 1) return seen;
            if (found) ++after;
            if (byte == wanted && !found) {
                found = true;
                seen = Clock::now();
            }
        }
        return seen;
    }

    bool say(const std::string& bytes) const {
        return write(master_.get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    }

  private:
    Descriptor master_;
};

void queueToCtrlZ(benchmark::State& state) {
    const Quiet quiet;
    const Line line;
    MyModem.NastavUkonceni(&konecModem);
    MyModem.SetCom(115200, 1, 8, 1, 2, 2, 2, line.device());
    if (!MyModem.Connect()) state.SkipWithError("no port");
    double most = 0;
    while (state.KeepRunning()) {
        const auto start = Clock::now();
        fronta_sms_raw.push({"+420601000001", "(ACT) Flame lost /ack:101", "127.0.0.1", -1});
        std::thread sender(zpracuj_sms);
        const double taken = Seconds(line.waitFor('\x1a', 10) - start).count();
        if (!line.say("\r\n+CMGS: 1\r\n\r\nOK\r\n")) state.SkipWithError("no answer");
        sender.join();
        most = std::max(most, taken - kPausesSeconds);
        state.SetIterationTime(taken);
        sms_count = 0;
    }
    state.counters["over_pauses_ms_most"] = 1000 * most;
    MyModem.StopReading();
}
BENCHMARK(queueToCtrlZ)->UseManualTime()->Iterations(10)->Unit(benchmark::kMillisecond);

}  // namespace
