#include "knihovny/debugerror.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <thread>
#include <vector>

#include "knihovny/splitter.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

std::string ownThread() {
    return std::to_string(static_cast<unsigned long>(pthread_self()));
}

TEST(DumpError, WritesMessageAndThread) {
    CaptureStdout();
    DumpError("SockRead EBADF");
    EXPECT_EQ(GetCapturedStdout(), "ERROR: SockRead EBADF , in thread " + ownThread() + "\n");
}

TEST(DumpError, DoesNotWriteTheErrorNumber) {
    CaptureStdout();
    DumpError("Nelze vytvorit soket\n", 24);
    EXPECT_EQ(GetCapturedStdout(), "ERROR: Nelze vytvorit soket\n , in thread " + ownThread() + "\n");
}

TEST(DumpError, NamesTheCallingThread) {
    std::string expected;
    CaptureStdout();
    std::thread([&] {
        expected = "ERROR: x , in thread " + ownThread() + "\n";
        DumpError("x");
    }).join();
    EXPECT_EQ(GetCapturedStdout(), expected);
}

TEST(DebugPrint, AddsNothing) {
    CaptureStdout();
    DebugPrint("%s%n no newline");
    EXPECT_EQ(GetCapturedStdout(), "%s%n no newline");
}

TEST(Print, WritesEveryByte) {
    const std::string text("a\0%d\xff\n", 6);
    CaptureStdout();
    Print(text);
    EXPECT_EQ(GetCapturedStdout(), text);
    CaptureStderr();
    PrintError(text);
    EXPECT_EQ(GetCapturedStderr(), text);
}

TEST(PrintLine, JoinsPartsOfAllKinds) {
    const std::string text = "text";
    CaptureStdout();
    PrintLine(text, ' ', "c text", ' ', std::string_view("view"), ' ', 12, ' ', -3L, ' ', true, false, ' ',
              std::numeric_limits<uint64_t>::max(), ' ', std::numeric_limits<int64_t>::min());
    EXPECT_EQ(GetCapturedStdout(), "text c text view 12 -3 10 18446744073709551615 -9223372036854775808\n");
}

TEST(PrintLine, WritesSixSignificantDigits) {
    CaptureStdout();
    PrintLine(0.0, ' ', 1.5, ' ', 1234567.0, ' ', 0.00001234567, ' ', 100000.0L, ' ', -2.25L);
    EXPECT_EQ(GetCapturedStdout(), "0 1.5 1.23457e+06 1.23457e-05 100000 -2.25\n");
}

TEST(PrintLine, WithoutPartsIsAnEmptyLine) {
    CaptureStdout();
    PrintLine();
    EXPECT_EQ(GetCapturedStdout(), "\n");
}

TEST(PrintErrorLine, GoesToStandardError) {
    CaptureStdout();
    CaptureStderr();
    PrintErrorLine("line ", 1);
    EXPECT_EQ(GetCapturedStderr(), "line 1\n");
    EXPECT_EQ(GetCapturedStdout(), "");
}

TEST(PrintSystemError, WritesWhatPerrorWould) {
    for (const int error : {0, EAGAIN, ENOENT, 9999}) {
        CaptureStderr();
        errno = error;
        perror("Thread3::start failed!\n");
        const std::string expected = GetCapturedStderr();
        CaptureStderr();
        errno = error;
        PrintSystemError("Thread3::start failed!\n");
        EXPECT_EQ(errno, error);
        EXPECT_EQ(GetCapturedStderr(), expected);
    }
}

// Standard output and error lead to pipes, or to the same one, for the life of an object.
class Redirected {
  public:
    explicit Redirected(bool same) {
        fflush(nullptr);
        for (int i = 0; i < 2; ++i) {
            saved_[i] = dup(i + 1);
            EXPECT_EQ(pipe2(pipes_[i], O_CLOEXEC), 0);
            fcntl(pipes_[i][1], F_SETPIPE_SZ, 4096);
            dup2(pipes_[same ? 0 : i][1], i + 1);
        }
        dropLogWithoutRoom(std::chrono::milliseconds(200));
    }
    ~Redirected() {
        for (int i = 0; i < 2; ++i) {
            dup2(saved_[i], i + 1);
            close(saved_[i]);
            close(pipes_[i][0]);
            close(pipes_[i][1]);
        }
        dropLogWithoutRoom(std::chrono::milliseconds(0));
    }
    Redirected(const Redirected&) = delete;
    Redirected& operator=(const Redirected&) = delete;

    void fill(int descriptor) const {
        const std::string page(4096, '-');
        ASSERT_EQ(write(pipes_[descriptor - 1][1], page.data(), page.size()), 4096);
    }
    std::string read(int descriptor) const {
        char block[8192];
        const ssize_t length = ::read(pipes_[descriptor - 1][0], block, sizeof block);
        return {block, static_cast<size_t>(std::max<ssize_t>(length, 0))};
    }

  private:
    int saved_[2] = {};
    int pipes_[2][2] = {};
};

TEST(DropLogWithoutRoom, BothStreamsInOnePipeAreOne) {
    const Redirected both(true);
    both.fill(1);
    PrintErrorLine("lost");
    PrintLine("lost");
    PrintErrorLine("lost");
    both.read(1);
    PrintErrorLine("error");
    PrintLine("line");
    EXPECT_EQ(both.read(1), "3 lines of the log dropped\nerror\nline\n");
}

TEST(DropLogWithoutRoom, AStreamThatStandsStillDoesNotHoldTheOtherOne) {
    const Redirected both(false);
    both.fill(2);
    PrintErrorLine("lost");
    PrintLine("line");
    EXPECT_EQ(both.read(1), "line\n");
    both.read(2);
    // A line on the other stream is enough to look after this one.
    PrintLine("next");
    EXPECT_EQ(both.read(1), "next\n");
    EXPECT_EQ(both.read(2), "1 lines of the log dropped\n");
    both.fill(1);
    PrintLine("lost");
    PrintErrorLine("error");
    EXPECT_EQ(both.read(2), "error\n");
    both.read(1);
    PrintInSignalHandler("signal\n");
    EXPECT_EQ(both.read(1), "1 lines of the log dropped\nsignal\n");
}

TEST(PrintSystemError, IsDroppedAndCountedLikeOtherLines) {
    const Redirected both(false);
    both.fill(2);
    errno = ENOENT;
    PrintSystemError("lost");
    both.read(2);
    PrintErrorLine("next");
    EXPECT_EQ(both.read(2), "1 lines of the log dropped\nnext\n");
}

TEST(PrintLine, LinesOfSeveralThreadsStayWhole) {
    constexpr int kLines = 500;
    CaptureStdout();
    std::vector<std::thread> threads;
    for (char name = 'a'; name < 'e'; ++name) {
        threads.emplace_back([name] {
            for (int i = 0; i < kLines; ++i) PrintLine(std::string(30, name), ' ', std::string(30, name));
        });
    }
    for (std::thread& thread : threads) thread.join();
    const Splitter lines(GetCapturedStdout(), "\n");
    ASSERT_EQ(lines.size(), 4U * kLines + 1);
    for (size_t i = 0; i + 1 < lines.size(); ++i) {
        const std::string half(30, lines[i].empty() ? '?' : lines[i][0]);
        ASSERT_EQ(lines[i], half + " " + half);
    }
}

}  // namespace
