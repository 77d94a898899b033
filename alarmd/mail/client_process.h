#pragma once

#include <string>
#include <vector>

// How a child process ended.
struct ClientResult {
    enum Kind {
        kExited,      // code: exit status
        kSignalled,   // code: signal number
        kNotStarted,  // code: errno
        kStopped,     // it took longer than a stop request leaves it and was ended
    };
    Kind kind = kExited;
    int code = 0;
};

// Seconds that a stop request leaves to a client. Constant in a running daemon; tests change it before they
// start threads.
extern int client_stop_limit;
constexpr int kKillDelaySeconds = 1;

// Starts the program path without a shell, arguments being its argv (with argv[0]), writes input to its
// standard input and waits for its end. A client that leaves its input unread is waited for all the same.
//
// What the client says on its standard output and error goes to the log at once, all of it before this
// returns (Print, PrintError): a log that nobody reads holds the client no longer than the daemon. What a
// process that it leaves behind says later is lost. The client inherits no descriptor. Its signal mask is
// empty and SIGPIPE has its default action. When konec is set while it runs, it has client_stop_limit seconds
// from then on, and from its start when konec was set before; a client that takes longer gets SIGTERM, and
// SIGKILL kKillDelaySeconds later, and the result is kStopped.
//
// REQUIRES: SIGPIPE is ignored. Any thread.
ClientResult runClient(const std::string& path, const std::vector<std::string>& arguments,
                       const std::string& input);
