// The entry of libFuzzer, for a program with one target.
#include "tests/fuzz/world.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    fuzz::run(fuzz::targets().front(), {reinterpret_cast<const char*>(data), size});
    return 0;
}
