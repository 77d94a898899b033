#include "alarmd/intake/history_poll.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "alarmd/alarmd.h"
#include "sim/server/korvato_server.h"
#include "tests/support/intake_fixture.h"

namespace {

using sim::AlarmChange;
using sim::Behaviour;
using States = std::vector<std::pair<int, int>>;

constexpr char kEmptyAnswer[] = "{\"d\":[]}";
constexpr size_t kMostBody = size_t{16} << 20;

// ---------------------------------------------------------------------------------------------------------------
// The request and the write callback

class HistoryRequest : public IntakeFixture {};

TEST_F(HistoryRequest, NamesTheProjectAndTheStartPointWithoutZeroPadding) {
    last_timestamp_ms = 42;
    EXPECT_EQ(historyRequest(), "t=30&prj=7&start=1700000000.42&limit=10000");
    last_timestamp = -1;
    last_timestamp_ms = 1000000;
    EXPECT_EQ(historyRequest(), "t=30&prj=7&start=-1.1000000&limit=10000");
}

TEST_F(HistoryRequest, HoldsAtMost999Characters) {
    {
        MutexLock lock(settings_mutex);
        projectID = std::string(2000, 'p');
    }
    EXPECT_EQ(historyRequest(), "t=30&prj=" + std::string(990, 'p'));
}

TEST_F(HistoryRequest, CarriesAndShowsSecondsOfMoreThan32Bits) {
    last_timestamp = int64_t{1} << 33;
    last_timestamp_ms = 5;
    EXPECT_EQ(historyRequest(), "t=30&prj=7&start=8589934592.5&limit=10000");
    EXPECT_EQ(startPointText(), "Wed Mar 16 12:56:32 2242\n");
    last_timestamp = INT64_MAX;
    EXPECT_EQ(historyRequest(), "t=30&prj=7&start=9223372036854775807.5&limit=10000");
    EXPECT_EQ(startPointText(), "\n");
}

TEST_F(HistoryRequest, TakesAProjectIdWithConversionsAsText) {
    {
        MutexLock lock(settings_mutex);
        projectID = "%s%n%ld";
    }
    EXPECT_EQ(historyRequest(), "t=30&prj=%s%n%ld&start=1700000000.0&limit=10000");
}

TEST(WriteCallback, AppendsAndReportsAllBytes) {
    std::string target = "ab";
    char data[] = {'c', 'd', 'e', 'f'};  // no zero byte behind them
    EXPECT_EQ(curl_write_to_string2(data, 2, 2, &target), 4U);
    EXPECT_EQ(target, "abcdef");
    EXPECT_EQ(curl_write_to_string2(data, 1, 3, &target), 3U);
    EXPECT_EQ(target, "abcdefcde");
}

TEST(WriteCallback, CutsAChunkAtItsFirstZeroByteAndReportsItWhole) {
    std::string target;
    char data[] = {'a', 'b', '\0', 'c', '\0', 'd'};
    EXPECT_EQ(curl_write_to_string2(data, 1, 6, &target), 6U);
    EXPECT_EQ(target, "ab");
    EXPECT_EQ(curl_write_to_string2(data + 2, 1, 2, &target), 2U);
    EXPECT_EQ(curl_write_to_string2(data, 1, 0, &target), 0U);
    EXPECT_EQ(target, "ab");
}

// ---------------------------------------------------------------------------------------------------------------
// Without a server

Output poll() {
    return outputOf(pollHistory);
}

std::string failure(const std::string& why) {
    return "curl_easy_perform() failed: " + why + "\n";
}

class PollWithoutHandle : public IntakeFixture {};

TEST_F(PollWithoutHandle, FailsWithTheLibrarysTextEachTime) {
    for (int i = 0; i < 2; ++i) {
        const Output outputs = poll();
        EXPECT_EQ(outputs.out, "");
        EXPECT_EQ(outputs.err, failure("A libcurl function was given a bad argument"));
        EXPECT_EQ(last_timestamp, kStart);
    }
    closeHistory();
}

// ---------------------------------------------------------------------------------------------------------------
// With the simulated server

class HistoryPoll : public IntakeFixture {
  protected:
    HistoryPoll() {
        https_port = std::to_string(server_.httpsPort());
        opening_ = printedBy(openHistory);
        define(12, mailDefinition());
    }
    ~HistoryPoll() override { closeHistory(); }

    void change(int id, int state, int64_t microseconds) {
        AlarmChange change;
        change.id = id;
        change.state = state;
        change.time = kStart * 1000000 + microseconds;
        server_.change(change);
    }

    void behave(Behaviour::Mode mode, const std::string& body = {}, int status = 200) {
        Behaviour behaviour;
        behaviour.mode = mode;
        behaviour.body = body;
        behaviour.status = status;
        server_.behave(behaviour);
    }

