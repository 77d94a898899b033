#include "knihovny/thread3.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include "knihovny/mutex.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

void waitFor(const std::atomic<bool>& flag) {
    while (!flag) usleep(1000);
}

// Runs until it is told to end, and writes down what is called.
class Worker : public Thread3 {
  public:
    ~Worker() { Stop(); }

    std::vector<std::string> calls() {
        MutexLock lock(mutex_);
        return calls_;
    }

    std::atomic<bool> end{false};
    std::atomic<bool> finished{false};
    std::atomic<pthread_t> thread{0};
    std::atomic<Thread3*> exit_of{nullptr};

  protected:
    void BeforeStop() override {
        note("BeforeStop");
        end = true;
    }
    void SetupThread() override {
        thread = pthread_self();
        note("SetupThread");
    }
    void ExecuteThread() override {
        note("ExecuteThread");
        if (Thread3* object = exit_of) {
            object->Exit();
            note("after Exit");
        }
        while (!end) usleep(1000);
        note("end");
        finished = true;
    }

  private:
    void note(const std::string& call) {
        MutexLock lock(mutex_);
        calls_.push_back(call);
    }

    Mutex mutex_;
    std::vector<std::string> calls_ GUARDED_BY(mutex_);
};

using Calls = std::vector<std::string>;

TEST(Thread3, StopWithoutStartDoesNothingAndPrintsNothing) {
    CaptureStdout();
    CaptureStderr();
    {
        Worker worker;
        EXPECT_EQ(worker.threadID(), 0U);
        worker.Stop();
        EXPECT_EQ(worker.calls(), Calls{});
    }
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(GetCapturedStderr(), "");
}

TEST(Thread3, StartRunsTheBodyInAThreadOfItsOwn) {
    Worker worker;
    EXPECT_EQ(worker.Start(0), 0);
    EXPECT_NE(worker.threadID(), 0U);
    worker.Stop();
    EXPECT_EQ(worker.threadID(), 0U);
    EXPECT_NE(worker.thread, pthread_self());
    EXPECT_TRUE(worker.finished);
}

TEST(Thread3, SetupThreadComesBeforeTheBodyAndBeforeStopBeforeTheJoin) {
    Worker worker;
    worker.Start(0);
    while (worker.calls().size() < 2) usleep(1000);
    worker.Stop();
    EXPECT_EQ(worker.calls(), (Calls{"SetupThread", "ExecuteThread", "BeforeStop", "end"}));
}

TEST(Thread3, ThreadIdIsTheHandleOfTheThread) {
    Worker worker;
    worker.Start(0);
    const pthread_t handle = worker.threadID();
    worker.Stop();
    EXPECT_EQ(worker.thread, handle);
}

TEST(Thread3, TheHandleStaysAfterTheBodyReturned) {
    Worker worker;
    worker.end = true;
    worker.Start(0);
    waitFor(worker.finished);
    EXPECT_NE(worker.threadID(), 0U);
    worker.Stop();
    EXPECT_EQ(worker.threadID(), 0U);
}

TEST(Thread3, StartOnARunningObjectJoinsTheFirstThreadBefore) {
    Worker worker;
    worker.Start(0);
    while (worker.calls().size() < 2) usleep(1000);
    EXPECT_EQ(worker.Start(0), 0);
    worker.Stop();
    // The flag that ended the first one also ends the second at once.
    const Calls calls = worker.calls();
    ASSERT_GE(calls.size(), 5U);
    EXPECT_EQ(Calls(calls.begin(), calls.begin() + 4),
              (Calls{"SetupThread", "ExecuteThread", "BeforeStop", "end"}));
    EXPECT_EQ(std::count(calls.begin() + 4, calls.end(), "end"), 1);
}

TEST(Thread3, CanBeStartedAgainAfterStop) {
    Worker worker;
    for (int i = 0; i < 3; ++i) {
        worker.end = false;
        worker.finished = false;
        EXPECT_EQ(worker.Start(0), 0);
        worker.Stop();
        EXPECT_TRUE(worker.finished);
    }
}

TEST(Thread3, TheDestructorOfTheDerivedClassJoins) {
    std::atomic<bool> ended{false};
    class Slow : public Thread3 {
      public:
        explicit Slow(std::atomic<bool>& flag) : flag_(flag) {}
        ~Slow() { Stop(); }

      protected:
        void ExecuteThread() override {
            usleep(20000);
            flag_ = true;
        }

      private:
        std::atomic<bool>& flag_;
    };
    {
        Slow slow(ended);
        slow.Start(0);
    }
    EXPECT_TRUE(ended);
}

TEST(Thread3, StopOfADetachedThreadDoesNotWaitAndPrintsNothing) {
    class Detached : public Thread3 {
      public:
        std::atomic<bool> end{false};
        std::atomic<bool> finished{false};

      protected:
        void ExecuteThread() override {
            waitFor(end);
            finished = true;
        }
    };
    Detached detached;
    CaptureStdout();
    CaptureStderr();
    EXPECT_EQ(detached.StartDetatched(), 0);
    EXPECT_NE(detached.threadID(), 0U);
    detached.Stop();
    EXPECT_FALSE(detached.finished);
    EXPECT_EQ(detached.threadID(), 0U);
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(GetCapturedStderr(), "");
    detached.end = true;
    waitFor(detached.finished);
}

