#include <gtest/gtest.h>

#include <thread>

#include "alarmctl/daemon/fcgi_client.h"
#include "alarmd/requests/fcgi_gate.h"
#include "alarmd/requests/fcgi_request_reader.h"
#include "tests/support/fcgi_client.h"

namespace {

using State = FcgiAnswerReader::State;

constexpr size_t kLimit = 1000000;
constexpr std::chrono::milliseconds kPatience(20000);

std::string endRecord(char protocol_status = 0) {
    return fcgi::record(fcgi::kEnd, std::string{0, 0, 0, 0, protocol_status, 0, 0, 0});
}

State stateAfter(const std::string& bytes) {
    FcgiAnswerReader reader;
    reader.take(bytes);
    return reader.state();
}

TEST(FcgiAnswerReaderTest, EverySplitOfTheBytesGivesTheSame) {
    const std::string bytes =
        fcgi::record(fcgi::kStdout, "\n{\"r\":", 1, 3) + fcgi::record(fcgi::kStderr, "a complaint", 1, 255) +
        fcgi::record(fcgi::kStdout, "55}", 1) + fcgi::record(fcgi::kStdout, "", 1, 8) + endRecord();
    for (size_t piece = 1; piece <= bytes.size(); ++piece) {
        FcgiAnswerReader reader;
        for (size_t at = 0; at < bytes.size(); at += piece) {
            ASSERT_EQ(reader.state(), State::kReading) << piece;
            reader.take(std::string_view(bytes).substr(at, piece));
        }
        ASSERT_EQ(reader.state(), State::kComplete) << piece;
        EXPECT_EQ(reader.output(), "\n{\"r\":55}") << piece;
    }
}

TEST(FcgiAnswerReaderTest, WithoutItsEndAnAnswerIsNotComplete) {
    const std::string bytes = fcgi::stream(fcgi::kStdout, "\n{}") + endRecord();
    for (size_t length = 0; length < bytes.size(); ++length) {
        EXPECT_EQ(stateAfter(bytes.substr(0, length)), State::kReading) << length;
    }
    EXPECT_EQ(stateAfter(bytes), State::kComplete);
}

TEST(FcgiAnswerReaderTest, WhatIsNoAnswerIsRefused) {
    EXPECT_EQ(stateAfter("HTTP/1.1 400 Bad Request\r\n"), State::kRefused);
    EXPECT_EQ(stateAfter(fcgi::record(fcgi::kStdout, "x", 2)), State::kRefused);  // another request's
    EXPECT_EQ(stateAfter(fcgi::record(fcgi::kParams, "x")), State::kRefused);
    EXPECT_EQ(stateAfter(endRecord(2)), State::kRefused);  // overloaded
    EXPECT_EQ(stateAfter(fcgi::record(fcgi::kEnd, "1234567")), State::kRefused);
    EXPECT_EQ(stateAfter(fcgi::record(fcgi::kEnd, "123456789")), State::kRefused);
}

TEST(FcgiAnswerReaderTest, AnEndlessAnswerIsRefused) {
    const std::string record = fcgi::record(fcgi::kStdout, std::string(65535, 'x'));
    FcgiAnswerReader reader;
    for (int i = 0; i < 1000 && reader.state() == State::kReading; ++i) reader.take(record);
    EXPECT_EQ(reader.state(), State::kRefused);
}

TEST(FcgiPostTest, TheDaemonsReaderUnderstandsIt) {
    for (const size_t length : {size_t{0}, size_t{1}, size_t{65528}, size_t{200000}}) {
        const std::string body(length, 'b');
        FcgiRequestReader reader(kLimit);
        reader.take(fcgiPost(body));
        ASSERT_EQ(reader.state(), FcgiRequestReader::State::kComplete) << length;
        const FcgiRequest request = reader.next();
        EXPECT_EQ(request.body, body);
        EXPECT_EQ(fcgiParam(request.params, "CONTENT_LENGTH"), std::to_string(length));
        EXPECT_EQ(fcgiParam(request.params, "REQUEST_METHOD"), "POST");
    }
}

TEST(FcgiPostTest, LongParametersKeepTheirLength) {
    const std::string value(70000, 'v');
    const std::string params = fcgiPair("A", std::string(127, 'a')) + fcgiPair("B", std::string(128, 'b')) +
                               fcgiPair("LONG", value) + fcgiPair("C", "c");
    EXPECT_EQ(fcgiParam(params, "B"), std::string(128, 'b'));
    EXPECT_EQ(fcgiParam(params, "LONG"), value);
    EXPECT_EQ(fcgiParam(params, "C"), "c");
}

TEST(WithoutHeadersTest, TheBodyBeginsBehindTheFirstEmptyLine) {
    EXPECT_EQ(withoutHeaders("\n{\"s\":1}\n"), "{\"s\":1}\n");
    EXPECT_EQ(withoutHeaders("Status: 200\r\nA: b\r\n\r\nbody\n\nrest"), "body\n\nrest");
    EXPECT_EQ(withoutHeaders("A: b\n\n"), "");
    EXPECT_EQ(withoutHeaders("no empty line"), "");
    EXPECT_EQ(withoutHeaders("A: b\n"), "");
    EXPECT_EQ(withoutHeaders(""), "");
}

// A peer on a free port that takes one connection and hands it to serve.
class Peer {
  public:
    explicit Peer(std::function<void(int)> serve) : listening_(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        if (bind(listening_.get(), generic, length) != 0 || listen(listening_.get(), 1) != 0 ||
            getsockname(listening_.get(), generic, &length) != 0) {
            throw std::runtime_error("no peer");
        }
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this, serve = std::move(serve)] {
            const Descriptor connection(accept(listening_.get(), nullptr, nullptr));
            serve(connection.get());
        });
    }
    ~Peer() { thread_.join(); }
    int port() const { return port_; }

  private:
    Descriptor listening_;
    int port_ = 0;
    std::thread thread_;
};

