#include "knihovny/socketfce.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <thread>

#include "knihovny/error_repeats.h"

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

std::string errorLine(const std::string& message) {
    return "ERROR: " + message + " , in thread " +
           std::to_string(static_cast<unsigned long>(pthread_self())) + "\n";
}

// Two connected sockets that do not block.
class SocketTest : public testing::Test {
  protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair_), 0);
    }
    void TearDown() override {
        close(pair_[0]);
        closePeer();
    }
    void closePeer() {
        if (pair_[1] >= 0) close(pair_[1]);
        pair_[1] = -1;
    }
    int own() const { return pair_[0]; }
    int peer() const { return pair_[1]; }

    char buffer_[16] = {};

  private:
    int pair_[2] = {-1, -1};
};

// A descriptor number that is not open.
constexpr int kClosed = -1;

using SockRead = SocketTest;

TEST_F(SockRead, GivesWhatIsThere) {
    ASSERT_EQ(write(peer(), "abc\0d", 5), 5);
    EXPECT_EQ(SockRead2(own(), buffer_, 3), 3);
    EXPECT_EQ(std::string(buffer_, 3), "abc");
    EXPECT_EQ(SockRead3(own(), buffer_, sizeof buffer_), 2);
    EXPECT_EQ(std::string(buffer_, 2), std::string("\0d", 2));
}

TEST_F(SockRead, GivesZeroAndNoLineWhenNothingIsThere) {
    CaptureStdout();
    EXPECT_EQ(SockRead2(own(), buffer_, sizeof buffer_), 0);
    EXPECT_EQ(SockRead3(own(), buffer_, sizeof buffer_), 0);
    EXPECT_EQ(GetCapturedStdout(), "");
}

TEST_F(SockRead, OnlySockRead3TellsThatThePeerClosed) {
    closePeer();
    CaptureStdout();
    EXPECT_EQ(SockRead2(own(), buffer_, sizeof buffer_), 0);
    EXPECT_EQ(SockRead3(own(), buffer_, sizeof buffer_), -3);
    EXPECT_EQ(GetCapturedStdout(), "");
}

TEST_F(SockRead, GivesWhatThePeerSentBeforeItClosed) {
    ASSERT_EQ(write(peer(), "x", 1), 1);
    closePeer();
    EXPECT_EQ(SockRead3(own(), buffer_, sizeof buffer_), 1);
    EXPECT_EQ(SockRead3(own(), buffer_, sizeof buffer_), -3);
}

TEST_F(SockRead, TellsOfAClosedDescriptor) {
    for (const auto read_function : {SockRead2, SockRead3}) {
        CaptureStdout();
        EXPECT_EQ(read_function(kClosed, buffer_, sizeof buffer_, nullptr), -1);
        EXPECT_EQ(errno, EBADF);
        EXPECT_EQ(GetCapturedStdout(), errorLine("SockRead EBADF"));
    }
}

TEST_F(SockRead, TellsOfAnInputError) {
    // The first page of the own memory is never mapped.
    const int memory = open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(memory, 0);
    CaptureStdout();
    EXPECT_EQ(SockRead2(memory, buffer_, sizeof buffer_), -1);
    EXPECT_EQ(GetCapturedStdout(), errorLine("SockRead EIO"));
    close(memory);
}