TEST(Thread3, StartAfterADetachedThreadTellsThatItCannotBeJoinedAndStartsTheNext) {
    Worker worker;
    worker.end = true;
    worker.StartDetatched();
    waitFor(worker.finished);
    worker.finished = false;
    CaptureStderr();
    EXPECT_EQ(worker.Start(0), 0);
    worker.Stop();
    EXPECT_EQ(GetCapturedStderr(), "Pthread_join error ... \n: Invalid argument\n");
    EXPECT_TRUE(worker.finished);
    EXPECT_EQ(worker.threadID(), 0U);
    const Calls calls = worker.calls();
    EXPECT_EQ(Calls(calls.begin(), calls.begin() + 4),
              (Calls{"SetupThread", "ExecuteThread", "end", "BeforeStop"}));
}

TEST(Thread3, StartAfterADetachedThreadThatStillRunsDoesNotWaitForIt) {
    class Detached : public Thread3 {
      public:
        std::atomic<bool> end{false};
        std::atomic<int> finished{0};

      protected:
        void ExecuteThread() override {
            waitFor(end);
            ++finished;
        }
    };
    Detached object;
    CaptureStderr();
    object.StartDetatched();
    EXPECT_EQ(object.Start(0), 0);
    EXPECT_EQ(object.finished, 0);
    object.end = true;
    object.Stop();
    EXPECT_EQ(GetCapturedStderr(), "Pthread_join error ... \n: Invalid argument\n");
    while (object.finished < 2) usleep(1000);
}

TEST(Thread3, AThreadThatFollowsAnUnjoinableOneIsJoinedWithoutAWord) {
    Worker worker;
    worker.end = true;
    worker.StartDetatched();
    waitFor(worker.finished);
    worker.Stop();
    CaptureStderr();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(worker.Start(0), 0);
    }
    worker.Stop();
    EXPECT_EQ(GetCapturedStderr(), "");
}

TEST(Thread3, ExitEndsTheThread) {
    Worker worker;
    worker.exit_of = &worker;
    worker.Start(0);
    worker.Stop();
    EXPECT_EQ(worker.calls().back() == "BeforeStop" || worker.calls().back() == "ExecuteThread", true);
    EXPECT_FALSE(worker.finished);
}

TEST(Thread3, ExitOfAnObjectThatHasNotBegunReturns) {
    Worker idle;
    idle.Exit();
    Worker worker;
    worker.exit_of = &idle;
    worker.end = true;
    worker.Start(0);
    worker.Stop();
    EXPECT_TRUE(worker.finished);
}

#if defined(__SANITIZE_THREAD__)
#define KORVATO_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KORVATO_THREAD_SANITIZER 1
#endif
#endif

TEST(Thread3, AThreadThatStopsItselfFailsToJoinAndLeavesTheObjectIdle) {
    class SelfStopper : public Thread3 {
      public:
        std::atomic<bool> go{false};
        std::atomic<bool> finished{false};

      protected:
        void ExecuteThread() override {
            waitFor(go);
            const pthread_t self = threadID();
            Stop();
            pthread_detach(self);
            finished = true;
        }
    };
#ifdef KORVATO_THREAD_SANITIZER
    GTEST_SKIP() << "the thread sanitizer ends the process at a join of the own thread";
#endif
    SelfStopper stopper;
    CaptureStderr();
    stopper.Start(0);
    stopper.go = true;
    waitFor(stopper.finished);
    EXPECT_EQ(GetCapturedStderr(), "Pthread_join error ... \n: Resource deadlock avoided\n");
    EXPECT_EQ(stopper.threadID(), 0U);
}

TEST(Thread3, EntryPointReturnsTheObject) {
    Worker worker;
    worker.end = true;
    EXPECT_EQ(Thread3::EntryPoint(static_cast<Thread3*>(&worker)), &worker);
    EXPECT_TRUE(worker.finished);
}

// In the child: no thread can get a stack of this size.
[[noreturn]] void startWithoutMemory(int error_output) {
    dup2(error_output, STDERR_FILENO);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, size_t{1} << 60);
    pthread_setattr_default_np(&attributes);
    Thread3 thread;
    thread.Start(0);
    _exit(0);
}

TEST(Thread3, AFailedCreationIsToldAndWaitedForWithoutEnd) {
    int output[2];
    ASSERT_EQ(pipe2(output, O_CLOEXEC), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) startWithoutMemory(output[1]);
    close(output[1]);

    const std::string expected =
        "Thread3::start failed creating thread!\n: Resource temporarily unavailable\n";
    std::string text;
    char block[512];
    while (text.size() < expected.size()) {
        const ssize_t length = read(output[0], block, sizeof block);
        if (length <= 0) break;
        text.append(block, static_cast<size_t>(length));
    }
    EXPECT_EQ(text, expected);
    // Nothing more comes, and the end of the pipe, which the child's end would bring, does not come either.
    pollfd more{output[0], POLLIN, 0};
    EXPECT_EQ(poll(&more, 1, 100), 0);

    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status));
    close(output[0]);
}

}  // namespace
