// What the loaders have to complain of in the files that they read. Main thread only.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

enum class ComplaintCode {
    kUnreadable,        // a file that cannot be opened, or read to its end
    kLineTooLong,       // a line that is passed over
    kNotJson,           // a file of which nothing is taken
    kWrongShape,        // a document or an object that is none, of which nothing is taken
    kWrongType,         // a member that is ignored
    kOutOfRange,        // a number in whose place the default is taken
    kElementDropped,    // an element of an array that is left out
    kGroupNumber,       // a group that there is not, which is ignored
    kFourColumns,       // fatal: a user line of exactly four columns
    kMalformedSetting,  // fatal: a project file without a project id that can be had
};

// A complaint before its place is known; nothing without a text.
struct Remark {
    ComplaintCode code{};
    std::string text;
};

struct Complaint {
    ComplaintCode code;
    std::string file;
    std::string text;    // the reason; of kNotJson the parser's messages with a headline
    size_t line = 0;     // from 1; 0: the file as a whole
    size_t element = 0;  // of the document's array, from 1; 0: none
    bool fatal = false;  // the daemon cannot go on
};

// "FILE, line 7: TEXT", "FILE, element 3: TEXT" or "FILE: TEXT".
std::string describe(const Complaint& complaint);

// Hands a complaint on. The daemon prints "alarmd: " and what describe gives in one line on standard error;
// of kNotJson, the text and an empty line on standard output.
void complain(Complaint complaint);

// The same for several, in order, with one call for all of them. None of them is kNotJson.
void complainOfAll(std::vector<Complaint> complaints);

// The last complaint of a loader, which it makes with its own data in order: fatal() ends the process.
[[noreturn]] void complainAndEnd(Complaint complaint);

// Runs loaders and returns what they complain of instead of printing it. A fatal complaint, which is then the
// last, ends the loaders and not the process.
std::vector<Complaint> complaintsOf(const std::function<void()>& loaders);
