// Replies as modems of many makes give them, from fixtures/modem, and replies that no modem should give: each
// goes byte by byte through the handler and then through the parser.
//
// A fixture begins with a comment, then "from: SENDER" and "text: TEXT", or "none" when no message is to be
// recorded, then "reply:" and the reply. Line ends of the file are no part of the reply; \r \n \t \\ and \xHH
// stand for bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "alarmd/sms/timed_text/message_store.h"
#include "tests/support/pty_modem.h"

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

constexpr char kNumber[] = "+420601000001";
constexpr char kReply[] =
    "\r\n+CMGR: \"REC UNREAD\",\"+420601000001\",,\"26/11/21,10:00:00+04\"\r\nACK:17\r\n\r\nOK\r\n";

struct Fixture {
    bool message = true;
    std::string from, text, reply;
};

std::string unescaped(const std::string& text) {
    static const std::string kLetters = "rnt\\";
    static const std::string kBytes = "\r\n\t\\";
    std::string bytes;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            bytes += text[i];
        } else if (text.at(++i) == 'x') {
            bytes += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            bytes += kBytes.at(kLetters.find(text[i]));
        }
    }
    return bytes;
}

Fixture load(const std::string& path) {
    Fixture fixture;
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line) && line != "reply:") {
        if (line == "none") fixture.message = false;
        if (line.starts_with("from: ")) fixture.from = unescaped(line.substr(6));
        if (line.starts_with("text: ")) fixture.text = unescaped(line.substr(6));
    }
    while (std::getline(file, line)) fixture.reply += unescaped(line);
    return fixture;
}

