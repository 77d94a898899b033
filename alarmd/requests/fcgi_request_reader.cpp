#include "alarmd/requests/fcgi_request_reader.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

using fastcgi::kAbortRequest;
using fastcgi::kBeginBodyLength;
using fastcgi::kBeginRequest;
using fastcgi::kKeepConnection;
using fastcgi::kLastRole;
using fastcgi::kLongestContent;
using fastcgi::kParams;
using fastcgi::kStdin;
using fastcgi::kVersion;

namespace {

// A length of one byte, or of four with the highest bit set. False when bytes end within it.
bool takeLength(std::string_view& bytes, size_t& length) {
    if (bytes.empty()) return false;
    const auto at = [&](size_t i) { return static_cast<size_t>(static_cast<unsigned char>(bytes[i])); };
    if (at(0) < 0x80) {
        length = at(0);
        bytes.remove_prefix(1);
        return true;
    }
    if (bytes.size() < 4) return false;
    length = (at(0) & 0x7f) << 24 | at(1) << 16 | at(2) << 8 | at(3);
    bytes.remove_prefix(4);
    return true;
}

// The inverse. REQUIRES: length is below 2^31.
std::string lengthBytes(size_t length) {
    const auto byte = [&](int shift) { return static_cast<char>(length >> shift & 0xff); };
    if (length < 0x80) return {byte(0)};
    return {static_cast<char>(0x80 | length >> 24), byte(16), byte(8), byte(0)};
}

// Takes a name-value pair from the front. False when there is no whole one.
bool takePair(std::string_view& bytes, std::string_view& name, std::string_view& value) {
    size_t name_length = 0;
    size_t value_length = 0;
    if (!takeLength(bytes, name_length) || !takeLength(bytes, value_length)) return false;
    if (name_length > bytes.size() || value_length > bytes.size() - name_length) return false;
    name = bytes.substr(0, name_length);
    value = bytes.substr(name_length, value_length);
    bytes.remove_prefix(name_length + value_length);
    return true;
}

bool wellFormed(std::string_view params) {
    std::string_view name, value;
    while (!params.empty()) {
        if (!takePair(params, name, value)) return false;
    }
    return true;
}

// Not with a length that is missing, negative or no number.
bool announcesBody(std::string_view params) {
    const std::string length(fcgiParam(params, "CONTENT_LENGTH"));
    return strtoll(length.c_str(), nullptr, 10) > 0;
}

void appendRecord(std::string& records, int type, int id, std::string_view content) {
    const auto byte = [](size_t value) { return static_cast<char>(value & 0xff); };
    const auto number = static_cast<size_t>(id);
    records += {static_cast<char>(kVersion),
                byte(static_cast<size_t>(type)),
                byte(number >> 8),
                byte(number),
                byte(content.size() >> 8),
                byte(content.size()),
                0,
                0};
    records += content;
}

// A stream: records with its bytes and an empty one.
void appendStream(std::string& records, int type, int id, std::string_view bytes) {
    while (!bytes.empty()) {
        const std::string_view content = bytes.substr(0, kLongestContent);
        appendRecord(records, type, id, content);
        bytes.remove_prefix(content.size());
    }
    appendRecord(records, type, id, {});
}

}  // namespace

size_t FcgiRequestReader::take(std::string_view bytes) {
    size_t taken = 0;
    while (state_ == State::kReading && taken < bytes.size()) {
        const std::string_view rest = bytes.substr(taken);
        if (in_content_) {
            const size_t count = std::min(content_left_, rest.size());
            takeContent(rest.substr(0, count));
            content_left_ -= count;
            taken += count;
            if (content_left_ == 0) endRecord();
        } else if (padding_left_ > 0) {
            const size_t count = std::min(padding_left_, rest.size());
            padding_left_ -= count;
            taken += count;
        } else {
            taken += takeHeader(rest);
        }
    }
    return taken;
}

size_t FcgiRequestReader::takeHeader(std::string_view bytes) {
    const size_t count = std::min(kHeaderLength - header_length_, bytes.size());
    std::copy_n(bytes.begin(), count, header_.begin() + header_length_);
    header_length_ += count;
    if (header_length_ == kHeaderLength) beginRecord();
    return count;
}

