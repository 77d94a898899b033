// Reads a FastCGI 1.0 request from a client that may send anything. Pure: bytes in, requests out.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "alarmd/requests/fcgi_protocol.h"

// A whole request of a web server.
struct FcgiRequest {
    int id = 0;    // 1 to 65535
    int role = 0;  // responder, authorizer or filter: 1 to 3
    bool keep_connection = false;
    std::string params;     // the name-value pairs in FastCGI's coding, well formed
    std::string body;       // all that came of it
    bool too_long = false;  // more came than the limit, the body is left out
};

// Takes the bytes of one connection. A client that does not keep to the protocol, multiplexes requests,
// aborts one or sends management records is refused: that web server would be none that asks this daemon.
//
// CONTENT_LENGTH tells only whether there is a body: with a decimal value above 0 the request is complete
// when the client ends its stream, with any other, or none, when the parameters end. What comes of a body
// behind a complete request is passed over.
class FcgiRequestReader {
  public:
    enum class State { kReading, kComplete, kRefused };

    // A request with a body above longest_body bytes is complete, and without it, as soon as more of them
    // came.
    explicit FcgiRequestReader(size_t longest_body) : longest_body_(longest_body) {}

    // Takes bytes and returns how many: all of them, unless a request is complete or the client refused.
    size_t take(std::string_view bytes);

    State state() const { return state_; }

    // True from the whole begin record of a request until next() has handed it out.
    bool begun() const { return stage_ != Stage::kBetween; }

    // The end of the request's body was seen: the client has nothing more to send for it.
    bool bodyEnded() const { return body_ended_; }

    // Hands out the complete request and reads on for the next one. REQUIRES: state() is kComplete.
    FcgiRequest next();

  private:
    enum class Stage { kBetween, kParams, kBody };

    static constexpr size_t kHeaderLength = fastcgi::kHeaderLength;
    static constexpr size_t kLongestParams = 65536;

    size_t takeHeader(std::string_view bytes);
    void beginRecord();
    void takeContent(std::string_view content);
    void takeBody(std::string_view content);
    void endRecord();
    void beginRequest();
    void endParams();
    void endBody();
    void refuse() { state_ = State::kRefused; }
    void complete() { state_ = State::kComplete; }

    const size_t longest_body_;
    State state_ = State::kReading;
    Stage stage_ = Stage::kBetween;
    std::array<unsigned char, kHeaderLength> header_ = {};
    size_t header_length_ = 0;  // bytes of it that are there
    bool in_content_ = false;
    size_t content_left_ = 0;
    size_t padding_left_ = 0;
    int type_ = 0;
    int record_id_ = 0;
    std::string begin_body_;
    bool body_ended_ = false;
    FcgiRequest request_;
};

// A name-value pair in FastCGI's coding, for params.
std::string fcgiPair(std::string_view name, std::string_view value);

// The request in as few records as can be, with the connection kept open behind it.
std::string fcgiRecords(const FcgiRequest& request);

// The value of the first pair with this name, empty when there is none. REQUIRES: params is well formed.
std::string_view fcgiParam(std::string_view params, std::string_view name);
