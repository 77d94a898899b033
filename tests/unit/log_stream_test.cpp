#include "knihovny/log_stream.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <thread>

namespace {

// Where a test asks for it, poll tells of room that is not there, as when another writer takes it at that
// moment, and the system is one that cannot write to a pipe without waiting.
std::atomic<bool> poll_lies{false};
std::atomic<bool> system_is_old{false};

}  // namespace

// Under another name, since the header's promise that poll reads nothing of its argument is not true.
extern "C" int lyingPoll(void* descriptors, nfds_t count, int milliseconds) asm("poll");

int lyingPoll(void* descriptors, nfds_t count, int milliseconds) {
    auto* const first = static_cast<pollfd*>(descriptors);
    if (poll_lies && count == 1 && first->events == POLLOUT) {
        first->revents = POLLOUT;
        return 1;
    }
    static auto* const next = reinterpret_cast<decltype(&lyingPoll)>(dlsym(RTLD_NEXT, "poll"));
    return next(descriptors, count, milliseconds);
}

extern "C" ssize_t pwritev2(int descriptor, const iovec* parts, int count, off_t offset, int flags) {
    if (system_is_old) {
        errno = EOPNOTSUPP;
        return -1;
    }
    static auto* const next = reinterpret_cast<decltype(&pwritev2)>(dlsym(RTLD_NEXT, "pwritev2"));
    return next(descriptor, parts, count, offset, flags);
}

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds kLimit{200};
constexpr milliseconds kLongLimit{2000};  // for tests in which it must not pass
constexpr milliseconds kNoLimit{0};
constexpr int kLines = 1500;  // more than a log holds that nobody reads

// The two ends of a log.
struct Ends {
    int writing = -1;
    int reading = -1;
};

Ends makePipe() {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    fcntl(ends[1], F_SETPIPE_SZ, 4096);
    return {ends[1], ends[0]};
}

Ends makeSocket() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const int size = 4096;
    setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    return {ends[0], ends[1]};
}

