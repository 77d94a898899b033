#include "alarmd/fatal.h"

#include <cstdio>
#include <cstdlib>

#include "knihovny/debugerror.h"

void fatal(std::string_view line) {
    fflush(stdout);
    PrintErrorLine("alarmd: ", line);
    std::abort();
}
