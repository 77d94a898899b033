#include "alarmd/base/json.h"

#include <json/reader.h>
#include <json/writer.h>

#include <charconv>
#include <stdexcept>
#include <string_view>

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

size_t faultLine(const std::string& errors) {
    constexpr std::string_view kLine = "* Line ";
    size_t line = 0;
    if (errors.starts_with(kLine))
        std::from_chars(errors.data() + kLine.size(), errors.data() + errors.size(), line);
    return line;
}

std::string writeJson(const Json::Value& value) {
    return Json::FastWriter().write(value);
}

#pragma GCC diagnostic pop
