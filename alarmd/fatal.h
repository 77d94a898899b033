#pragma once

#include <string_view>

// Ends the process abnormally (SIGABRT) after one line on standard error, for input that the daemon cannot go
// on with. The line says which file or answer, where in it, and why.
[[noreturn]] void fatal(std::string_view line);
