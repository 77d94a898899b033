#include "alarmd/requests/fcgi_request_reader.h"

#include <gtest/gtest.h>

#include "tests/support/fcgi_client.h"

namespace {

using State = FcgiRequestReader::State;

constexpr size_t kLimit = 1000;

State stateAfter(const std::string& bytes) {
    FcgiRequestReader reader(kLimit);
    reader.take(bytes);
    return reader.state();
}

TEST(FcgiRequestReaderTest, ARequestIsTakenApart) {
    FcgiRequestReader reader(kLimit);
    const std::string bytes = fcgi::request("{\"t\":55}", true);
    EXPECT_FALSE(reader.begun());
    EXPECT_EQ(reader.take(bytes), bytes.size());
    ASSERT_EQ(reader.state(), State::kComplete);
    const FcgiRequest request = reader.next();
    EXPECT_EQ(request.id, 1);
    EXPECT_EQ(request.role, 1);
    EXPECT_TRUE(request.keep_connection);
    EXPECT_FALSE(request.too_long);
    EXPECT_EQ(request.body, "{\"t\":55}");
    EXPECT_EQ(fcgiParam(request.params, "REQUEST_URI"), "/alarmd");
    EXPECT_EQ(fcgiParam(request.params, "NONE"), "");
    EXPECT_TRUE(reader.bodyEnded());
    EXPECT_EQ(reader.state(), State::kReading);
    EXPECT_FALSE(reader.begun());
}

TEST(FcgiRequestReaderTest, EverySplitOfTheBytesGivesTheSame) {
    const std::string body(300, 'b');
    const std::string bytes = fcgi::begin() +
                              fcgi::record(fcgi::kParams, fcgi::params(300).substr(0, 7), 1, 3) +
                              fcgi::record(fcgi::kParams, fcgi::params(300).substr(7), 1, 255) +
                              fcgi::record(fcgi::kParams, "") + fcgi::stream(fcgi::kStdin, body, 70, 5);
    for (size_t piece = 1; piece <= bytes.size(); ++piece) {
        FcgiRequestReader reader(kLimit);
        for (size_t at = 0; at < bytes.size() && reader.state() == State::kReading; at += piece) {
            reader.take(std::string_view(bytes).substr(at, piece));
        }
        ASSERT_EQ(reader.state(), State::kComplete) << piece;
        EXPECT_EQ(reader.next().body, body) << piece;
    }
}

TEST(FcgiRequestReaderTest, APartOfARequestIsNoRequest) {
    const std::string bytes = fcgi::request("{\"t\":55}");
    for (size_t length = 0; length < bytes.size(); ++length) {
        EXPECT_EQ(stateAfter(bytes.substr(0, length)), State::kReading) << length;
    }
}

TEST(FcgiRequestReaderTest, WithoutALengthThereIsNoBody) {
    for (const char* value : {"", "0", "-5", "x", " ", "+"}) {
        FcgiRequestReader reader(kLimit);
        reader.take(fcgi::begin() + fcgi::stream(fcgi::kParams, fcgi::pair("CONTENT_LENGTH", value)));
        ASSERT_EQ(reader.state(), State::kComplete) << value;
        EXPECT_EQ(reader.next().body, "") << value;
    }
    EXPECT_EQ(stateAfter(fcgi::begin() + fcgi::stream(fcgi::kParams, "")), State::kComplete);
}

std::string beginWithLength(const std::string& length) {
    return fcgi::begin() + fcgi::stream(fcgi::kParams, fcgi::pair("CONTENT_LENGTH", length));
}

TEST(FcgiRequestReaderTest, TheBodyIsAllThatComesUntilItsStreamEndsWhateverItsLengthSays) {
    for (const char* length : {"1", "6", "100", "1001", "2000000", "+3", "3x", "99999999999999999999999"}) {
        FcgiRequestReader reader(kLimit);
        reader.take(beginWithLength(length) + fcgi::record(fcgi::kStdin, "abc", 1, 5) +
                    fcgi::record(fcgi::kStdin, "def"));
        EXPECT_EQ(reader.state(), State::kReading) << length;
        EXPECT_FALSE(reader.bodyEnded());
        reader.take(fcgi::record(fcgi::kStdin, ""));
        ASSERT_EQ(reader.state(), State::kComplete) << length;
        EXPECT_TRUE(reader.bodyEnded());
        const FcgiRequest request = reader.next();
        EXPECT_FALSE(request.too_long) << length;
        EXPECT_EQ(request.body, "abcdef") << length;
    }
}

TEST(FcgiRequestReaderTest, AnAnnouncedBodyThatDoesNotComeIsEmpty) {
    FcgiRequestReader reader(kLimit);
    reader.take(beginWithLength("5") + fcgi::record(fcgi::kStdin, ""));
    ASSERT_EQ(reader.state(), State::kComplete);
    EXPECT_EQ(reader.next().body, "");
}

TEST(FcgiRequestReaderTest, ABodyOfTheLimitIsWholeAndALongerOneLeftOutAsSoonAsItIs) {
    for (const size_t piece : {size_t{1}, size_t{7}, kLimit + 500}) {
        for (const char* length : {"1", "1000", "1500"}) {
            FcgiRequestReader reader(kLimit);
            std::string bytes = beginWithLength(length);
            for (size_t at = 0; at < kLimit; at += piece) {
                bytes += fcgi::record(fcgi::kStdin, std::string(std::min(piece, kLimit - at), 'x'));
            }
            EXPECT_EQ(reader.take(bytes), bytes.size());
            EXPECT_EQ(reader.state(), State::kReading);
            const std::string last = fcgi::record(fcgi::kStdin, std::string(100, 'y'));
            EXPECT_LE(reader.take(last), last.size());
            ASSERT_EQ(reader.state(), State::kComplete) << piece;
            EXPECT_FALSE(reader.bodyEnded());
            const FcgiRequest request = reader.next();
            EXPECT_TRUE(request.too_long);
            EXPECT_EQ(request.body, "");
        }
    }
    FcgiRequestReader reader(kLimit);
    reader.take(beginWithLength("1") + fcgi::stream(fcgi::kStdin, std::string(kLimit, 'x'), 300));
    ASSERT_EQ(reader.state(), State::kComplete);
    const FcgiRequest request = reader.next();
    EXPECT_FALSE(request.too_long);
    EXPECT_EQ(request.body, std::string(kLimit, 'x'));
}

TEST(FcgiRequestReaderTest, TheRestOfTooLongABodyIsPassedOver) {
    FcgiRequestReader reader(kLimit);
    std::string bytes = beginWithLength("3") +
                        fcgi::stream(fcgi::kStdin, std::string(3 * kLimit, 'x'), 400, 3) +
                        fcgi::request("next");
    bytes.erase(0, reader.take(bytes));
    ASSERT_EQ(reader.state(), State::kComplete);
    EXPECT_TRUE(reader.next().too_long);
    bytes.erase(0, reader.take(bytes));
    EXPECT_TRUE(bytes.empty());
    ASSERT_EQ(reader.state(), State::kComplete);
    const FcgiRequest request = reader.next();
    EXPECT_FALSE(request.too_long);
    EXPECT_EQ(request.body, "next");
}

TEST(FcgiRequestReaderTest, OneConnectionGivesRequestAfterRequest) {
    FcgiRequestReader reader(kLimit);
    std::string bytes = fcgi::request("first") + fcgi::request("") + fcgi::request("third");
    for (const char* body : {"first", "", "third"}) {
        bytes.erase(0, reader.take(bytes));
        ASSERT_EQ(reader.state(), State::kComplete) << body;
        EXPECT_EQ(reader.next().body, body);
    }
    EXPECT_TRUE(bytes.empty());
    EXPECT_EQ(reader.state(), State::kReading);
    EXPECT_FALSE(reader.begun());
}

TEST(FcgiRequestReaderTest, ARequestBeginsWithItsWholeBeginAndWithNothingElse) {
    const std::string late = fcgi::record(fcgi::kAbort, "") + fcgi::record(fcgi::kStdin, "late");
    FcgiRequestReader reader(kLimit);
    for (const char byte : late + fcgi::begin()) {
        EXPECT_FALSE(reader.begun());
        reader.take({&byte, 1});
    }
    EXPECT_TRUE(reader.begun());
    reader.take(fcgi::stream(fcgi::kParams, ""));
    ASSERT_EQ(reader.state(), State::kComplete);
    EXPECT_TRUE(reader.begun());
    reader.next();
    EXPECT_FALSE(reader.begun());
    reader.take(late + fcgi::begin().substr(0, 5));
    EXPECT_FALSE(reader.begun());
}

TEST(FcgiRequestReaderTest, ClientsThatDoNotKeepToTheProtocolAreRefused) {
    const std::string params = fcgi::stream(fcgi::kParams, fcgi::params(5));
    const std::pair<const char*, std::string> refused[] = {
        {"another version", "\x02" + fcgi::begin().substr(1)},
        {"HTTP", "GET / HTTP/1.0\r\n\r\n"},
        {"no id", fcgi::begin(false, 1, 0)},
        {"role 0", fcgi::begin(false, 0)},
        {"role 4", fcgi::begin(false, 4)},
        {"a short begin", fcgi::record(fcgi::kBegin, "abc")},
        {"an empty begin", fcgi::record(fcgi::kBegin, "")},
        {"a long begin", fcgi::record(fcgi::kBegin, std::string(9, '\0'))},
        {"parameters first", fcgi::record(fcgi::kParams, "")},
        {"data first", fcgi::record(8, "x")},
        {"two begins", fcgi::begin() + fcgi::begin()},
        {"a body before the parameters end", fcgi::begin() + fcgi::record(fcgi::kStdin, "x")},
        {"parameters of another request", fcgi::begin() + fcgi::record(fcgi::kParams, "", 2)},
        {"parameters in the body", fcgi::begin() + params + fcgi::record(fcgi::kParams, "")},
        {"an abort", fcgi::begin() + params + fcgi::record(fcgi::kAbort, "")},
        {"a management record", fcgi::record(fcgi::kGetValues, fcgi::pair("FCGI_MPXS_CONNS", ""), 0)},
        {"a management record in the body", fcgi::begin() + params + fcgi::record(fcgi::kGetValues, "", 0)},
        {"64 KiB of parameters and more", fcgi::begin() +
                                              fcgi::record(fcgi::kParams, std::string(60000, 'x')) +
                                              fcgi::record(fcgi::kParams, std::string(6000, 'x'))},
    };
    for (const auto& [name, bytes] : refused) EXPECT_EQ(stateAfter(bytes), State::kRefused) << name;
}

TEST(FcgiRequestReaderTest, PairsThatDoNotFitTheirParametersAreRefused) {
    for (const std::string& pairs :
         {std::string("\x05", 1), std::string("\x01\x02", 2) + "ab", std::string("\x80\x00", 2),
          std::string("\xff\xff\xff\xfe\xff\xff\xff\xfe", 8) + "name", std::string("\x01\x80\x00\x00", 4),
          std::string("\x7f\x01", 2) + "ab", fcgi::pair("CONTENT_LENGTH", "5") + "\x01"}) {
        EXPECT_EQ(stateAfter(fcgi::begin() + fcgi::stream(fcgi::kParams, pairs)), State::kRefused);
    }
}

TEST(FcgiRequestReaderTest, RecordsOfARequestGiveItBack) {
    FcgiRequest request;
    request.id = 0x1234;
    request.role = 3;
    request.params = fcgi::pair(std::string(200, 'n'), std::string(60000, 'v'));
    request.body = std::string(200000, 'b');
    FcgiRequestReader reader(1 << 20);
    const std::string records = fcgiRecords(request);
    // The length is not among the parameters, so the body is not waited for.
    reader.take(records);
    ASSERT_EQ(reader.state(), State::kComplete);
    const FcgiRequest again = reader.next();
    EXPECT_EQ(again.id, 0x1234);
    EXPECT_EQ(again.role, 3);
    EXPECT_TRUE(again.keep_connection);
    EXPECT_EQ(again.params, request.params);

    request.params = fcgi::pair("CONTENT_LENGTH", "1");
    FcgiRequestReader second(1 << 20);
    second.take(fcgiRecords(request));
    ASSERT_EQ(second.state(), State::kComplete);
    EXPECT_EQ(second.next().body, request.body);
}

}  // namespace
