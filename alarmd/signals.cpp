#include "alarmd/signals.h"

#include <charconv>
#include <csignal>
#include <cstring>

#include "alarmd/alarmd.h"
#include "knihovny/debugerror.h"

namespace {

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
    PrintInSignalHandler({line, static_cast<size_t>(end - line)});
}

void handlersigusr1(int /*sig*/) {
    requestStop();
    reload = true;  // behind the stop request: who sees it knows of the stop
    PrintInSignalHandler("Reload");
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
