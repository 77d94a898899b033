#include "alarmd/base/fatal.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

#include "knihovny/debugerror.h"

namespace {

using testing::KilledBySignal;

// Standard error becomes a full pipe that nobody reads.
void stopReaderOfErrors() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return;
    while (write(ends[1], "x", 1) == 1) {
    }
    fcntl(ends[1], F_SETFL, 0);
    dup2(ends[1], STDERR_FILENO);
}

void throwReason() {
    throw std::runtime_error("reason");
}

TEST(FatalDeathTest, TellsItsLineAndAborts) {
    EXPECT_EXIT(fatal("file, line 1: reason"), KilledBySignal(SIGABRT), "^alarmd: file, line 1: reason\n$");
}

TEST(FatalDeathTest, AnUncaughtExceptionIsToldAndAborts) {
    const auto throwUncaught = []() noexcept {
        limitTermination(std::chrono::seconds(60));
        throwReason();
    };
    EXPECT_EXIT(throwUncaught(), KilledBySignal(SIGABRT), "std::runtime_error.*\n.*reason");
}

TEST(FatalDeathTest, AReaderOfErrorsThatHasStoppedHoldsNeither) {
    const auto end = [] {
        stopReaderOfErrors();
        dropLogWithoutRoom(std::chrono::milliseconds(200));
        fatal("reason");
    };
    EXPECT_EXIT(end(), KilledBySignal(SIGABRT), "");
    const auto throwUncaught = []() noexcept {
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_BLOCK, &all, nullptr);
        signal(SIGABRT, SIG_IGN);
        limitTermination(std::chrono::seconds(1));
        stopReaderOfErrors();
        throwReason();
    };
    EXPECT_EXIT(throwUncaught(), KilledBySignal(SIGABRT), "");
}

}  // namespace
