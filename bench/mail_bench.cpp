// Mails through send_mail beside a bare loop that starts the same client with the same input: items/s are
// mails a second. Two clients: one that ends at once and one that reads its input. In one run, interleaved in
// short pieces, because what else runs on the machine slows every process start:
// --benchmark_enable_random_interleaving=true --benchmark_min_time=0.05 --benchmark_repetitions=100; compare
// the medians.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "alarmd/alarmd.h"
#include "alarmd/mail/compose.h"
#include "alarmd/mail/mail_channel.h"
#include "bench/quiet.h"

namespace {

constexpr char kDoesNothing[] = "true";
constexpr char kReads[] = "reader";

// An installation folder whose mail client is one of the two.
class Installation {
  public:
    explicit Installation(const std::string& client) {
        signal(SIGPIPE, SIG_IGN);
        if (mkdtemp(folder_.data()) == nullptr) abort();
        binFolder = folder_;
        mail_from = "plant@korvato.example";
        std::filesystem::create_directories(folder_ + "/ext/msmtp");
        if (client == kDoesNothing) {
            std::filesystem::create_symlink("/bin/true", path());
        } else {
            std::ofstream(path()) << "#!/bin/sh\nexec cat >/dev/null\n";
            chmod(path().c_str(), 0755);
        }
    }
    ~Installation() { std::filesystem::remove_all(folder_); }
    Installation(const Installation&) = delete;
    Installation& operator=(const Installation&) = delete;

    std::string path() const { return folder_ + "/ext/msmtp/msmtp"; }

  private:
    std::string folder_ = (std::filesystem::temp_directory_path() / "mail_bench_XXXXXX").string();
};

// An alarm mail of ordinary size.
std::string alarmBody() {
    return css_string + "<table border=1>\n" + std::string(400, 'r') + "\n</table>\n</body>\n</html>\n";
}

void startBare(const std::string& path, const std::string& input) {
    const std::string arguments[] = {path, "-C", msmtp_conf_file, "-a", "korvato", "-t"};
    char* argv[std::size(arguments) + 1] = {};
    for (size_t i = 0; i < std::size(arguments); ++i) argv[i] = const_cast<char*>(arguments[i].c_str());
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) abort();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[0], STDIN_FILENO);
    pid_t pid = -1;
    if (posix_spawn(&pid, path.c_str(), &actions, nullptr, argv, environ) != 0) abort();
    posix_spawn_file_actions_destroy(&actions);
    close(ends[0]);
    benchmark::DoNotOptimize(write(ends[1], input.data(), input.size()));
    close(ends[1]);
    waitpid(pid, nullptr, 0);
}

void BM_BareLoop(benchmark::State& state, const char* client) {
    Quiet quiet;
    Installation installation(client);
    // What send_mail adds to the body: header, delimiters, newlines.
    const std::string input = std::string(400, 'h') + alarmBody();
    for (auto _ : state) startBare(installation.path(), input);
    state.SetItemsProcessed(state.iterations());
}

void BM_SendMail(benchmark::State& state, const char* client) {
    Quiet quiet;
    Installation installation(client);
    const std::string body = alarmBody();
    for (auto _ : state) send_mail("novak@korvato.example", body, "", "");
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK_CAPTURE(BM_BareLoop, does_nothing, kDoesNothing)->UseRealTime();
BENCHMARK_CAPTURE(BM_SendMail, does_nothing, kDoesNothing)->UseRealTime();
BENCHMARK_CAPTURE(BM_BareLoop, reads, kReads)->UseRealTime();
BENCHMARK_CAPTURE(BM_SendMail, reads, kReads)->UseRealTime();

}  // namespace
