// Takes the place of the system log in a test program and keeps what is written to it. For one source file a
// program.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "knihovny/mutex.h"

struct SyslogEntry {
    std::string identity;
    int option = 0;
    int facility = 0;
    int priority = 0;
    std::string message;
};

class FakeSyslog {
  public:
    void open(const char* identity, int option, int facility) {
        MutexLock lock(mutex_);
        opened_ = {identity, option, facility, 0, ""};
        ++open_count_;
    }
    void write(int priority, const char* format, va_list arguments) {
        char text[4096];
        vsnprintf(text, sizeof text, format, arguments);
        MutexLock lock(mutex_);
        SyslogEntry entry = opened_;
        entry.priority = priority;
        entry.message = text;
        entries_.push_back(entry);
    }
    void close() {
        MutexLock lock(mutex_);
        opened_ = {};
        --open_count_;
    }
    // What was written since the last call.
    std::vector<SyslogEntry> take() {
        MutexLock lock(mutex_);
        std::vector<SyslogEntry> taken;
        taken.swap(entries_);
        return taken;
    }
    std::vector<std::string> takeMessages() {
        std::vector<std::string> messages;
        for (const SyslogEntry& entry : take()) messages.push_back(entry.message);
        return messages;
    }
    int openCount() {
        MutexLock lock(mutex_);
        return open_count_;
    }

  private:
    Mutex mutex_;
    SyslogEntry opened_ GUARDED_BY(mutex_);
    int open_count_ GUARDED_BY(mutex_) = 0;
    std::vector<SyslogEntry> entries_ GUARDED_BY(mutex_);
};

inline FakeSyslog fake_syslog;

extern "C" {
void openlog(const char* identity, int option, int facility) {
    fake_syslog.open(identity, option, facility);
}

void closelog() {
    fake_syslog.close();
}

void syslog(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    fake_syslog.write(priority, format, arguments);
    va_end(arguments);
}

// What the call becomes in a hardened build.
void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    fake_syslog.write(priority, format, arguments);
    va_end(arguments);
}
}
