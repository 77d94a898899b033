// NMEA 0183 sentences: assembly, storing, checksum, printing. The reader is alarmd/gps/gps_thread.h.
#pragma once

#include <cstdint>
#include <string>

#include "alarmd/alarmd.h"

// Puts bytes together to sentences. Nothing is allocated for a byte. An object is for one thread.
class NmeaAssembler {
  public:
    // Takes one byte. True when it is the line feed that completes a line of at least 6 bytes before it; line
    // then holds all of it, with its line end. A shorter line, such as an empty one, and a line of more than
    // 1023 bytes before the line feed are dropped whole.
    bool take(char byte, std::string& line);

  private:
    static constexpr int kBufferSize = 1024;
    char rcv_gps[kBufferSize] = {};  // the line so far
    int pocetpz_gps = 0;             // its bytes
    bool too_long = false;
};

// Puts a complete line of one of the kinds GGA, RMC, VTG, GSA and GSV into its place in store, whatever its
// talker (GP, GN, ...) and without its line end: a line feed, and any carriage returns in front of it, since
// receivers end lines with CR LF, with LF alone and with CR CR LF; and sets store.updated to now. A GSV
// sentence goes to the index that is its message number, and the total number of messages becomes
// store.GPGSV_count; one with a message number outside 1 to 31 is dropped. line may be of any length.
void storeSentence(const std::string& line, int64_t now, _gps_data& store);

// How many GSV sentences a reader is to look at, from index 1: GPGSV_count, held to what the array has room
// for.
int gsvSentences(const _gps_data& store);

// The exclusive or of the bytes between "$" and "*" of a sentence that ends in "*" and two hexadecimal
// digits.
int calculateGPScrc(std::string sentence);

// 1 when the checksum behind "*" is right, else 0. A sentence of less than 6 characters fails silently, a
// wrong checksum prints "CRC FAIL"; the second form adds that line to log instead.
int checkCRC(std::string sentence);
int checkCRC(const std::string& sentence, std::string& log);

// The store as the GPS thread prints it.
std::string gpsDataText(const _gps_data& store);
