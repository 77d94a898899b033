#include "alarmd/signals.h"

#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>

#include "alarmd/alarmd.h"

namespace {

// The log is out of bounds in a handler: the thread below may have its turn there.
void writeOut(const char* text, size_t length) {
    const int saved_errno = errno;
    [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, text, length);
    errno = saved_errno;
}

void requestStop() {
    konec = true;
    konecModem = true;
    konecGps = true;
}

}  // namespace

void signalHandler(int sig) {
    char line[64] = "Interrupt signal (";
    char* end = std::to_chars(line + strlen(line), line + 40, sig).ptr;
    constexpr char kTail[] = ") received.\n";
    memcpy(end, kTail, sizeof kTail - 1);
    end += sizeof kTail - 1;
    requestStop();
    writeOut(line, static_cast<size_t>(end - line));
}

void handlersigusr1(int /*sig*/) {
    requestStop();
    reload = true;  // behind the stop request: who sees it knows of the stop
    writeOut("Reload", 6);
}

void installSignalHandlers() {
    signal(SIGTERM, signalHandler);
    signal(SIGINT, signalHandler);
    signal(SIGUSR1, handlersigusr1);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGCHLD, SIG_DFL);
    sigset_t handled;
    sigemptyset(&handled);
    for (const int sig : {SIGTERM, SIGINT, SIGUSR1}) sigaddset(&handled, sig);
    sigprocmask(SIG_UNBLOCK, &handled, nullptr);
}
