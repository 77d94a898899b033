#pragma once

#include <string>
#include <vector>

// How a child process ended.
struct ClientResult {
    enum Kind { kExited, kSignalled, kNotStarted, kStopped } kind = kExited;
    int code = 0;  // exit status, signal number or errno, by kind
};

// Starts the program path without a shell, arguments being its argv, writes input to its standard input and waits for
// its end. The child's other descriptors are the daemon's standard output and error only. When konec is set while the
// client still runs, it has kStopGraceSeconds more and is then ended (kStopped). Any thread; SIGPIPE must be ignored.
constexpr int kStopGraceSeconds = 3;
ClientResult runClient(const std::string& path, const std::vector<std::string>& arguments, const std::string& input);
