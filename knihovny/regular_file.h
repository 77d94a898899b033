#pragma once

#include <string>

// Opens the regular file path for reading, close-on-exec, and returns its descriptor. Returns -1 and fills
// reason when that fails or when path leads to something else (a folder, a pipe, a device), which could be
// read without end. Any thread.
int openRegularFile(const std::string& path, std::string& reason);

// Reads from descriptor, going on after an interruption by a signal. Returns the number of bytes, 0 at the
// end of the file, or -1 with reason filled. Any thread.
long readSome(int descriptor, char* buffer, unsigned long size, std::string& reason);
