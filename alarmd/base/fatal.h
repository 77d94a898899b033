#pragma once

#include <chrono>
#include <string_view>

// Ends the process abnormally (SIGABRT) after one line on standard error, for input that the daemon cannot go
// on with. The line says which file or answer, where in it, and why.
[[noreturn]] void fatal(std::string_view line);

// What fatal() does with its line; it ends the process or throws. Set before there are other threads, by
// tests.
extern void (*end_process)(std::string_view line);

// From then on std::terminate, which tells the exception on standard error, has so long for it: its reader
// may have stopped. The process ends by SIGABRT either way. Main thread, before there are others.
void limitTermination(std::chrono::seconds limit);
