#include "alarmd/project/json_file.h"

#include <stdexcept>
#include <utility>
#include <vector>

#include "alarmd/base/files.h"
#include "alarmd/base/json.h"

namespace {

// The library's complaint does not name the member.
template <class Convert>
auto named(std::string_view key, const Convert& convert) {
    try {
        return convert();
    } catch (const Json::Exception& error) {
        throw std::runtime_error("\"" + std::string(key) + "\": " + error.what());
    }
}

}  // namespace

int numberFrom(const Json::Value& value, std::string_view key) {
    return named(key, [&] { return value.asInt(); });
}

std::string textFrom(const Json::Value& value, std::string_view key) {
    return named(key, [&] { return value.asString(); });
}

bool flagFrom(const Json::Value& value, std::string_view key) {
    return named(key, [&] { return value.asBool(); });
}

const Json::Value& JsonElement::members() const {
    if (!value_.isObject() && !value_.isNull()) throw std::runtime_error("not an object");
    return value_;
}

bool readJsonArray(const std::string& path, std::string_view name, Json::Value& root) {
    std::string text;
    std::string errors;
    readWholeFile(path, text);
    if (!parseJson(text, root, errors)) {
        complain({ComplaintCode::kNotJson, path, "Failed to JSON parse " + std::string(name) + "\n" + errors,
                  faultLine(errors)});
        return false;
    }
    if (root.isArray()) return true;
    complain({ComplaintCode::kWrongShape, path, "the document is not an array, nothing is taken from it"});
    return false;
}

void convertElements(const std::string& path, const Json::Value& root,
                     const std::function<void(const JsonElement& element, Remark& remark)>& convert) {
    std::vector<Complaint> complaints;
    size_t number = 0;
    for (const Json::Value& value : root) {
        ++number;
        Remark remark;
        try {
            convert(JsonElement(value), remark);
        } catch (const std::runtime_error& error) {
            remark = {ComplaintCode::kElementDropped, std::string(error.what()) + " (element left out)"};
        }
        if (!remark.text.empty())
            complaints.push_back({remark.code, path, std::move(remark.text), 0, number});
    }
    complainOfAll(std::move(complaints));
}
