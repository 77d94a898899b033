#include "alarmd/project/project_file.h"

#include <sys/stat.h>

bool fileExists(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

std::string noSuchGroup(int number) {
    return "group " + std::to_string(number) + " is not within 0 to " + std::to_string(kGroups - 1) +
           ", ignored";
}
