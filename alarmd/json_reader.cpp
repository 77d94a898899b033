#include "alarmd/json_reader.h"

#include <json/reader.h>
#include <json/writer.h>

#include <fstream>
#include <iterator>
#include <stdexcept>

// The classic reader and writer are deprecated in jsoncpp in favour of builders whose messages and output differ; the
// log and the requests of this daemon carry the classic forms.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

bool parseJson(const std::string& text, Json::Value& root, std::string& errors) {
    Json::Reader reader;
    try {
        if (reader.parse(text, root, false)) return true;
        errors = reader.getFormattedErrorMessages();
    } catch (const std::exception& error) {
        errors = std::string("* ") + error.what() + "\n";
    }
    return false;
}

std::string writeJson(const Json::Value& value) { return Json::FastWriter().write(value); }

#pragma GCC diagnostic pop

bool readWholeFile(const std::string& path, std::string& text) {
    text.clear();
    std::ifstream file(path, std::ios::binary);
    if (!file) return false;
    text.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    if (!file.bad()) return true;
    text.clear();
    return false;
}