Ends makeTerminal() {
    const int reading = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_EQ(grantpt(reading), 0);
    EXPECT_EQ(unlockpt(reading), 0);
    const int writing = open(ptsname(reading), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios settings{};
    tcgetattr(writing, &settings);
    cfmakeraw(&settings);
    settings.c_iflag |= IXON;
    tcsetattr(writing, TCSANOW, &settings);
    return {writing, reading};
}

int64_t count(const std::string& text, char byte) {
    return std::count(text.begin(), text.end(), byte);
}

std::string numbered(int number) {
    return "line " + std::to_string(number) + ' ' + std::string(80, 'x') + '\n';
}

std::string dropped(int64_t lines) {
    return std::to_string(lines) + " lines of the log dropped\n";
}

class LogStreamTest : public testing::Test {
  protected:
    void SetUp() override { signal(SIGPIPE, SIG_IGN); }
    void TearDown() override {
        poll_lies = false;
        system_is_old = false;
        close(ends_.writing);
        close(ends_.reading);
    }

    void open(Ends (*make)()) { ends_ = make(); }

    // What has arrived so far.
    std::string readAll() const {
        std::string text;
        char block[65536];
        pollfd readable{ends_.reading, POLLIN, 0};
        while (poll(&readable, 1, 50) == 1) {
            const ssize_t length = read(ends_.reading, block, sizeof block);
            if (length <= 0) break;
            text.append(block, static_cast<size_t>(length));
        }
        return text;
    }
    std::string readUntil(const std::string& end) const {
        std::string text;
        char byte = 0;
        while (!text.ends_with(end) && read(ends_.reading, &byte, 1) == 1) text += byte;
        return text;
    }

    // Writes numbered lines until some are dropped. Returns how many it wrote.
    static int writeUntilDropping(LogStream& stream) {
        int lines = 0;
        while (!stream.hasDroppedLines()) stream.write(numbered(lines++));
        return lines;
    }

    // Until a thread sleeps in the system: in a write, or in a wait for room.
    static void waitForSleep(pid_t thread) {
        char state = 0;
        for (int seen = 0; seen < 20; seen += state == 'S' ? 1 : -seen) {
            std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
            std::string id, name;
            file >> id >> name >> state;
            usleep(1000);
        }
    }

    Ends ends_;
};

struct Kind {
    const char* name;
    Ends (*make)();
};

void PrintTo(const Kind& kind, std::ostream* out) {
    *out << kind.name;
}

class LogStreamOfAKind : public LogStreamTest, public testing::WithParamInterface<Kind> {
  protected:
    void SetUp() override {
        LogStreamTest::SetUp();
        open(GetParam().make);
    }
};

INSTANTIATE_TEST_SUITE_P(, LogStreamOfAKind,
                         testing::Values(Kind{"Pipe", makePipe}, Kind{"Socket", makeSocket},
                                         Kind{"Terminal", makeTerminal}),
                         [](const auto& kind) { return kind.param.name; });

// ---------------------------------------------------------------------------------------------------------------
// A reader that has stopped.

TEST_P(LogStreamOfAKind, WithoutALimitAReaderThatHasStoppedIsWaitedFor) {
    LogStream stream(ends_.writing);
    std::string expected;
    for (int i = 0; i < kLines; ++i) expected += numbered(i);
    std::atomic<pid_t> id{0};
    std::thread writer([&] {
        id = gettid();
        for (int i = 0; i < kLines; ++i) stream.write(numbered(i));
    });
    while (id == 0) usleep(1000);
    waitForSleep(id);
    EXPECT_EQ(readUntil(numbered(kLines - 1)), expected);
    writer.join();
}

TEST_P(LogStreamOfAKind, LinesBehindTheLimitAreDroppedAndCountedAndTheNextOneComesBehindTheirNumber) {
    LogStream stream(ends_.writing);
    stream.setLimit(kLimit);
    for (int round = 0; round < 2; ++round) {
        const Clock::time_point begin = Clock::now();
        int64_t written = writeUntilDropping(stream);
        EXPECT_GE(Clock::now() - begin, kLimit);
        for (; written < 2 * kLines; ++written) stream.write(numbered(0));
        EXPECT_LT(Clock::now() - begin, 100 * kLimit);  // each of them waits no more
        const std::string before = readAll();
        // A line that was cut is ended.
        const std::string end = before.ends_with('\n') ? "" : "\n";
        stream.write("next\n");
        EXPECT_EQ(readAll(), end + dropped(written - count(before, '\n')) + "next\n");
        EXPECT_FALSE(stream.hasDroppedLines());
    }
}

TEST_P(LogStreamOfAKind, WhatWasDroppedIsToldWithoutANewLineToo) {
    LogStream stream(ends_.writing);
    stream.setLimit(kLimit);
    const int64_t written = writeUntilDropping(stream);
    stream.write({});
    EXPECT_TRUE(stream.hasDroppedLines());
    const std::string before = readAll();
    stream.write({});
    EXPECT_TRUE(readAll().ends_with(dropped(written - count(before, '\n'))));
    EXPECT_FALSE(stream.hasDroppedLines());
}

TEST_P(LogStreamOfAKind, ThreadsWaitOneLimitTogether) {
    constexpr int kThreads = 20;
    LogStream stream(ends_.writing);
    stream.setLimit(kLongLimit);
    std::atomic<int> lines{0};
    const Clock::time_point begin = Clock::now();
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            do {
                stream.write(numbered(lines++));
            } while (!stream.hasDroppedLines());
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_LT(Clock::now() - begin, kThreads / 2 * kLongLimit);
    const std::string before = readAll();
    stream.write({});
    EXPECT_TRUE(readAll().ends_with("\n" + dropped(lines - count(before, '\n'))) || before.ends_with('\n'));
}

TEST_P(LogStreamOfAKind, TheDescriptorStaysBlocking) {
    LogStream stream(ends_.writing);
    stream.setLimit(kLimit);
    writeUntilDropping(stream);
    EXPECT_EQ(fcntl(ends_.writing, F_GETFL) & O_NONBLOCK, 0);
}

// ---------------------------------------------------------------------------------------------------------------
// A slow reader.

TEST_P(LogStreamOfAKind, ASlowReaderLosesNothingAndLinesOfThreadsStayWhole) {
    constexpr int kLongLines = 40;
    LogStream stream(ends_.writing);
    stream.setLimit(kLongLimit);
    std::vector<std::thread> threads;
    for (char name = 'a'; name < 'e'; ++name) {
        threads.emplace_back([&stream, name] {
            for (int i = 0; i < kLongLines; ++i) stream.write(std::string(6000, name) + '\n');
        });
    }
    std::string text;
    char block[3000];
    while (text.size() < size_t{4} * kLongLines * 6001) {
        usleep(2000);
        const ssize_t length = read(ends_.reading, block, sizeof block);
        ASSERT_GT(length, 0);
        text.append(block, static_cast<size_t>(length));
    }
    for (std::thread& thread : threads) thread.join();
    for (size_t i = 0; i < text.size(); i += 6001) {
        ASSERT_EQ(text.substr(i, 6001), std::string(6000, text[i]) + '\n');
    }
    EXPECT_FALSE(stream.hasDroppedLines());
}

TEST_P(LogStreamOfAKind, NothingIsLostWhenSomebodyHasMadeTheDescriptorNonBlocking) {
    fcntl(ends_.writing, F_SETFL, O_NONBLOCK);
    for (const milliseconds limit : {kNoLimit, kLongLimit}) {
        LogStream stream(ends_.writing);
        stream.setLimit(limit);
        std::string expected;
        for (int i = 0; i < kLines; ++i) expected += numbered(i);
        std::thread writer([&] {
            for (int i = 0; i < kLines; ++i) stream.write(numbered(i));
        });
        EXPECT_EQ(readUntil(numbered(kLines - 1)), expected);
        writer.join();
    }
}

TEST_F(LogStreamTest, AReaderThatTakesSingleBytesOfAPipeLosesNothing) {
    open(makePipe);
    LogStream stream(ends_.writing);
    stream.setLimit(kLongLimit);
    std::string expected;
    std::thread writer([&] {
        for (int i = 0; i < 100; ++i) stream.write(numbered(i));
    });
    for (int i = 0; i < 100; ++i) expected += numbered(i);
    std::string text;
    // Of the page that would be room: far less within several limits.
    for (const Clock::time_point begin = Clock::now(); Clock::now() - begin < 2 * kLongLimit;) {
        char byte = 0;
        ASSERT_EQ(read(ends_.reading, &byte, 1), 1);
        text += byte;
        usleep(100000);
    }
    text += readUntil(numbered(99));
    writer.join();
    EXPECT_EQ(text, expected);
}

// ---------------------------------------------------------------------------------------------------------------
// Terminals.

TEST_F(LogStreamTest, ATerminalThatWasStoppedDropsAndGoesOn) {
    open(makeTerminal);
    LogStream stream(ends_.writing);
    stream.setLimit(kLimit);
    stream.write("before\n");
    ASSERT_EQ(tcflow(ends_.writing, TCOOFF), 0);
    stream.write("lost\n");
    stream.write("lost\n");
    ASSERT_EQ(tcflow(ends_.writing, TCOON), 0);
    stream.write("after\n");
    EXPECT_EQ(readAll(), "before\n2 lines of the log dropped\nafter\n");
}

TEST_F(LogStreamTest, ControlSAndControlQStopAndStartATerminal) {
    open(makeTerminal);
    LogStream stream(ends_.writing);
    stream.setLimit(kLimit);
    ASSERT_EQ(::write(ends_.reading, "\x13", 1), 1);
    int64_t written = 0;
    while (!stream.hasDroppedLines())
        stream.write(numbered(static_cast<int>(written++)));  // until the key has arrived
    const std::string before = readAll();
    ASSERT_EQ(::write(ends_.reading, "\x11", 1), 1);
    while (stream.hasDroppedLines()) stream.write({});
    // The key may have come within a line.
    const std::string end = before.empty() || before.ends_with('\n') ? "" : "\n";
    EXPECT_EQ(readAll(), end + dropped(written - count(before, '\n')));
}

// ---------------------------------------------------------------------------------------------------------------
// Room that another writer takes.

TEST_P(LogStreamOfAKind, RoomThatIsGoneBeforeTheWriteHoldsNobody) {
    LogStream stream(ends_.writing);
    stream.setLimit(kLimit);
    system_is_old = true;
    poll_lies = true;
    int64_t written = writeUntilDropping(stream);
    for (int i = 0; i < 10; ++i, ++written) stream.write(numbered(0));
    stream.writeInSignalHandler("signal\n");
    stream.write(numbered(0));
    written += 2;
    const std::string before = readAll();
    stream.write({});
    EXPECT_TRUE(readAll().ends_with(dropped(written - count(before, '\n'))));
}

TEST_P(LogStreamOfAKind, OnAnOldSystemASlowReaderLosesNothing) {
    system_is_old = true;
    LogStream stream(ends_.writing);
    stream.setLimit(kLongLimit);
    std::string expected;
    for (int i = 0; i < 500; ++i) expected += numbered(i);
    std::thread writer([&] { stream.write(expected); });
    usleep(10000);
    EXPECT_EQ(readUntil(numbered(499)), expected);
    writer.join();
}

// ---------------------------------------------------------------------------------------------------------------
// Lines in pieces.

class LogStreamLines : public LogStreamTest {
  protected:
    void SetUp() override {
        LogStreamTest::SetUp();
        open(makePipe);
        stream_.emplace(ends_.writing);
        stream_->setLimit(kLimit);
    }
    void write(const std::string& text) { stream_->write(text); }
    void fill() { EXPECT_EQ(::write(ends_.writing, filling_.data(), filling_.size()), 4096); }
    std::string readBehindFilling() const {
        std::string text = readAll();
        EXPECT_EQ(text.substr(0, filling_.size()), filling_);
        return text.erase(0, filling_.size());
    }

    std::optional<LogStream> stream_;
    const std::string filling_ = std::string(4095, '-') + '\n';
};

TEST_F(LogStreamLines, OfALineWhoseBeginWasDroppedTheRestIsDroppedToo) {
    fill();
    write("one ");
    write("line");
    EXPECT_EQ(readBehindFilling(), "");
    write(" ended\nnext\n");
    EXPECT_EQ(readAll(), "1 lines of the log dropped\nnext\n");
}

TEST_F(LogStreamLines, ALineInThePipeWhoseRestWasDroppedIsEndedAndCounted) {
    write("begin ");
    EXPECT_EQ(readAll(), "begin ");
    fill();
    write("end\nand one\n");
    readBehindFilling();
    write("next\n");
    EXPECT_EQ(readAll(), "\n2 lines of the log dropped\nnext\n");
}

TEST_F(LogStreamLines, ALongLineIsCutEndedAndCounted) {
    const std::string text = std::string(5000, 'x') + "\nbehind\n";
    write(text);
    EXPECT_EQ(readAll(), std::string(4096, 'x'));
    write("next\n");
    EXPECT_EQ(readAll(), "\n2 lines of the log dropped\nnext\n");
}

TEST_F(LogStreamLines, TextsWithoutANewlineArePlacedAsTheyAre) {
    write("a");
    write("");
    write(std::string("b\0c", 3));
    write("\nd");
    EXPECT_EQ(readAll(), std::string("ab\0c\nd", 6));
}

// ---------------------------------------------------------------------------------------------------------------
// Signal handlers.

TEST_F(LogStreamLines, ASignalHandlerWritesAtOnceWhereThereIsRoom) {
    stream_->writeInSignalHandler("signal\n");
    EXPECT_EQ(readAll(), "signal\n");
}

TEST_F(LogStreamLines, ATextOfASignalHandlerWithoutRoomComesBeforeTheNextText) {
    fill();
    errno = ENOENT;
    stream_->writeInSignalHandler("signal\n");
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(stream_->hasDroppedLines());
    EXPECT_EQ(readBehindFilling(), "");
    write("next\n");
    EXPECT_EQ(readAll(), "signal\nnext\n");
}

TEST_F(LogStreamLines, ATextOfASignalHandlerWaitsForTheEndOfALine) {
    stream_->setLimit(kLongLimit);
    const std::string text = std::string(10000, 'x') + '\n';
    std::atomic<pid_t> id{0};
    std::thread writer([&] {
        id = gettid();
        write(text);
    });
    while (id == 0) usleep(1000);
    waitForSleep(id);
    const Clock::time_point begin = Clock::now();
    stream_->writeInSignalHandler("signal\n");
    EXPECT_LT(Clock::now() - begin, kLongLimit);
    EXPECT_EQ(readUntil("signal\n"), text + "signal\n");
    writer.join();
}

TEST_F(LogStreamLines, TextsOfSignalHandlersAreDroppedAndCountedLikeOthers) {
    fill();
    write("lost\n");
    for (int i = 0; i < 10; ++i) stream_->writeInSignalHandler("signal\n");
    write("lost\n");
    readBehindFilling();
    write("next\n");
    EXPECT_EQ(readAll(), "12 lines of the log dropped\nnext\n");
}

// A real signal, to a thread that writes all the time.
LogStream* stream_of_handler = nullptr;
std::atomic<int> handled{0};

TEST_F(LogStreamLines, ASignalWithinAWriteNeitherHangsNorMixes) {
    constexpr int kSignals = 200;
    fcntl(ends_.writing, F_SETPIPE_SZ, 1 << 16);  // so that there is room within a line
    stream_->setLimit(kLongLimit);
    stream_of_handler = &*stream_;
    handled = 0;
    signal(SIGUSR1, [](int) {
        stream_of_handler->writeInSignalHandler("signal\n");
        ++handled;
    });
    std::atomic<bool> stop{false};
    std::atomic<int> seen{0};
    const std::string line = std::string(200000, 'x') + '\n';
    std::thread writer([&] {
        while (!stop) write(line);
        write("end\n");
    });
    std::thread sender([&] {
        for (int i = 0; i < kSignals; ++i) {
            pthread_kill(writer.native_handle(), SIGUSR1);
            while (handled <= i || seen + 3 <= i) usleep(100);  // not more at once than are kept
        }
        stop = true;
    });
    FILE* const reader = fdopen(dup(ends_.reading), "r");
    char* text = nullptr;
    size_t size = 0;
    std::string last;
    while (last != "end\n" && getline(&text, &size, reader) > 0) {
        last = text;
        EXPECT_TRUE(last == "signal\n" || last == "end\n" || last == line) << last.substr(0, 100);
        seen += last == "signal\n" ? 1 : 0;
    }
    free(text);
    fclose(reader);
    sender.join();
    writer.join();
    signal(SIGUSR1, SIG_DFL);
    EXPECT_EQ(seen, kSignals);
}

// ---------------------------------------------------------------------------------------------------------------
// What takes nothing for other reasons.

TEST_F(LogStreamTest, AFullDiskCostsTheTextAtOnceAndWithoutAWord) {
    ends_.writing = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    for (const milliseconds limit : {kNoLimit, kLongLimit}) {
        LogStream stream(ends_.writing);
        stream.setLimit(limit);
        EXPECT_FALSE(stream.isLimited());
        const Clock::time_point begin = Clock::now();
        stream.write("lost\n");
        stream.writeInSignalHandler("lost\n");
        EXPECT_LT(Clock::now() - begin, kLongLimit);
        EXPECT_FALSE(stream.hasDroppedLines());
    }
}

TEST_P(LogStreamOfAKind, AReaderThatHasGoneCostsTheTextAtOnceAndWithoutAWord) {
    for (const milliseconds limit : {kNoLimit, kLongLimit}) {
        LogStream stream(ends_.writing);
        stream.setLimit(limit);
        close(ends_.reading);
        ends_.reading = -1;
        const Clock::time_point begin = Clock::now();
        stream.write(std::string(100000, 'x') + '\n');
        stream.write("lost\n");
        EXPECT_LT(Clock::now() - begin, kLongLimit);
        EXPECT_FALSE(stream.hasDroppedLines());
    }
}

TEST_P(LogStreamOfAKind, AReaderThatGoesWhileItIsWaitedForEndsTheWait) {
    LogStream stream(ends_.writing);
    stream.setLimit(milliseconds{60000});
    std::atomic<pid_t> id{0};
    std::thread writer([&] {
        id = gettid();
        stream.write(std::string(1000000, 'x') + '\n');
    });
    while (id == 0) usleep(1000);
    waitForSleep(id);
    close(ends_.reading);
    ends_.reading = -1;
    const Clock::time_point begin = Clock::now();
    writer.join();
    EXPECT_LT(Clock::now() - begin, milliseconds{30000});
    EXPECT_FALSE(stream.hasDroppedLines());
}

}  // namespace
