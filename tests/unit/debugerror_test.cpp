#include "knihovny/debugerror.h"

#include <gtest/gtest.h>
#include <pthread.h>

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
