// What the tests of the loaders share: a folder of their own, captured output, project data put back to its
// start.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "alarmd/alarmd.h"
#include "alarmd/project/alarm_definitions.h"
#include "tests/support/captured_output.h"
#include "tests/support/resets.h"
#include "tests/support/temp_folder.h"

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
    ProjectTest() { resetDaemonState(); }
    ~ProjectTest() override { resetDaemonState(); }

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
