#include "alarmd/gps/nmea.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <type_traits>

#include "knihovny/debugerror.h"
#include "knihovny/splitter.h"

namespace {

constexpr int kShortestLine = 6;  // bytes before the line feed
constexpr size_t kShortestChecked = 6;
constexpr size_t kChecksumLength = 3;  // "*" and two digits
constexpr size_t kKindAt = 3;          // behind "$" and the talker
constexpr size_t kKindLength = 3;
constexpr size_t kGsvTotalAt = 7;
constexpr size_t kGsvNumberAt = 9;
constexpr int kGsvSlots = std::extent_v<decltype(_gps_data::GPGSV)>;

struct Kind {
    const char* name;
    std::string _gps_data::*place;
};

constexpr Kind kKinds[] = {
    {"GGA", &_gps_data::GPGGA},
    {"RMC", &_gps_data::GPRMC},
    {"VTG", &_gps_data::GPVTG},
    {"GSA", &_gps_data::GPGSA},
};

std::string_view withoutLineEnd(std::string_view line) {
    if (line.ends_with('\n')) line.remove_suffix(1);
    while (line.ends_with('\r')) line.remove_suffix(1);
    return line;
}

// The decimal number at a position, 0 when there is none.
long numberAt(const std::string& line, size_t position) {
    return position < line.size() ? strtol(line.c_str() + position, nullptr, 10) : 0;
}

int heldToArray(long count) {
    return static_cast<int>(std::clamp(count, 0L, kGsvSlots - 1L));
}

void storeGsv(const std::string& line, std::string_view sentence, _gps_data& store) {
    const long number = numberAt(line, kGsvNumberAt);
    if (number < 1 || number >= kGsvSlots) return;
    store.GPGSV[number] = sentence;
    store.GPGSV_count = heldToArray(numberAt(line, kGsvTotalAt));
}

}  // namespace

bool NmeaAssembler::take(char byte, std::string& line) {
    if (byte == '\n') {
        const bool complete = !too_long && pocetpz_gps >= kShortestLine;
        if (complete) line.assign(rcv_gps, static_cast<size_t>(pocetpz_gps)).push_back('\n');
        pocetpz_gps = 0;
        too_long = false;
        return complete;
    }
    if (pocetpz_gps < kBufferSize - 1) {
        rcv_gps[pocetpz_gps++] = byte;
    } else {
        too_long = true;
    }
    return false;
}

void storeSentence(const std::string& line, int64_t now, _gps_data& store) {
    const std::string_view sentence = withoutLineEnd(line);
    // Short of its line end, a line may have no kind.
    const std::string_view kind = sentence.substr(std::min(kKindAt, sentence.size()), kKindLength);
    for (const Kind& known : kKinds) {
        if (kind == known.name) store.*known.place = sentence;
    }
    if (kind == "GSV") storeGsv(line, sentence, store);
    store.updated = now;
}

int gsvSentences(const _gps_data& store) {
    return heldToArray(store.GPGSV_count);
}

int calculateGPScrc(std::string sentence) {
    unsigned crc = 0;
    for (size_t i = 1; i + kChecksumLength < sentence.size(); ++i) {
        crc ^= static_cast<unsigned char>(sentence[i]);
    }
    return static_cast<int>(crc);
}

int checkCRC(const std::string& sentence, std::string& log) {
    if (sentence.size() < kShortestChecked) return 0;
    const Splitter parts(sentence, "*");
    if (parts.size() > 1 && strtol(parts[1].c_str(), nullptr, 16) == calculateGPScrc(sentence)) return 1;
    AppendLine(log, "CRC FAIL");
    return 0;
}

int checkCRC(std::string sentence) {
    std::string log;
    const int result = checkCRC(sentence, log);
    if (!log.empty()) Print(log);
    return result;
}

std::string gpsDataText(const _gps_data& store) {
    std::string text;
    AppendLine(text, "----------GPS-----------");
    AppendLine(text, "GPGGA: ", store.GPGGA);
    AppendLine(text, "GPRMC: ", store.GPRMC);
    AppendLine(text, "GPGSA: ", store.GPGSA);
    AppendLine(text, "GPVTG: ", store.GPVTG);
    for (int i = 1; i <= gsvSentences(store); ++i) AppendLine(text, "GPGSV[", i, "]: ", store.GPGSV[i]);
    AppendLine(text, "------------------------");
    return text;
}