void readSome(int descriptor) {
    char block[4096];
    EXPECT_GT(recv(descriptor, block, sizeof block, 0), 0);
}

TEST(AskResponderTest, TheDaemonsOwnListenerIsAskedAndAnswers) {
    FcgiGate gate(kLimit);
    ASSERT_EQ(gate.listenOn(0), 0);
    std::string asked;
    std::thread responder([&] {
        asked = gate.next().body;
        gate.answer(fcgi::stream(fcgi::kStdout, "\n{\"s\":1}\n", 3) + endRecord());
    });
    const FcgiReply reply = askResponder(gate.listeningPort(), "{\"t\":55}", kPatience);
    responder.join();
    EXPECT_EQ(reply.error, "");
    EXPECT_EQ(reply.body, "{\"s\":1}\n");
    EXPECT_EQ(asked, "{\"t\":55}");
}

TEST(AskResponderTest, NobodyThere) {
    int free_port = 0;
    {
        FcgiGate gate(kLimit);
        ASSERT_EQ(gate.listenOn(0), 0);
        free_port = gate.listeningPort();
    }
    EXPECT_EQ(askResponder(free_port, "{}", kPatience).error,
              "no daemon answers on 127.0.0.1:" + std::to_string(free_port) + ": Connection refused");
}

TEST(AskResponderTest, OneThatSaysNothing) {
    const Peer peer([](int connection) {
        char block[4096];
        while (recv(connection, block, sizeof block, 0) > 0) {
        }
    });
    EXPECT_EQ(askResponder(peer.port(), "{}", std::chrono::milliseconds(200)).error,
              "no answer from 127.0.0.1:" + std::to_string(peer.port()) + " within 0.2 s");
}

TEST(AskResponderTest, OneThatGoesAwayHalfWay) {
    const Peer peer([](int connection) {
        readSome(connection);
        const std::string half = fcgi::record(fcgi::kStdout, "\n{\"r\":");
        EXPECT_EQ(send(connection, half.data(), half.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(half.size()));
    });
    EXPECT_EQ(askResponder(peer.port(), "{}", kPatience).error,
              "the connection to 127.0.0.1:" + std::to_string(peer.port()) +
                  " was closed before the answer was complete");
}

TEST(AskResponderTest, OneThatGoesAwayWhileItIsWrittenTo) {
    const Peer peer([](int connection) {
        readSome(connection);
        const linger at_once{1, 0};
        setsockopt(connection, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    });
    EXPECT_NE(askResponder(peer.port(), std::string(50000000, 'x'), kPatience).error, "");
}

TEST(AskResponderTest, OneThatSpeaksSomethingElse) {
    const Peer peer([](int connection) {
        readSome(connection);
        const std::string other = "220 mail.example ESMTP\r\n";
        EXPECT_EQ(send(connection, other.data(), other.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(other.size()));
    });
    EXPECT_EQ(askResponder(peer.port(), "{}", kPatience).error,
              "what answers on 127.0.0.1:" + std::to_string(peer.port()) + " is no FastCGI responder");
}

}  // namespace
