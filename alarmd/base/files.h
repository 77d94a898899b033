// Looking at files and reading them whole. Any thread.
#pragma once

#include <string>

// True when a stat of path succeeds.
bool fileExists(const std::string& path);

// Reads a whole regular file; true when that worked. A file that is missing, unreadable, a folder or a pipe
// gives false and an empty text.
bool readWholeFile(const std::string& path, std::string& text);
