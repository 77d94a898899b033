#include "alarmd/json_reader.h"

#include <json/reader.h>
#include <json/writer.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>

#include "knihovny/regular_file.h"

// The classic reader and writer are deprecated in jsoncpp in favour of builders whose messages and output
// differ; the log and the requests of this daemon carry the classic forms.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

bool parseJson(const std::string& text, Json::Value& root, std::string& errors) {
    Json::Reader reader;
    try {
        // The form with two pointers makes no copy of the text.
        if (reader.parse(text.data(), text.data() + text.size(), root, false)) return true;
        errors = reader.getFormattedErrorMessages();
    } catch (const std::exception& error) {
        errors = std::string("* ") + error.what() + "\n";
    }
    return false;
}

std::string writeJson(const Json::Value& value) {
    return Json::FastWriter().write(value);
}

#pragma GCC diagnostic pop

bool readWholeFile(const std::string& path, std::string& text) {
    text.clear();
    std::string reason;
    const int descriptor = openRegularFile(path, reason);
    if (descriptor < 0) return false;
    // One byte more than the file has, so that its end is seen without growing the text.
    struct stat info;
    if (fstat(descriptor, &info) == 0) text.resize(static_cast<size_t>(info.st_size) + 1);
    size_t length = 0;
    long count;
    do {
        if (length == text.size()) text.resize(2 * length + 1);
        count = readSome(descriptor, text.data() + length, text.size() - length, reason);
        if (count > 0) length += static_cast<size_t>(count);
    } while (count > 0);
    close(descriptor);
    text.resize(count < 0 ? 0 : length);
    return count == 0;
}
