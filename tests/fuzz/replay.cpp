// Runs every file of a folder through a target, without a fuzzer: the regression test of the corpora.
//
//   fuzz_replay TARGET FOLDER...    status 1 when there is no such target or no file
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/fuzz/world.h"

namespace {

const fuzz::Target* find(const char* name) {
    for (const fuzz::Target& target : fuzz::targets()) {
        if (strcmp(target.name, name) == 0) return &target;
    }
    return nullptr;
}

std::vector<std::string> filesIn(const char* folder) {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

void replay(const fuzz::Target& target, const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    // Exactly as long as the file, so that a read beyond its end is seen.
    const std::vector<char> content(std::istreambuf_iterator<char>(file), {});
    fuzz::run(target, {content.data(), content.size()});
}

}  // namespace

int main(int count, char** arguments) {
    const fuzz::Target* target = count > 2 ? find(arguments[1]) : nullptr;
    if (target == nullptr) {
        fprintf(stderr, "Usage: fuzz_replay TARGET FOLDER...\n");
        return 1;
    }
    size_t files = 0;
    for (int i = 2; i < count; ++i) {
        for (const std::string& path : filesIn(arguments[i])) {
            fprintf(stderr, "%s\n", path.c_str());
            replay(*target, path);
            ++files;
        }
    }
    fprintf(stderr, "%zu files\n", files);
    return files > 0 ? 0 : 1;
}