TEST_F(SockRead, TellsOfAnyOtherError) {
    const int folder = open("/tmp", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(folder, 0);
    CaptureStdout();
    EXPECT_EQ(SockRead3(folder, buffer_, sizeof buffer_), -1);
    EXPECT_EQ(GetCapturedStdout(), errorLine("SockRead jina chyba."));
    close(folder);
}

TEST_F(SockRead, TellsARepeatedErrorOnceWhenAsked) {
    const int folder = open("/tmp", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(folder, 0);
    ErrorRepeats repeats;
    CaptureStdout();
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(SockRead2(kClosed, buffer_, sizeof buffer_, &repeats), -1);
        EXPECT_EQ(repeats.logged(), i == 0);
        EXPECT_EQ(SockRead2(folder, buffer_, sizeof buffer_, &repeats), -1);
        EXPECT_EQ(repeats.logged(), i == 0);
    }
    EXPECT_EQ(GetCapturedStdout(), errorLine("SockRead EBADF") + errorLine("SockRead jina chyba."));
    close(folder);
}

using SockWrite = SocketTest;

TEST_F(SockWrite, WritesEverything) {
    EXPECT_EQ(SockWriteTimeout(own(), "abc\0d", 5, 3, 0), 5);
    EXPECT_EQ(read(peer(), buffer_, sizeof buffer_), 5);
    EXPECT_EQ(std::string(buffer_, 5), std::string("abc\0d", 5));
}

TEST_F(SockWrite, LengthZeroGivesZeroWithoutAWrite) {
    CaptureStdout();
    EXPECT_EQ(SockWriteTimeout(own(), "abc", 0, 3, 0), 0);
    EXPECT_EQ(SockWriteTimeout(kClosed, nullptr, 0, 0, 0), 0);
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(read(peer(), buffer_, sizeof buffer_), -1);
}

TEST_F(SockWrite, GoesOnWhenTheReaderMakesRoom) {
    const std::string text(3000000, 'x');
    size_t received = 0;
    std::thread reader([&] {
        std::string block(65536, '\0');
        while (received < text.size()) {
            const ssize_t length = read(peer(), block.data(), block.size());
            if (length > 0) received += static_cast<size_t>(length);
        }
    });
    EXPECT_EQ(SockWriteTimeout(own(), text.data(), text.size(), 60, 0), 3000000);
    reader.join();
}

TEST_F(SockWrite, TimesOutOnAFullBuffer) {
    const std::string text(3000000, 'x');
    CaptureStdout();
    EXPECT_EQ(SockWriteTimeout(own(), text.data(), text.size(), 0, 20000), -2);
    EXPECT_EQ(GetCapturedStdout(), "");
}

TEST_F(SockWrite, AZeroLimitStillMakesOneWrite) {
    // Whether the write takes a microsecond or none, it is made.
    const int result = SockWriteTimeout(own(), "abc", 3, 0, 0);
    EXPECT_TRUE(result == 3 || result == -2) << result;
    EXPECT_EQ(read(peer(), buffer_, sizeof buffer_), 3);
}

TEST_F(SockWrite, ATransferThatEndsAfterTheLimitTimesOut) {
    // A limit that has passed before the first write.
    EXPECT_EQ(SockWriteTimeout(own(), "abc", 3, 0, -1), -2);
    EXPECT_EQ(read(peer(), buffer_, sizeof buffer_), 3);
}

TEST_F(SockWrite, TellsHowManyBytesWereTaken) {
    const std::string text(3000000, 'x');
    unsigned long taken = 99;
    EXPECT_EQ(SockWriteTimeout(own(), "abc", 0, 3, 0, &taken), 0);
    EXPECT_EQ(taken, 0U);
    EXPECT_EQ(SockWriteTimeout(own(), "abc", 3, 3, 0, &taken), 3);
    EXPECT_EQ(taken, 3U);
    // Taken whole, but late.
    EXPECT_EQ(SockWriteTimeout(own(), "abcd", 4, 0, -1, &taken), -2);
    EXPECT_EQ(taken, 4U);
    EXPECT_EQ(SockWriteTimeout(own(), text.data(), text.size(), 0, 20000, &taken), -2);
    const unsigned long part = taken;
    EXPECT_GT(part, 0U);
    EXPECT_LT(part, text.size());
    EXPECT_EQ(SockWriteTimeout(own(), text.data(), text.size(), 0, 20000, &taken), -2);
    EXPECT_EQ(taken, 0U);
    unsigned long received = 0;
    for (ssize_t count; (count = read(peer(), buffer_, sizeof buffer_)) > 0;) {
        received += static_cast<unsigned long>(count);
    }
    EXPECT_EQ(received, 3 + 4 + part);
    EXPECT_EQ(SockWriteTimeout(kClosed, "abc", 3, 3, 0, &taken), -1);
    EXPECT_EQ(taken, 0U);
}

TEST_F(SockWrite, TellsThatThePeerIsGone) {
    closePeer();
    CaptureStdout();
    EXPECT_EQ(SockWriteTimeout(own(), "abc", 3, 3, 0), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(GetCapturedStdout(), errorLine("SockWriteTimeout EPIPE"));
}

TEST_F(SockWrite, TellsOfAClosedDescriptor) {
    CaptureStdout();
    EXPECT_EQ(SockWriteTimeout(kClosed, "abc", 3, 3, 0), -1);
    EXPECT_EQ(GetCapturedStdout(), errorLine("SockWriteTimeout EBADF"));
}

TEST_F(SockWrite, TellsOfAFullDevice) {
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    CaptureStdout();
    EXPECT_EQ(SockWriteTimeout(full, "abc", 3, 3, 0), -1);
    EXPECT_EQ(GetCapturedStdout(), errorLine("SockWriteTimeout ENOSPC"));
    close(full);
}

TEST_F(SockWrite, TellsOfAnyOtherError) {
    // Takes eight bytes at a time and nothing else.
    const int counter = eventfd(0, EFD_CLOEXEC);
    ASSERT_GE(counter, 0);
    CaptureStdout();
    EXPECT_EQ(SockWriteTimeout(counter, "abc", 3, 3, 0), -1);
    EXPECT_EQ(GetCapturedStdout(), errorLine("SockWriteTimeout jina chyba."));
    close(counter);
}

TEST(ErrorRepeatsTest, AnErrorIsDueOnceAMinuteByItsKind) {
    ErrorRepeats repeats;
    EXPECT_TRUE(repeats.due(EIO));
    EXPECT_FALSE(repeats.due(EIO));
    EXPECT_FALSE(repeats.logged());
    EXPECT_TRUE(repeats.due(EBADF));
    EXPECT_TRUE(repeats.logged());
    EXPECT_FALSE(repeats.due(EIO));
    EXPECT_FALSE(repeats.due(EBADF));
}

}  // namespace