    // Polls and expects that to fail, for the given reason where one is given, and to print nothing.
    static void expectFailure(const std::string& why = {}) {
        const Output outputs = poll();
        EXPECT_EQ(outputs.out, "");
        EXPECT_EQ(outputs.err.find("curl_easy_perform() failed: "), 0U);
        EXPECT_EQ(outputs.err.find('\n'), outputs.err.size() - 1) << outputs.err;
        if (!why.empty()) {
            EXPECT_EQ(outputs.err, failure(why));
        }
        EXPECT_EQ(last_timestamp, kStart);
        EXPECT_EQ(last_timestamp_ms, 0);
    }

    // Has the action done when a request has come, before its answer goes out.
    void onRequest(std::function<void()> action) {
        MutexLock lock(mutex_);
        on_request_ = std::move(action);
    }

    void tellRequest(const Json::Value& event) {
        MutexLock lock(mutex_);
        if (event["event"] == "poll" && on_request_) on_request_();
    }

    std::string opening_;
    Mutex mutex_;
    std::function<void()> on_request_ GUARDED_BY(mutex_);
    sim::EventLog log_{[this](const Json::Value& event) { tellRequest(event); }};
    sim::KorvatoServer server_{{.project = "7"}, log_};
};

TEST_F(HistoryPoll, OpeningTellsThatTheOptionsAreSet) {
    EXPECT_EQ(opening_, "Setting CURL Options.\n");
}

TEST_F(HistoryPoll, PostsTheRequestAndHandsTheAnswerToTheParser) {
    change(12, AlarmChange::kActivated, 500000);
    const Output outputs = poll();
    EXPECT_EQ(outputs.err, "");
    EXPECT_EQ(outputs.out.find("JSON : {\"d\":[{"), 0U);
    EXPECT_EQ(takeStates(fronta_mail), (States{{12, 1}}));
    const auto polls = server_.polls();
    ASSERT_EQ(polls.size(), 1U);
    EXPECT_EQ(polls[0].method, "POST");
    EXPECT_EQ(polls[0].path, "/r.fcgi");
    EXPECT_EQ(polls[0].body, "t=30&prj=7&start=1700000000.0&limit=10000");
}

TEST_F(HistoryPoll, TheNextRequestBeginsOneMicrosecondBehindTheLastEntry) {
    change(12, AlarmChange::kActivated, 500000);
    change(12, AlarmChange::kDeactivated, 1000005);
    poll();
    EXPECT_EQ(poll().out, std::string("JSON : ") + kEmptyAnswer + "\n");
    EXPECT_EQ(takeStates(fronta_mail), (States{{12, 1}, {12, 0}}));
    ASSERT_EQ(server_.pollCount(), 2U);
    EXPECT_EQ(server_.polls()[1].body, "t=30&prj=7&start=1700000001.6&limit=10000");
}

TEST_F(HistoryPoll, AllPollsUseOneConnection) {
    for (int i = 0; i < 5; ++i) poll();
    EXPECT_EQ(server_.pollCount(), 5U);
    EXPECT_EQ(server_.httpsConnections(), 1U);
}

TEST_F(HistoryPoll, DoesNotAskAProxyOfTheEnvironment) {
    setenv("https_proxy", "http://127.0.0.1:1", 1);
    const Output outputs = poll();
    unsetenv("https_proxy");
    EXPECT_EQ(outputs.err, "");
    EXPECT_EQ(server_.pollCount(), 1U);
}

TEST_F(HistoryPoll, AtADebugLevelTheRequestAndTheAnswerArePrinted) {
    dbglev = 1;
    EXPECT_EQ(poll().out,
              "CURL request historead...\n"
              "t=30&prj=7&start=1700000000.0&limit=10000   ---   Tue Nov 14 22:13:20 2023\n"
              "\n"
              "CURL response:{\"d\":[]}\n"
              "JSON : {\"d\":[]}\n");
}

// ---------------------------------------------------------------------------------------------------------------
// The line from the other connection

TEST_F(HistoryPoll, APendingLineIsParsedFirstLikeAnAnswerAndThenCleared) {
    const std::string line = historyAnswer({historyEntry(12, 1, kStart + 7, 3)});
    setPendingLine(line);
    const std::string out = poll().out;
    EXPECT_EQ(out.find("JSON : " + line + "\n"), 0U);
    EXPECT_EQ(takeStates(fronta_mail), (States{{12, 1}}));
    EXPECT_EQ(pendingLine(), "");
    ASSERT_EQ(server_.pollCount(), 1U);
    EXPECT_EQ(server_.polls()[0].body, "t=30&prj=7&start=1700000007.4&limit=10000");
}

TEST_F(HistoryPoll, APendingLineIsParsedOnceEvenWhenThePollFails) {
    behave(Behaviour::kAway);
    setPendingLine(kEmptyAnswer);
    EXPECT_EQ(poll().out, std::string("JSON : ") + kEmptyAnswer + "\n");
    EXPECT_EQ(pendingLine(), "");
    expectFailure();
}

TEST_F(HistoryPoll, ALineThatComesDuringASuccessfulPollIsDropped) {
    onRequest([] { setPendingLine(kEmptyAnswer); });
    EXPECT_EQ(poll().out, std::string("JSON : ") + kEmptyAnswer + "\n");
    EXPECT_EQ(pendingLine(), "");
}

TEST_F(HistoryPoll, ALineThatComesDuringAFailedPollIsParsedAtTheNext) {
    onRequest([] { setPendingLine("null"); });
    behave(Behaviour::kReset);
    expectFailure();
    EXPECT_EQ(pendingLine(), "null");
    onRequest(nullptr);
    behave(Behaviour::kNormal);
    EXPECT_EQ(poll().out, std::string("JSON : null\nJSON : ") + kEmptyAnswer + "\n");
}

// ---------------------------------------------------------------------------------------------------------------
// Failures

TEST_F(HistoryPoll, AServerThatIsAwayIsToldInOneLineAndPolledAgain) {
    behave(Behaviour::kAway);
    expectFailure("Couldn't connect to server");
    expectFailure("Couldn't connect to server");
    behave(Behaviour::kNormal);
    change(12, AlarmChange::kActivated, 500000);
    EXPECT_EQ(poll().err, "");
    EXPECT_EQ(takeStates(fronta_mail), (States{{12, 1}}));
}

TEST_F(HistoryPoll, AResetConnectionIsToldAndReplaced) {
    poll();
    behave(Behaviour::kReset);
    expectFailure();
    behave(Behaviour::kNormal);
    EXPECT_EQ(poll().err, "");
}

TEST_F(HistoryPoll, WhatCameOfACutAnswerStaysInFrontOfTheNext) {
    change(12, AlarmChange::kActivated, 500000);
    const std::string whole = server_.history().answer({.project = "7", .start = 0, .limit = 10000});
    const std::string half = whole.substr(0, whole.size() / 2);
    behave(Behaviour::kCut);
    expectFailure();
    behave(Behaviour::kNormal);
    EXPECT_EQ(poll().out.find("JSON : " + half + whole + "\nFailed to parse JSON\n"), 0U);
    EXPECT_TRUE(fronta_mail.empty());
    EXPECT_EQ(poll().out.find("JSON : " + whole + "\n"), 0U);
    EXPECT_EQ(takeStates(fronta_mail), (States{{12, 1}}));
}

TEST_F(HistoryPoll, AnAnswerIsCutAtAZeroByte) {
    behave(Behaviour::kRaw, std::string(kEmptyAnswer) + '\0' + "behind");
    EXPECT_EQ(poll().out, std::string("JSON : ") + kEmptyAnswer + "\n");
}

TEST_F(HistoryPoll, AnErrorPageIsNoJsonWhateverItsStatus) {
    for (const int status : {404, 500, 200}) {
        behave(Behaviour::kRaw, "<html></html>", status);
        const Output outputs = poll();
        EXPECT_EQ(outputs.out.find("JSON : <html></html>\nFailed to parse JSON\n"), 0U) << status;
        EXPECT_EQ(outputs.err, "");
        EXPECT_EQ(last_timestamp, kStart);
    }
    behave(Behaviour::kRaw, "");
    EXPECT_EQ(poll().out.find("JSON : \nFailed to parse JSON\n"), 0U);
}

TEST_F(HistoryPoll, ARedirectionWithoutEndIsGivenUp) {
    behave(Behaviour::kRedirect);
    expectFailure("Number of redirects hit maximum amount");
}

TEST_F(HistoryPoll, AnAnswerOfTheBoundIsTaken) {
    const std::string answer = kEmptyAnswer + std::string(kMostBody - sizeof kEmptyAnswer + 1, ' ');
    behave(Behaviour::kRaw, answer);
    const Output outputs = poll();
    EXPECT_TRUE(outputs.out == "JSON : " + answer + "\n");
    EXPECT_EQ(outputs.err, "");
}

TEST_F(HistoryPoll, AnAnswerBeyondTheBoundIsGivenUpAndDropped) {
    behave(Behaviour::kRaw, std::string(kMostBody + 1, ' '));
    const Output outputs = poll();
    EXPECT_EQ(outputs.out, "");
    EXPECT_EQ(outputs.err, failure("Operation was aborted by an application callback") +
                               "history answer of more than 16777216 bytes dropped\n");
    behave(Behaviour::kNormal);
    EXPECT_EQ(poll().out, std::string("JSON : ") + kEmptyAnswer + "\n");
}

TEST_F(HistoryPoll, AStopRequestEndsATransferThatHangs) {
    onRequest([] { konec = true; });
    behave(Behaviour::kHang);
    expectFailure("Operation was aborted by an application callback");
}

TEST_F(HistoryPoll, AStopRequestEndsAHandshakeThatHangs) {
    behave(Behaviour::kDeaf);
    std::thread stopper([] { konec = true; });
    expectFailure("Operation was aborted by an application callback");
    stopper.join();
}

TEST_F(HistoryPoll, AHandshakeThatHangsIsGivenUp) {
    behave(Behaviour::kDeaf);
    expectFailure("Timeout was reached");
}

}  // namespace
