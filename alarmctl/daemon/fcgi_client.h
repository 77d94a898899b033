// A FastCGI 1.0 client for one request to a responder on this machine.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

#include "alarmd/requests/fcgi_protocol.h"

// Takes the bytes of a responder's answer. Pure: bytes in, answer out.
class FcgiAnswerReader {
  public:
    enum class State { kReading, kComplete, kRefused };

    // Takes bytes, until the answer is complete or what comes is no FastCGI answer to request 1.
    void take(std::string_view bytes);

    State state() const { return state_; }

    // What the responder has written: its header block and the body.
    const std::string& output() const { return output_; }

  private:
    static constexpr size_t kLongestOutput = size_t{16} * 1024 * 1024;

    size_t takeHeader(std::string_view bytes);
    void beginRecord();
    void takeContent(std::string_view content);
    void endRecord();
    void refuse() { state_ = State::kRefused; }

    State state_ = State::kReading;
    std::array<unsigned char, fastcgi::kHeaderLength> header_ = {};
    size_t header_length_ = 0;  // bytes of it that are there
    bool in_record_ = false;
    size_t content_left_ = 0;
    size_t padding_left_ = 0;
    int type_ = 0;
    std::string output_;
    std::string end_body_;
};

// A POST request with this body. REQUIRES: body is shorter than 2^31 bytes.
std::string fcgiPost(const std::string& body);

// What stands behind the header block, which ends with its first empty line.
std::string withoutHeaders(const std::string& output);

struct FcgiReply {
    std::string error;  // why there is no answer, in one line; empty when there is one
    std::string body;
};

// Sends the body to the responder on 127.0.0.1 and returns what it answers. All of it together takes no
// longer than limit. A peer that goes away raises no signal.
FcgiReply askResponder(int port, const std::string& body, std::chrono::milliseconds limit);
