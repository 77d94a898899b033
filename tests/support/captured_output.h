// What a test program prints, taken from its descriptors 1 and 2.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "knihovny/descriptor.h"

// Everything that is written to a descriptor (1 or 2) while the object lives; text() may be looked at at any
// time.
class CapturedOutput {
  public:
    explicit CapturedOutput(int fd) : fd_(fd), saved_(fcntl(fd, F_DUPFD_CLOEXEC, 3)) {
        std::string name = (std::filesystem::temp_directory_path() / "alarmd_output_XXXXXX").string();
        file_.reset(mkostemp(name.data(), O_CLOEXEC | O_APPEND));
        unlink(name.c_str());
        fflush(nullptr);
        dup2(file_.get(), fd_);
    }
    ~CapturedOutput() {
        fflush(nullptr);
        dup2(saved_.get(), fd_);
    }
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;

    std::string text() const {
        fflush(nullptr);
        struct stat file = {};
        fstat(file_.get(), &file);
        std::string text(static_cast<size_t>(file.st_size), '\0');
        const ssize_t length = pread(file_.get(), text.data(), text.size(), 0);
        text.resize(length < 0 ? 0 : static_cast<size_t>(length));
        return text;
    }

  private:
    int fd_;
    Descriptor saved_;
    Descriptor file_;
};

struct Output {
    std::string out;
    std::string err;
};

// What action writes to standard output and standard error.
template <class Action>
Output outputOf(const Action& action) {
    const CapturedOutput out(STDOUT_FILENO), err(STDERR_FILENO);
    action();
    return {out.text(), err.text()};
}

// What action writes to standard output alone.
template <class Action>
std::string printedBy(const Action& action) {
    const CapturedOutput out(STDOUT_FILENO);
    action();
    return out.text();
}