std::vector<std::string> fixturePaths() {
    std::vector<std::string> paths;
    const auto folder = std::filesystem::path(__FILE__).parent_path() / "fixtures/modem";
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        paths.push_back(entry.path());
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

class ModemReplies : public testing::Test {
  protected:
    void SetUp() override {
        resetDaemonState();
        ASSERT_TRUE(connectModem(line_.device()));
    }
    void TearDown() override {
        disconnectModem();
        resetDaemonState();
    }

    static void feed(const std::string& bytes) {
        for (const char c : bytes) {
            char byte[2] = {c, '\0'};
            MyModem.ZpracujByte(byte);
        }
    }

    // Takes the bytes for the reply to a read command, and returns what came of it.
    static _last_sms read(const std::string& bytes) {
        {
            MutexLock lock(last_sms_mutex);
            last_sms = _last_sms();
        }
        feed("OK\r\n");  // of the command before
        clearReply();
        receive = 0;
        feed(bytes);
        CaptureStdout();
        if (receive == 1) parsuj_sms();
        log = GetCapturedStdout();
        MutexLock lock(last_sms_mutex);
        return last_sms;
    }

    static inline std::string log;  // what the last read() printed

    PtyModem line_{PtyModem::Script{{"AT+CMGD=0,4\r", "\r\nOK\r\n"}}};
};

class ModemFixture : public ModemReplies, public testing::WithParamInterface<std::string> {};

TEST_P(ModemFixture, GivesItsSenderAndItsText) {
    const Fixture fixture = load(GetParam());
    ASSERT_FALSE(fixture.reply.empty());
    const _last_sms message = read(fixture.reply);
    EXPECT_EQ(message.timestamp != 0, fixture.message);
    EXPECT_EQ(message.from, fixture.from);
    EXPECT_EQ(message.text, fixture.text);
    // Every reply with an OK empties the store.
    EXPECT_EQ(line_.received(), "AT+CMGD=0,4\r");
}

INSTANTIATE_TEST_SUITE_P(All, ModemFixture, testing::ValuesIn(fixturePaths()), [](const auto& fixture) {
    return std::filesystem::path(fixture.param).stem().string();
});

TEST_F(ModemReplies, OneWithoutAnOkIsNotParsed) {
    for (const char* reply : {"\r\n+CMS ERROR: 321\r\n", "\r\n+CMS ERROR: invalid memory index\r\n",
                              "\r\nERROR\r\n", "\r\nNO CARRIER\r\n", "\tAT+CMGR=0\r", ""}) {
        EXPECT_EQ(read(reply).timestamp, 0);
        EXPECT_EQ(receive, 0) << reply;
        EXPECT_EQ(log, "");
    }
    EXPECT_EQ(line_.received(), "");
}

TEST_F(ModemReplies, OneCutAtAnyByteGivesNoOtherSender) {
    const std::string whole = kReply;
    for (size_t length = 0; length < whole.size(); ++length) {
        SCOPED_TRACE(length);
        const _last_sms message = read(whole.substr(0, length) + "\r\nOK\r\n");
        // A header that ends in the sender leaves its carriage return there.
        EXPECT_TRUE(std::string(kNumber).starts_with(message.from.substr(0, message.from.find('\r'))))
            << message.from;
        EXPECT_TRUE(message.text.empty() || message.text == "OK" ||
                    std::string("ACK:17").starts_with(message.text))
            << message.text;
    }
}

TEST_F(ModemReplies, OneThatBeginsInTheMiddleGivesNoSender) {
    const std::string whole = kReply;
    for (size_t begin = whole.find("CMGR") + 1; begin + 4 < whole.size(); ++begin) {
        SCOPED_TRACE(begin);
        EXPECT_EQ(read(whole.substr(begin)).from, "");
    }
}

TEST_F(ModemReplies, LongerOnesGoOverTheirStartAndGiveNoSender) {
    const std::string head = "\r\n+CMGR: \"REC UNREAD\",\"+420601000001\",,\"26/11/21,10:00:00+04\"";
    for (const std::string& reply :
         {head + std::string(10000, ',') + "\r\nACK:17\r\n\r\nOK\r\n",
          head + "\r\n" + std::string(10000, 'x') + "\r\n\r\nOK\r\n",
          head + "\r\n" + std::string(100000, 'x') + "\r\n\r\nOK\r\n", std::string(100000, '\n') + "OK"}) {
        SCOPED_TRACE(reply.substr(0, 90));
        EXPECT_EQ(read(reply).from, "");
    }
    EXPECT_EQ(read(kReply).text, "ACK:17");
}

// A text of 160 characters from a sender with a name fills more than the buffer.
TEST_F(ModemReplies, BehindTheir251stByteTheyGoOverTheirStart) {
    const std::string head =
        "\r\n+CMGR: \"REC UNREAD\",\"+420601000001\",\"Jan Novak\",\"26/11/21,10:00:00+04\"\r\n";
    const std::string end = "\r\n\r\n";
    const auto reply = [&](size_t size) {
        return head + std::string(size - head.size() - end.size(), 'x') + end + "OK\r\n";
    };
    EXPECT_EQ(read(reply(249)).from, kNumber);
    // The O is the 251st byte and the K the first again: an OK that nobody sees.
    EXPECT_EQ(read(reply(250)).timestamp, 0);
    EXPECT_EQ(receive, 0);
    // The OK in place of the first line end: the header is the first line now.
    EXPECT_EQ(read(reply(251)).from, "");
    EXPECT_EQ(read(kReply).from, kNumber);
}

TEST_F(ModemReplies, ZerosEndThem) {
    EXPECT_EQ(read(std::string(100, '\0') + kReply).timestamp, 0);
    EXPECT_EQ(read(std::string(1, '\0') + "OK").timestamp, 0);
    // Nothing to clear: the reply is empty.
    EXPECT_EQ(line_.received(), "");
    const std::string whole = kReply;
    for (size_t place = 0; place < whole.size() - 4; ++place) {
        SCOPED_TRACE(place);
        std::string reply = whole;
        reply[place] = '\0';
        EXPECT_TRUE(std::string(kNumber).starts_with(read(reply).from));
    }
}

TEST_F(ModemReplies, AnyBytesDoNoHarm) {
    unsigned seed = 1;
    const auto random = [&seed] { return (seed = seed * 1103515245 + 12345) >> 16; };
    const std::string likely = "\r\n\",+CMGR: OKER\t0";
    for (int round = 0; round < 300; ++round) {
        std::string bytes;
        for (unsigned i = random() % 600; i > 0; --i) {
            bytes += random() % 2 == 0 ? likely[random() % likely.size()] : static_cast<char>(random());
        }
        read(bytes);
        EXPECT_EQ(log.find("AUTHORIZED USER !!!\n\nExecute"), std::string::npos);
    }
    EXPECT_EQ(read(kReply).text, "ACK:17");
}

}  // namespace
