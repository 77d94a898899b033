#include "alarmd/mail/client_process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <iterator>
#include <string_view>

#include "alarmd/alarmd.h"
#include "knihovny/debugerror.h"
#include "knihovny/descriptor.h"

int client_stop_limit = 60;

namespace {

using Clock = std::chrono::steady_clock;

// konec is raised by a signal that another thread may receive, so waits are cut into slices.
constexpr int kSliceMs = 100;
// Without a process descriptor the client's end is looked for this often.
constexpr int kBlindSliceMs = 5;
// What is logged at once. The log's reader may be slow, and nothing else is looked at meanwhile.
constexpr size_t kPieceSize = 512;
// So much is what a pipe holds, and is logged behind the client's end.
constexpr int kMostPieces = 65536 / kPieceSize;

// A pipe of which one end is the daemon's, who never waits at it, and the other one the client's, for whom it
// is an ordinary, blocking one.
struct Pipe {
    Descriptor own;
    Descriptor clients;

    // own_end: 0 to read from the client, 1 to write to it. Returns false with errno.
    bool open(int own_end) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) return false;
        own.reset(ends[own_end]);
        clients.reset(ends[1 - own_end]);
        return fcntl(own.get(), F_SETFL, O_NONBLOCK) == 0;
    }
};

struct ClientPipes {
    Pipe input, output, errors;

    bool open() { return input.open(1) && output.open(0) && errors.open(0); }

    void closeClientsEnds() {
        for (Pipe* pipe : {&input, &output, &errors}) pipe->clients.reset();
    }
};

// What the client begins with. Descriptors from 3 on are closed by number, because some are opened inside
// libraries.
class SpawnSetup {
  public:
    explicit SpawnSetup(const ClientPipes& pipes) {
        posix_spawn_file_actions_init(&actions_);
        posix_spawn_file_actions_adddup2(&actions_, pipes.input.clients.get(), STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions_, pipes.output.clients.get(), STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions_, pipes.errors.clients.get(), STDERR_FILENO);
        posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
        posix_spawnattr_init(&attributes_);
        sigset_t signals;
        sigemptyset(&signals);
        posix_spawnattr_setsigmask(&attributes_, &signals);
        sigaddset(&signals, SIGPIPE);
        posix_spawnattr_setsigdefault(&attributes_, &signals);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~SpawnSetup() {
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attributes_);
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;

    // Returns 0 or an errno.
    int spawn(const std::string& path, const std::vector<std::string>& arguments, pid_t& pid) const {
        std::vector<char*> argv;
        argv.reserve(arguments.size() + 1);
        for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        return posix_spawn(&pid, path.c_str(), &actions_, &attributes_, argv.data(), environ);
    }

  private:
    posix_spawn_file_actions_t actions_;
    posix_spawnattr_t attributes_;
};

// A client that runs: feeds it, logs what it says, waits for it and, when it takes too long at a stop
// request, ends it.
class RunningClient {
  public:
    RunningClient(pid_t pid, ClientPipes& pipes, std::string_view input)
        : pid_(pid),
          process_(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))),
          input_end_(pipes.input.own),
          output_end_(pipes.output.own),
          errors_end_(pipes.errors.own),
          rest_(input) {}

    ClientResult run() {
        feed();
        while (!ended()) {
            waitForEvent();
            if (input_end_.get() >= 0) feed();
            logWords();
            if (konec) pressToStop();
        }
        for (int i = 0; i < kMostPieces && signals_sent_ == 0; ++i) logWords();
        return result_;
    }

  private:
    // Writes as much as the pipe takes and closes it behind the last byte. A client that has closed its input
    // is done with it (EPIPE); how it ends says whether that was right.
    void feed() {
        while (!rest_.empty()) {
            const ssize_t written = write(input_end_.get(), rest_.data(), rest_.size());
            if (written >= 0) {
                rest_.remove_prefix(static_cast<size_t>(written));
            } else if (errno == EAGAIN) {
                return;
            } else if (errno != EINTR) {
                break;
            }
        }
        input_end_.reset();
    }

    // One piece each time: a client that talks without end is still waited for. While the log drops lines,
    // pieces cost no time, and there is a slice between two calls.
    void logWords() {
        logPiece(output_end_, Print);
        logPiece(errors_end_, PrintError);
        for (int i = 1; i < kMostPieces && logDropsLines(); ++i) {
            logPiece(output_end_, Print);
            logPiece(errors_end_, PrintError);
        }
    }

    void logPiece(Descriptor& end, void (*log)(std::string_view)) {
        if (end.get() < 0) return;
        const ssize_t length = read(end.get(), words_.data(), words_.size());
        if (length > 0) log({words_.data(), static_cast<size_t>(length)});
        if (length == 0) end.reset();
    }

    // Until the client has ended, reads on or says something, or a slice has passed. poll skips descriptors
    // of -1. While the log drops lines, a look a slice is enough.
    void waitForEvent() {
        const bool hear = !logDropsLines();
        pollfd events[] = {{process_.get(), POLLIN, 0},
                           {input_end_.get(), POLLOUT, 0},
                           {hear ? output_end_.get() : -1, POLLIN, 0},
                           {hear ? errors_end_.get() : -1, POLLIN, 0}};
        poll(events, std::size(events), process_.get() >= 0 ? kSliceMs : kBlindSliceMs);
        may_have_ended_ = process_.get() < 0 || events[0].revents != 0;
    }

    bool ended() {
        if (!may_have_ended_) return false;
        int status = 0;
        const pid_t waited = waitpid(pid_, &status, WNOHANG);
        if (waited == 0 || (waited < 0 && errno == EINTR)) return false;
        // Where SIGCHLD is ignored the kernel keeps no status: waited is -1 and status 0.
        if (signals_sent_ > 0) {
            result_ = {ClientResult::kStopped, 0};
        } else if (WIFSIGNALED(status)) {
            result_ = {ClientResult::kSignalled, WTERMSIG(status)};
        } else {
            result_ = {ClientResult::kExited, WEXITSTATUS(status)};
        }
        return true;
    }

    // The client is not reaped yet, so its number cannot belong to another process. Its time begins where the
    // request is first seen: within a slice of the request, or of its own start when that is later.
    void pressToStop() {
        static constexpr int kSignals[] = {SIGTERM, SIGKILL};
        const Clock::time_point now = Clock::now();
        if (!stop_seen_) {
            stop_seen_ = true;
            next_signal_ = now + std::chrono::seconds(client_stop_limit);
        }
        if (signals_sent_ == 2 || now < next_signal_) return;
        kill(pid_, kSignals[signals_sent_]);
        next_signal_ = now + std::chrono::seconds(kKillDelaySeconds);
        ++signals_sent_;
    }

    const pid_t pid_;
    const Descriptor process_;  // pidfd, -1 where the kernel has none
    Descriptor& input_end_;
    Descriptor& output_end_;
    Descriptor& errors_end_;
    std::string_view rest_;  // of the input
    std::array<char, kPieceSize> words_;
    bool may_have_ended_ = false;
    bool stop_seen_ = false;
    int signals_sent_ = 0;
    Clock::time_point next_signal_;
    ClientResult result_;
};

}  // namespace

ClientResult runClient(const std::string& path, const std::vector<std::string>& arguments,
                       const std::string& input) {
    ClientPipes pipes;
    if (!pipes.open()) return {ClientResult::kNotStarted, errno};
    pid_t pid = -1;
    const int error = SpawnSetup(pipes).spawn(path, arguments, pid);
    if (error != 0) return {ClientResult::kNotStarted, error};
    pipes.closeClientsEnds();
    return RunningClient(pid, pipes, input).run();
}
