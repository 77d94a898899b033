#pragma once

// Prepares the process: handlers of SIGTERM, SIGINT (signalHandler) and SIGUSR1 (handlersigusr1), SIGPIPE
// ignored, so that a peer that has gone shows as a failed write. Main thread, first of all.
void installSignalHandlers();

// Writes "Interrupt signal (N) received." and raises konec, konecModem and konecGps. Async-signal-safe.
void signalHandler(int sig);

// Writes "Reload" without a newline and raises reload and the same three: a restart is left to the supervisor
// of the process. Async-signal-safe.
void handlersigusr1(int sig);
