#pragma once

// Prepares the process: handlers of SIGTERM, SIGINT (signalHandler) and SIGUSR1 (handlersigusr1), SIGPIPE
// ignored, so that a peer that has gone shows as a failed write. Neither signals that the parent has blocked
// nor a SIGCHLD that it ignores, which would hide how a child ended, are taken over. Main thread, first of
// all.
void installSignalHandlers();

// Writes "Interrupt signal (N) received." and raises konec, konecModem and konecGps. Async-signal-safe; it
// waits for nobody, so the line may come a little later, or be dropped with others (knihovny/log_stream.h).
void signalHandler(int sig);

// Writes "Reload" without a newline and raises reload and the same three: a restart is left to the supervisor
// of the process. Async-signal-safe.
void handlersigusr1(int sig);
