// What a modem answers to a command: lines of information, and a final result (ITU-T V.250, section 5.7) with
// the error codes of 3GPP TS 27.007 (+CME) and TS 27.005 (+CMS).
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace sim {

enum CmeError : int {
    kCmeNotAllowed = 3,
    kCmeNotSupported = 4,
    kCmeSimMissing = 10,
    kCmePinRequired = 11,
    kCmePukRequired = 12,
    kCmeWrongPassword = 16,
    kCmeParameters = 50,
};

enum CmsError : int {
    kCmsNotAllowed = 302,
    kCmsNotSupported = 303,
    kCmsTextParameter = 305,
    kCmsSimMissing = 310,
    kCmsPinRequired = 311,
    kCmsPukRequired = 316,
    kCmsIndex = 321,
    kCmsServiceCentre = 330,
    kCmsNoNetwork = 331,
};

struct AtAnswer {
    enum Kind { kOk, kError, kCme, kCms, kPrompt };
    Kind kind = kOk;
    int code = 0;                         // of kCme and kCms
    std::vector<std::string> lines = {};  // information before the result

    static AtAnswer line(std::string text) { return {kOk, 0, {std::move(text)}}; }
    static AtAnswer error() { return {kError}; }
    static AtAnswer cme(int code) { return {kCme, code}; }
    static AtAnswer cms(int code) { return {kCms, code}; }
};

// The bytes of the final result alone. cmee is the value of AT+CMEE: 0 for no +CME ERROR, 1 for its number, 2
// for words.
std::string finalResult(const AtAnswer& answer, int cmee);

// The bytes of the whole answer.
std::string answerBytes(const AtAnswer& answer, int cmee);

}  // namespace sim
