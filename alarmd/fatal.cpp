#include "alarmd/fatal.h"

#include <cstdlib>

#include "knihovny/debugerror.h"

void fatal(std::string_view line) {
    PrintErrorLine("alarmd: ", line);
    std::abort();
}
