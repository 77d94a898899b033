#include "alarmd/base/files.h"

#include <sys/stat.h>
#include <unistd.h>

#include "knihovny/regular_file.h"

bool fileExists(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

bool readWholeFile(const std::string& path, std::string& text) {
    text.clear();
    std::string reason;
    const int descriptor = openRegularFile(path, reason);
    if (descriptor < 0) return false;
    // One byte more than the file has, so that its end is seen without growing the text.
    struct stat info;
    if (fstat(descriptor, &info) == 0) text.resize(static_cast<size_t>(info.st_size) + 1);
    size_t length = 0;
    long count;
    do {
        if (length == text.size()) text.resize(2 * length + 1);
        count = readSome(descriptor, text.data() + length, text.size() - length, reason);
        if (count > 0) length += static_cast<size_t>(count);
    } while (count > 0);
    close(descriptor);
    text.resize(count < 0 ? 0 : length);
    return count == 0;
}