void FcgiRequestReader::beginRecord() {
    header_length_ = 0;
    type_ = header_[1];
    record_id_ = header_[2] << 8 | header_[3];
    content_left_ = static_cast<size_t>(header_[4] << 8 | header_[5]);
    padding_left_ = header_[6];
    // What is left of a request that has its answer may still come.
    const bool late = stage_ == Stage::kBetween && (type_ == kStdin || type_ == kAbortRequest);
    const bool begins = stage_ == Stage::kBetween && type_ == kBeginRequest;
    const bool continues =
        (stage_ == Stage::kParams && type_ == kParams) || (stage_ == Stage::kBody && type_ == kStdin);
    if (header_[0] != kVersion || record_id_ == 0 || !(late || begins || continues) ||
        (continues && record_id_ != request_.id)) {
        refuse();
        return;
    }
    in_content_ = content_left_ > 0;
    if (!in_content_) endRecord();
}

void FcgiRequestReader::takeContent(std::string_view content) {
    if (type_ == kBeginRequest) {
        begin_body_ += content;
        if (begin_body_.size() > kBeginBodyLength) refuse();
    } else if (stage_ == Stage::kParams) {
        request_.params += content;
        if (request_.params.size() > kLongestParams) refuse();
    } else if (stage_ == Stage::kBody) {
        takeBody(content);
    }
}

void FcgiRequestReader::takeBody(std::string_view content) {
    request_.too_long = content.size() > longest_body_ - request_.body.size();
    if (!request_.too_long) {
        request_.body += content;
        return;
    }
    // Not clear(): its room is given back.
    request_.body = std::string();
    complete();
}

void FcgiRequestReader::endRecord() {
    const bool empty = !in_content_;
    in_content_ = false;
    if (state_ == State::kRefused) return;
    if (type_ == kBeginRequest) {
        beginRequest();
    } else if (stage_ == Stage::kParams && empty) {
        endParams();
    } else if (type_ == kStdin && empty) {
        endBody();
    }
}

void FcgiRequestReader::beginRequest() {
    if (begin_body_.size() != kBeginBodyLength) return refuse();
    const auto at = [&](size_t i) { return static_cast<unsigned char>(begin_body_[i]); };
    request_ = FcgiRequest();
    request_.id = record_id_;
    request_.role = at(0) << 8 | at(1);
    request_.keep_connection = (at(2) & kKeepConnection) != 0;
    if (request_.role < 1 || request_.role > kLastRole) return refuse();
    begin_body_.clear();
    body_ended_ = false;
    stage_ = Stage::kParams;
}

void FcgiRequestReader::endParams() {
    if (!wellFormed(request_.params)) return refuse();
    stage_ = Stage::kBody;
    if (!announcesBody(request_.params)) complete();
}

void FcgiRequestReader::endBody() {
    body_ended_ = true;
    if (stage_ == Stage::kBody) complete();
}

FcgiRequest FcgiRequestReader::next() {
    stage_ = Stage::kBetween;
    state_ = State::kReading;
    return std::exchange(request_, FcgiRequest());
}

std::string fcgiPair(std::string_view name, std::string_view value) {
    return lengthBytes(name.size()) + lengthBytes(value.size()) + std::string(name) + std::string(value);
}

std::string fcgiRecords(const FcgiRequest& request) {
    std::string records;
    records.reserve(request.params.size() + request.body.size() + 128);
    const char begin[kBeginBodyLength] = {0, static_cast<char>(request.role), kKeepConnection};
    appendRecord(records, kBeginRequest, request.id, {begin, sizeof begin});
    appendStream(records, kParams, request.id, request.params);
    appendStream(records, kStdin, request.id, request.body);
    return records;
}

std::string_view fcgiParam(std::string_view params, std::string_view name) {
    std::string_view found, value;
    while (takePair(params, found, value)) {
        if (found == name) return value;
    }
    return {};
}
