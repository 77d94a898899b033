#include "alarmd/project/csv_file.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include "knihovny/regular_file.h"

namespace {

constexpr size_t kBuffer = 1 << 16;
constexpr char kSeparator = ';';

bool isBlank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

}  // namespace

CsvFile::CsvFile(std::string path) : path_(std::move(path)), buffer_(kBuffer) {
    columns_.reserve(kMaxColumns);
    std::string reason;
    descriptor_ = openRegularFile(path_, reason);
    if (descriptor_ < 0) complain({ComplaintCode::kUnreadable, path_, reason});
}

CsvFile::~CsvFile() {
    if (descriptor_ >= 0) close(descriptor_);
}

void CsvFile::skipLine() {
    readLine();
}

bool CsvFile::next() {
    while (readLine()) {
        if (!too_long_) {
            split();
            return true;
        }
        complainOfLine(
            {ComplaintCode::kLineTooLong, "longer than " + std::to_string(kMaxLine) + " bytes, ignored"});
    }
    return false;
}

std::string CsvFile::where() const {
    return path_ + ", line " + std::to_string(line_number_);
}

void CsvFile::complainOfLine(Remark remark) const {
    complain({remark.code, path_, std::move(remark.text), line_number_});
}

// False when there was nothing left, not even an empty line.
bool CsvFile::readLine() {
    line_.clear();
    too_long_ = false;
    bool found = false;
    bool complete = false;
    while (!complete && (position_ < end_ || fill())) {
        found = true;
        const char* start = buffer_.data() + position_;
        const void* feed = memchr(start, '\n', end_ - position_);
        complete = feed != nullptr;
        const size_t length =
            complete ? static_cast<size_t>(static_cast<const char*>(feed) - start) : end_ - position_;
        position_ += length + (complete ? 1 : 0);
        too_long_ = too_long_ || line_.size() + length > kMaxLine;
        if (!too_long_) line_.append(start, length);
    }
    if (found) ++line_number_;
    return found;
}

bool CsvFile::fill() {
    if (descriptor_ < 0) return false;
    std::string reason;
    const long count = readSome(descriptor_, buffer_.data(), buffer_.size(), reason);
    position_ = 0;
    end_ = static_cast<size_t>(std::max(count, 0L));
    if (count < 0) complain({ComplaintCode::kUnreadable, path_, reason});
    if (count > 0) return true;
    close(descriptor_);
    descriptor_ = -1;
    return false;
}

void CsvFile::split() {
    columns_.clear();
    std::string_view rest(line_);
    rest = rest.substr(0, rest.find('\0'));
    while (columns_.size() < kMaxColumns) {
        const size_t start = rest.find_first_not_of(kSeparator);
        if (start == std::string_view::npos) return;
        rest.remove_prefix(start);
        const size_t length = std::min(rest.find(kSeparator), rest.size());
        columns_.push_back(rest.substr(0, length));
        rest.remove_prefix(length);
    }
}

int leadingNumber(std::string_view text) {
    constexpr long long kLowest = std::numeric_limits<int>::min();
    constexpr long long kHighest = std::numeric_limits<int>::max();
    size_t i = 0;
    while (i < text.size() && isBlank(text[i])) ++i;
    const bool negative = i < text.size() && text[i] == '-';
    if (i < text.size() && (text[i] == '-' || text[i] == '+')) ++i;
    long long value = 0;
    for (; i < text.size() && isDigit(text[i]); ++i) {
        // One more than the highest is enough to tell: the value must not grow without end.
        value = std::min(value * 10 + (text[i] - '0'), kHighest + 1);
    }
    return static_cast<int>(std::clamp(negative ? -value : value, kLowest, kHighest));
}
