#include "alarmd/base/json.h"

#include <json/reader.h>
#include <json/writer.h>

#include <stdexcept>

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
