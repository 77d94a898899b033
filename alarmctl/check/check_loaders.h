// The daemon's own loaders, run for what they say.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "alarmctl/check/findings.h"
#include "knihovny/descriptor.h"

// Sends standard output and standard error to nowhere while it lives.
class Silence {
  public:
    Silence();
    ~Silence();
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;

  private:
    int saved_[2];
};

// What the daemon would do with its files at the start.
struct LoaderOutcome {
    bool survived = false;
    std::vector<std::string> complaints;  // the lines on standard error
};

// A child process that reads all files as the daemon does at its start, since that may end the process. The
// paths are the daemon's conf_file and so on. It works while this process does something else.
class LoaderRun {
  public:
    // Starts it. REQUIRES: this process has one thread.
    LoaderRun();
    ~LoaderRun();
    LoaderRun(const LoaderRun&) = delete;
    LoaderRun& operator=(const LoaderRun&) = delete;

    // Waits for its end. To be called once.
    LoaderOutcome outcome();

  private:
    const Descriptor errors_;
    pid_t child_;
};

// Reads all files into the daemon's data of this process without a word. REQUIRES: a LoaderRun survived.
void loadAll();

// Derives the paths of the project files from the configuration files without a word.
void loadConfiguration();

// What a complaint of the loaders says. last_words: the line after which the daemon ended.
Finding findingFrom(const std::string& complaint, bool last_words);
