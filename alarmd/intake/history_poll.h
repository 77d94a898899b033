// The poll of the server's alarm history over local HTTPS. Main thread only.
#pragma once

#include <cstddef>
#include <string>

// Makes the HTTPS handle for https_port. Without a handle the daemon still runs; every poll then fails.
void openHistory();

// What became of a poll.
struct PollResult {
    enum Kind {
        kAnswered,
        kFailed,   // no answer, or a part of one
        kTooLong,  // it went on beyond 16 MiB and was dropped
    };
    Kind kind = kAnswered;
    std::string detail;  // for people: why it failed
};

// Hands a pending line from tcps to json_parse, then makes one request and hands its answer to json_parse.
// Failures are logged on standard error; a redirect to another protocol than HTTPS and an answer of more than
// 16 MiB are such. Connecting takes at most 5 s and a transfer at most 60 s; a stop request ends it.
PollResult pollHistory();

// Releases the handle.
void closeHistory();

// The request's body for the present start point, at most 999 characters.
std::string historyRequest();

// The whole seconds of the present start point as asctime writes them, in UTC, closed by a newline. Any
// thread.
std::string startPointText();

// libcurl write callback: appends the chunk up to its first zero byte to target (a std::string); returns size
// * count.
size_t curl_write_to_string2(void* data, size_t size, size_t count, void* target);
