// The daemon's own loaders, run for what they say.
#pragma once

#include <string>
#include <vector>

#include "alarmctl/findings.h"

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
struct LoaderRun {
    bool survived = false;
    std::vector<std::string> complaints;  // the lines on standard error
};

// Lets a child process read all files as the daemon does at its start, since that may end the process. The
// paths are the daemon's conf_file and so on. REQUIRES: this process has one thread.
LoaderRun tryLoaders();

// Reads all files into the daemon's data of this process without a word. REQUIRES: tryLoaders survived.
void loadAll();

// Derives the paths of the project files from the configuration files without a word.
void loadConfiguration();

// What a complaint of the loaders says. last_words: the line after which the daemon ended.
Finding findingFrom(const std::string& complaint, bool last_words);
