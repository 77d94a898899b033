#include "knihovny/regular_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace {

std::string errorText(int error) {
    return std::generic_category().message(error);
}

}  // namespace

int openRegularFile(const std::string& path, std::string& reason) {
    // Without O_NONBLOCK the opening of a pipe that nobody writes to would wait for ever.
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0) {
        reason = errorText(errno);
        return -1;
    }
    struct stat info;
    if (fstat(descriptor, &info) != 0) {
        reason = errorText(errno);
    } else if (S_ISDIR(info.st_mode)) {
        reason = errorText(EISDIR);
    } else if (!S_ISREG(info.st_mode)) {
        reason = "Not a regular file";
    } else {
        return descriptor;
    }
    close(descriptor);
    return -1;
}

long readSome(int descriptor, char* buffer, unsigned long size, std::string& reason) {
    ssize_t count;
    do {
        count = read(descriptor, buffer, size);
    } while (count < 0 && errno == EINTR);
    if (count < 0) reason = errorText(errno);
    return count;
}
