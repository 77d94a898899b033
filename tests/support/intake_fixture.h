// A clean state for the tests of the intake, and helpers to fill and look at it.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "alarmd/alarmd.h"
#include "alarmd/project/alarm_definitions.h"
#include "tests/support/captured_output.h"
#include "tests/support/resets.h"

constexpr int64_t kStart = 1700000000;

class IntakeFixture : public testing::Test {
  protected:
    IntakeFixture() { clear(); }
    ~IntakeFixture() override { clear(); }

    static void clear() {
        resetDaemonState();
        last_timestamp = kStart;
        MutexLock lock(settings_mutex);
        projectID = "7";
    }

    static void clearQueues() {
        fronta_mail.clear();
        fronta_sms.clear();
        wait_for_ack.clear();
        alarm_tag = _alarm_tag();
    }

    static void clearProject() {
        {
            MutexLock lock(project_mutex);
            clearDefinitions();
        }
        MutexLock lock(settings_mutex);
        projectID = "7";
    }

    static void define(int id, const _alarm_def& definition) {
        MutexLock lock(project_mutex);
        alarm_def_map[id] = definition;
    }

    static size_t definitionCount() {
        MutexLock lock(project_mutex);
        return alarm_def_map.size();
    }

    static void setPendingLine(const std::string& line) {
        MutexLock lock(data_rcv_mutex);
        data_rcv = line;
    }

    static std::string pendingLine() {
        MutexLock lock(data_rcv_mutex);
        return data_rcv;
    }
};

inline std::vector<_alarm_tag> takeAll(Fronta<_alarm_tag>& queue) {
    std::vector<_alarm_tag> all;
    _alarm_tag tag;
    while (queue.take(tag)) all.push_back(tag);
    return all;
}

// The pairs of alarm and state in a queue, which is empty afterwards.
inline std::vector<std::pair<int, int>> takeStates(Fronta<_alarm_tag>& queue) {
    std::vector<std::pair<int, int>> states;
    for (const _alarm_tag& tag : takeAll(queue)) states.emplace_back(tag.id, tag.stat);
    return states;
}

inline _alarm_def mailDefinition() {
    _alarm_def definition;
    definition.email = true;
    return definition;
}

// One history entry, its state dated by the time that belongs to the state.
inline std::string historyEntry(int id, int stat, int64_t seconds, int64_t microseconds) {
    const char* name = stat == kDeactivated ? "dtm" : stat == kActivated ? "atm" : "acktm";
    return "{\"id\":" + std::to_string(id) + ",\"cell\":{\"" + name + "\":[" + std::to_string(seconds) + "," +
           std::to_string(microseconds) + "],\"stat\":" + std::to_string(stat) + "}}";
}

inline std::string historyAnswer(const std::vector<std::string>& entries) {
    std::string text = "{\"d\":[";
    for (size_t i = 0; i < entries.size(); ++i) text += (i > 0 ? "," : "") + entries[i];
    return text + "]}";
}
