#include "alarmd/base/fatal.h"

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <exception>

#include "knihovny/debugerror.h"

namespace {

std::terminate_handler explainAndAbort = nullptr;
std::chrono::seconds patience{0};

void abortInTime() {
    signal(SIGABRT, SIG_DFL);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGABRT);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    sigevent event{};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGABRT;
    timer_t timer{};
    const itimerspec once{{0, 0}, {patience.count(), 0}};
    if (timer_create(CLOCK_MONOTONIC, &event, &timer) == 0) timer_settime(timer, 0, &once, nullptr);
    explainAndAbort();
}

}  // namespace

void limitTermination(std::chrono::seconds limit) {
    patience = limit;
    explainAndAbort = std::set_terminate(abortInTime);
}

void (*end_process)(std::string_view line) = [](std::string_view line) {
    PrintErrorLine("alarmd: ", line);
    std::abort();
};

void fatal(std::string_view line) {
    end_process(line);
    std::abort();
}
