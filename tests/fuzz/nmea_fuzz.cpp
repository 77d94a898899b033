// The GPS receiver's bytes: assembly, checksum, printing, and the answers made of them.
#include <algorithm>

#include "alarmd/gps/gps_thread.h"
#include "alarmd/gps/nmea.h"
#include "alarmd/requests/answers.h"
#include "alarmd/requests/daemon_state.h"
#include "tests/fuzz/world.h"

namespace {

constexpr size_t kLongestLine = 1024;

void feed(MyGps& receiver, std::string_view bytes) {
    for (const char c : bytes) {
        char byte[2] = {c, '\0'};
        receiver.ZpracujByte(byte);
    }
}

_gps_data stored() {
    MutexLock lock(gps_mutex);
    return gps_data;
}

void checkSentence(const std::string& sentence, std::string_view kind) {
    if (sentence.empty()) return;
    MUST(sentence.size() < kLongestLine);
    MUST(sentence.substr(3, 3) == kind);
    MUST(sentence.back() != '\r' && sentence.find('\n') == std::string::npos);
}

// The last line of the kind, as a reading of whole lines finds it.
std::string lastOf(std::string_view kind, std::string_view bytes) {
    constexpr size_t kShortestLine = 6;
    std::string last;
    std::vector<std::string> lines = fuzz::parts(bytes, '\n');
    lines.pop_back();  // without its line feed
    for (std::string& line : lines) {
        if (line.size() < kShortestLine || line.size() >= kLongestLine) continue;
        line.erase(line.find_last_not_of('\r') + 1);
        if (line.size() >= kShortestLine && line.substr(3, 3) == kind) last = line;
    }
    return last;
}

void checkLines(const _gps_data& store, std::string_view bytes) {
    MUST(store.GPGGA == lastOf("GGA", bytes));
    MUST(store.GPRMC == lastOf("RMC", bytes));
    MUST(store.GPVTG == lastOf("VTG", bytes));
    MUST(store.GPGSA == lastOf("GSA", bytes));
}

void checkStore(const _gps_data& store) {
    checkSentence(store.GPGGA, "GGA");
    checkSentence(store.GPRMC, "RMC");
    checkSentence(store.GPVTG, "VTG");
    checkSentence(store.GPGSA, "GSA");
    for (const std::string& sentence : store.GPGSV) checkSentence(sentence, "GSV");
    MUST(store.GPGSV[0].empty());
    MUST(store.GPGSV_count >= 0 && store.GPGSV_count <= 31);
}

int checksumOf(std::string_view sentence) {
    int sum = 0;
    for (const char c : sentence.substr(std::min<size_t>(sentence.size(), 1)))
        sum ^= static_cast<unsigned char>(c);
    return sum;
}

std::string withChecksum(const std::string& sentence) {
    char digits[16];
    snprintf(digits, sizeof digits, "*%02X", static_cast<unsigned>(checksumOf(sentence)));
    return sentence + digits;
}

// A sentence with its checksum is right, with another one it is wrong.
void checkChecksum(const std::string& sentence) {
    constexpr size_t kShortest = 3;
    if (sentence.size() < kShortest || sentence.find('*') != std::string::npos) return;
    std::string whole = withChecksum(sentence);
    MUST(calculateGPScrc(whole) == checksumOf(sentence));
    MUST(checkCRC(whole) == 1);
    whole.back() = whole.back() == '0' ? '1' : '0';
    MUST(checkCRC(whole) == 0);
}

void checkAnswers(const _gps_data& store) {
    const RequestState state = takeRequestState();
    const Answer raw = answerFcgiRequest("{\"t\":52}", state);
    MUST(raw.body.starts_with("{\"r\":52,\"s\":1,\"d\":{\"GGA\":\""));
    const Answer parsed = answerFcgiRequest("{\"t\":53}", state);
    const bool right =
        checkCRC(store.GPGGA) + checkCRC(store.GPGSA) + checkCRC(store.GPRMC) + checkCRC(store.GPVTG) == 4;
    MUST(parsed.gps_parsed == right);
    if (!right) {
        MUST(parsed.body == "{\"r\":53,\"s\":0,\"err\":\"GPS disabled or CRC error.\"}\n");
        return;
    }
    carryOut(parsed, {});
    MutexLock lock(gps_mutex);
    MUST(store.GPGGA.size() < 10 || gps_data_parse.GPGGA == store.GPGGA.substr(7, store.GPGGA.size() - 10));
}

}  // namespace

FUZZ_TARGET(nmea) {
    gps_enable = true;
    {
        MyGps receiver;
        feed(receiver, input);
    }
    const _gps_data store = stored();
    checkStore(store);
    checkLines(store, input);
    printGPSdata();
    MUST(fuzz::world.printed == gpsDataText(store));
    for (const std::string& line : fuzz::parts(input, '\n')) checkChecksum(line);
    checkAnswers(store);

    // With right checksums, the same sentences are parsed.
    MyGps receiver;
    for (const std::string& line : fuzz::parts(input, '\n')) {
        feed(receiver, withChecksum(line.substr(0, line.find_first_of("*\r"))) + "\r\n");
    }
    checkStore(stored());
    checkAnswers(stored());
}
