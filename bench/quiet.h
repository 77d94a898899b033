// What the benchmark programs share.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

// While an object lives, standard output goes to /dev/null: what the daemon's functions print is still
// formatted and written, and does not mix with the report. One at the top of a benchmark function will do.
class Quiet {
  public:
    Quiet() {
        fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(null, STDOUT_FILENO);
        close(null);
    }
    ~Quiet() {
        fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
    }
    Quiet(const Quiet&) = delete;
    Quiet& operator=(const Quiet&) = delete;

  private:
    int saved_;
};
