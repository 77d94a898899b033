#include "alarmd/mail/client_process.h"

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <thread>

#include "tests/support/mail_fixture.h"

namespace {

class ClientProcess : public testing::Test {
  protected:
    void SetUp() override { signal(SIGPIPE, SIG_IGN); }
    void TearDown() override {
        konec = false;
        client_stop_limit = 60;
    }

    ClientResult runScript(const std::string& text, const std::string& input = "") {
        const std::string path = folder.script("client", text);
        return runClient(path, {path}, input);
    }

    static int openDescriptors() {
        int count = 0;
        for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
            ++count;
        return count;
    }

    TempFolder folder;
};

std::string largeInput() {
    std::string input(1 << 20, '\0');
    for (size_t i = 0; i < input.size(); ++i) input[i] = static_cast<char>(i * 7 + i / 251);
    return input;
}

void expectResult(const ClientResult& result, ClientResult::Kind kind, int code) {
    EXPECT_EQ(result.kind, kind);
    EXPECT_EQ(result.code, code);
}

TEST_F(ClientProcess, GetsItsArgumentsAsTheyAreWithoutAShell) {
    const std::string command = "cat /proc/$$/cmdline >'" + folder / "cmdline" + "'";
    expectResult(runClient("/bin/sh", {"any name", "-c", command, "; rm -rf x", "`id` $(id) \"'\\"}, ""),
                 ClientResult::kExited, 0);
    const std::string zero(1, '\0');
    EXPECT_EQ(fileText(folder / "cmdline"), "any name" + zero + "-c" + zero + command + zero + "; rm -rf x" +
                                                zero + "`id` $(id) \"'\\" + zero);
}

TEST_F(ClientProcess, ReadsTheWholeInputAndThenItsEnd) {
    const std::string input = largeInput();
    expectResult(runScript("cat >\"$DIR/input\"", input), ClientResult::kExited, 0);
    EXPECT_EQ(fileText(folder / "input"), input);
}

TEST_F(ClientProcess, ReadsAnEmptyInputAsItsEnd) {
    expectResult(runScript("cat >\"$DIR/input\"; exit 4"), ClientResult::kExited, 4);
    EXPECT_EQ(fileText(folder / "input"), "");
}

TEST_F(ClientProcess, HasBlockingStandardDescriptors) {
    expectResult(runScript("for fd in 0 1 2; do cat /proc/$$/fdinfo/$fd >\"$DIR/$fd\"; done"),
                 ClientResult::kExited, 0);
    for (const char* fd : {"0", "1", "2"}) {
        const std::string info = fileText(folder / fd);
        const size_t flags = info.find("flags:\t");
        ASSERT_NE(flags, std::string::npos);
        EXPECT_EQ(std::stol(info.substr(flags + 7), nullptr, 8) & O_NONBLOCK, 0) << fd;
    }
}

TEST_F(ClientProcess, TalksToTheLogByteForByte) {
    CapturedOutput output(STDOUT_FILENO), errors(STDERR_FILENO);
    expectResult(runScript("printf 'one\\n\\000two'\nprintf 'oops\\r\\n' >&2\nexit 3"), ClientResult::kExited,
                 3);
    EXPECT_EQ(output.text(), std::string("one\n\0two", 8));
    EXPECT_EQ(errors.text(), "oops\r\n");
}

TEST_F(ClientProcess, MayTalkALotBeforeItReads) {
    CapturedOutput output(STDOUT_FILENO), errors(STDERR_FILENO);
    std::ofstream(folder / "words", std::ios::binary) << largeInput();
    expectResult(
        runScript("cat \"$DIR/words\"\ncat \"$DIR/words\" >&2\ncat >\"$DIR/input\"\ncat \"$DIR/words\"",
                  largeInput()),
        ClientResult::kExited, 0);
    EXPECT_EQ(output.text(), largeInput() + largeInput());
    EXPECT_EQ(errors.text(), largeInput());
    EXPECT_EQ(fileText(folder / "input"), largeInput());
}

TEST_F(ClientProcess, MayCloseItsOutputsAndGoOn) {
    expectResult(runScript("exec >&- 2>&-\nsleep 0.3\ncat >\"$DIR/input\"\nexit 2", "text"),
                 ClientResult::kExited, 2);
    EXPECT_EQ(fileText(folder / "input"), "text");
}

TEST_F(ClientProcess, IsNotWaitedForInAProcessThatItLeavesBehind) {
    CapturedOutput output(STDOUT_FILENO);
    expectResult(runScript("(while [ -d \"$DIR\" ]; do sleep 0.01; done; echo late) &\n"
                           "echo first"),
                 ClientResult::kExited, 0);
    EXPECT_EQ(output.text(), "first\n");
}

TEST_F(ClientProcess, InheritsNoDescriptorButTheStandardOnes) {
    const int leaking = open("/dev/null", O_RDONLY);
    ASSERT_EQ(dup2(leaking, 200), 200);
    // The fourth is the folder that ls itself reads.
    expectResult(runScript("exec ls /proc/self/fd >\"$DIR/fds\""), ClientResult::kExited, 0);
    close(leaking);
    close(200);
    EXPECT_EQ(fileText(folder / "fds"), "0\n1\n2\n3\n");
}

TEST_F(ClientProcess, StartsWithAnEmptySignalMaskAndTheDefaultForSigpipe) {
    sigset_t blocked, before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigaddset(&blocked, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    const ClientResult result = runScript("exec cat /proc/self/status >\"$DIR/status\"");
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    expectResult(result, ClientResult::kExited, 0);
    const std::string status = fileText(folder / "status");
    EXPECT_NE(status.find("SigBlk:\t0000000000000000\n"), std::string::npos) << status;
    const size_t ignored = status.find("SigIgn:\t");
    ASSERT_NE(ignored, std::string::npos);
    EXPECT_EQ(std::stoull(status.substr(ignored + 8, 16), nullptr, 16) & (1ULL << (SIGPIPE - 1)), 0U);
}

TEST_F(ClientProcess, GivesTheExitStatus) {
    expectResult(runScript("exit 75"), ClientResult::kExited, 75);
}

TEST_F(ClientProcess, GivesTheSignalThatKilledIt) {
    expectResult(runScript("kill -9 $$"), ClientResult::kSignalled, SIGKILL);
    expectResult(runScript("kill -PIPE $$"), ClientResult::kSignalled, SIGPIPE);
}

TEST_F(ClientProcess, IsWaitedForWhenItEndsWithoutReading) {
    expectResult(runScript("exit 0", largeInput()), ClientResult::kExited, 0);
}

TEST_F(ClientProcess, IsWaitedForWhenItClosesItsInputAtOnce) {
    expectResult(runScript("exec <&-\nsleep 0.2\nexit 3", largeInput()), ClientResult::kExited, 3);
}

TEST_F(ClientProcess, IsWaitedForWhenItReadsAPartOnly) {
    expectResult(runScript("head -c 70000 >\"$DIR/input\"\nexit 6", largeInput()), ClientResult::kExited, 6);
    EXPECT_EQ(fileText(folder / "input"), largeInput().substr(0, 70000));
}

TEST_F(ClientProcess, ReportsWhatCannotBeStarted) {
    expectResult(runClient(folder / "missing", {"x"}, "input"), ClientResult::kNotStarted, ENOENT);
    expectResult(runClient(folder.path(), {"x"}, "input"), ClientResult::kNotStarted, EACCES);
    const std::string plain = folder.script("plain", "exit 0");
    chmod(plain.c_str(), 0644);
    expectResult(runClient(plain, {"x"}, "input"), ClientResult::kNotStarted, EACCES);
    std::ofstream(plain, std::ios::trunc) << "no program\n";
    chmod(plain.c_str(), 0755);
    expectResult(runClient(plain, {"x"}, "input"), ClientResult::kNotStarted, ENOEXEC);
}

TEST_F(ClientProcess, LeavesNoDescriptorAndNoChildBehind) {
    const int before = openDescriptors();
    runScript("cat >/dev/null", largeInput());
    runScript("exit 1", largeInput());
    runClient(folder / "missing", {"x"}, "input");
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST_F(ClientProcess, MayRunInSeveralThreadsAtOnce) {
    const std::string path = folder.script("client", "cat >\"$1\"; exit 8");
    const std::string input = largeInput();
    ClientResult results[3];
    std::thread threads[3];
    for (int i = 0; i < 3; ++i) {
        threads[i] = std::thread([&, i] {
            results[i] = runClient(path, {path, folder / std::to_string(i)}, input);
        });
    }
    for (int i = 0; i < 3; ++i) {
        threads[i].join();
        expectResult(results[i], ClientResult::kExited, 8);
        EXPECT_EQ(fileText(folder / std::to_string(i)), input);
    }
}

TEST_F(ClientProcess, ThatWorksIsNotCutShortByAStopRequest) {
    konec = true;
    expectResult(runScript("sleep 0.5\ncat >\"$DIR/input\"\nexit 0", "text"), ClientResult::kExited, 0);
    EXPECT_EQ(fileText(folder / "input"), "text");
}

TEST_F(ClientProcess, HasItsTimeFromTheStopRequestOnHoweverLongItHasRun) {
    client_stop_limit = 2;
    std::thread stopper([this] {
        usleep(2200000);
        konec = true;
        usleep(300000);  // the request is seen
        std::ofstream(folder / "gate");
    });
    const ClientResult result = runScript("while [ ! -e \"$DIR/gate\" ]; do sleep 0.01; done\nexit 9");
    stopper.join();
    expectResult(result, ClientResult::kExited, 9);
}

TEST_F(ClientProcess, ThatHangsIsEndedAfterAStopRequest) {
    client_stop_limit = 1;
    std::chrono::steady_clock::time_point request;
    std::thread stopper([&request] {
        usleep(200000);
        request = std::chrono::steady_clock::now();
        konec = true;
    });
    const ClientResult result = runScript(
        "trap 'echo asked >\"$DIR/asked\"; exit 0' TERM\nwhile :; do sleep 0.1; done", largeInput());
    stopper.join();
    EXPECT_GE(std::chrono::steady_clock::now() - request, std::chrono::seconds(1));
    EXPECT_EQ(result.kind, ClientResult::kStopped);
    EXPECT_EQ(fileText(folder / "asked"), "asked\n");
}

TEST_F(ClientProcess, ThatHangsAndRefusesToEndIsKilled) {
    client_stop_limit = 1;
    konec = true;
    const ClientResult result = runScript("echo $$ >\"$DIR/pid\"\ntrap '' TERM\nexec sleep 600");
    EXPECT_EQ(result.kind, ClientResult::kStopped);
    EXPECT_EQ(kill(std::stoi(fileText(folder / "pid")), 0), -1);
}

// From now on this process has no pidfd_open, as on a kernel before 5.3.
bool takePidfdAway() {
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_pidfd_open, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program = {static_cast<unsigned short>(std::size(filter)), filter};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST_F(ClientProcess, IsFedAndWaitedForWithoutAProcessDescriptor) {
    const std::string input = largeInput();
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (!takePidfdAway()) _exit(77);
        const ClientResult read = runScript("cat >\"$DIR/input\"; exit 5", input);
        if (read.kind != ClientResult::kExited || read.code != 5) _exit(1);
        const ClientResult late = runScript("exec <&-\nsleep 0.2\nkill -9 $$", input);
        if (late.kind != ClientResult::kSignalled || late.code != SIGKILL) _exit(2);
        client_stop_limit = 1;
        konec = true;
        if (runScript("exec sleep 600", input).kind != ClientResult::kStopped) _exit(3);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no system call filters here";
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(fileText(folder / "input"), input);
}

}  // namespace
