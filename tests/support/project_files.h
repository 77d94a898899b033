// What the tests of the loaders share: a folder of their own, captured output, project data put back to its
// start.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "alarmd/alarmd.h"
#include "alarmd/project/alarm_definitions.h"

// A folder that is removed with all that is in it.
class TempFolder {
  public:
    TempFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "alarmd_test_XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp");
        path_ = name;
    }
    ~TempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::string& path() const { return path_; }
    std::string in(const std::string& name) const { return path_ + "/" + name; }

    std::string write(const std::string& name, std::string_view bytes) const {
        std::ofstream file(in(name), std::ios::binary);
        file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        return in(name);
    }

    std::string folder(const std::string& name) const {
        std::filesystem::create_directory(in(name));
        return in(name);
    }

    std::string pipe(const std::string& name) const {
        mkfifo(in(name).c_str(), 0600);
        return in(name);
    }

  private:
    std::string path_;
};

struct Output {
    std::string out;
    std::string err;
};

// What action writes to standard output and standard error.
template <class Action>
Output outputOf(const Action& action) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    action();
    return {testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
}

inline size_t linesIn(const std::string& text) {
    size_t lines = 0;
    for (const char c : text) lines += c == '\n' ? 1U : 0U;
    return lines;
}

// Text of bytes that no reader of text expects: all byte values, line ends among them.
inline std::string binaryBytes() {
    std::string bytes;
    for (int round = 0; round < 40; ++round) {
        for (int c = 0; c < 256; ++c) bytes += static_cast<char>((c * 7 + round * 31) % 256);
    }
    return bytes;
}

inline constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

// Project data and loader state as in a process that has just started.
class ProjectTest : public testing::Test {
  protected:
    ProjectTest() { reset(); }
    ~ProjectTest() override { reset(); }

    static void reset() {
        MutexLock lock(project_mutex);
        clearDefinitions();
        user_list.clear();
        for (_group& group : list_group) group = _group();
        alarm_def = _alarm_def();
        user = _user();
        dbglev = 0;
    }

    static _group groupNo(int number) {
        MutexLock lock(project_mutex);
        return list_group[number];
    }

    static std::vector<int> idsOf(int number) {
        MutexLock lock(project_mutex);
        return {list_group[number].alarm_ids.begin(), list_group[number].alarm_ids.end()};
    }

    static size_t definitionCount() {
        MutexLock lock(project_mutex);
        return alarm_def_map.size();
    }

    static bool hasDefinition(int key) {
        MutexLock lock(project_mutex);
        return alarm_def_map.count(key) != 0;
    }

    static _alarm_def definition(int key) {
        MutexLock lock(project_mutex);
        return alarm_def_map.at(key);
    }

    static std::vector<_user> users() {
        MutexLock lock(project_mutex);
        return user_list;
    }

    const TempFolder folder_;
};
