#include "alarmctl/check/findings.h"

#include <algorithm>
#include <map>
#include <utility>

#include "alarmctl/daemon/daemon_answers.h"
#include "alarmctl/text/sms_length.h"

namespace {

std::string lineOf(const Finding& finding) {
    std::string line = finding.place.file;
    if (finding.place.line > 0) line += ":" + std::to_string(finding.place.line);
    line += ": ";
    if (finding.place.element > 0) line += "element " + std::to_string(finding.place.element) + ": ";
    line += std::string(severityName(finding.severity)) + ": " + finding.text + " [" + finding.code + "]";
    return printable(wellFormed(line)) + "\n";
}

}  // namespace

const char* severityName(Severity severity) {
    constexpr const char* kNames[] = {"note", "warning", "error"};
    return kNames[static_cast<size_t>(severity)];
}

void Findings::error(Place place, std::string code, std::string text) {
    add({Severity::kError, std::move(place), std::move(code), std::move(text)});
}

void Findings::warning(Place place, std::string code, std::string text) {
    add({Severity::kWarning, std::move(place), std::move(code), std::move(text)});
}

void Findings::note(Place place, std::string code, std::string text) {
    add({Severity::kNote, std::move(place), std::move(code), std::move(text)});
}

void Findings::add(Finding finding) {
    lookedAt(finding.place.file);
    findings_.push_back(std::move(finding));
}

void Findings::lookedAt(const std::string& file) {
    if (std::find(files_.begin(), files_.end(), file) == files_.end()) files_.push_back(file);
}

size_t Findings::count(Severity severity) const {
    return static_cast<size_t>(std::count_if(findings_.begin(), findings_.end(), [&](const Finding& finding) {
        return finding.severity == severity;
    }));
}

std::vector<Finding> Findings::sorted() const {
    std::vector<Finding> result = findings_;
    std::map<std::string, size_t> order;
    for (const std::string& file : files_) order.emplace(file, order.size());
    const auto key = [&](const Finding& finding) {
        return std::make_pair(order.at(finding.place.file), finding.place.line + finding.place.element);
    };
    std::stable_sort(result.begin(), result.end(),
                     [&](const Finding& a, const Finding& b) { return key(a) < key(b); });
    return result;
}

std::string Findings::text(size_t most) const {
    std::string result;
    std::map<std::pair<std::string, std::string>, size_t> shown;
    std::map<std::string, std::map<std::string, size_t>> left_out;  // by file and code
    const std::vector<Finding> findings = sorted();
    for (size_t i = 0; i < findings.size(); ++i) {
        const Finding& finding = findings[i];
        const std::string& file = finding.place.file;
        if (most == 0 || shown[{file, finding.code}]++ < most) {
            result += lineOf(finding);
        } else {
            ++left_out[file][finding.code];
        }
        if (i + 1 < findings.size() && findings[i + 1].place.file == file) continue;
        for (const auto& [code, count] : left_out[file]) {
            result +=
                printable(wellFormed(file)) + ": and " + std::to_string(count) + " more [" + code + "]\n";
        }
    }
    return result;
}

Json::Value Findings::json() const {
    Json::Value result;
    result["files"] = Json::Value(Json::arrayValue);
    result["findings"] = Json::Value(Json::arrayValue);
    for (const std::string& file : files_) result["files"].append(wellFormed(file));
    for (const Finding& finding : sorted()) {
        Json::Value entry;
        entry["severity"] = severityName(finding.severity);
        entry["file"] = wellFormed(finding.place.file);
        if (finding.place.line > 0) entry["line"] = Json::UInt64(finding.place.line);
        if (finding.place.element > 0) entry["element"] = Json::UInt64(finding.place.element);
        entry["code"] = finding.code;
        entry["text"] = wellFormed(finding.text);
        result["findings"].append(std::move(entry));
    }
    result["errors"] = Json::UInt64(count(Severity::kError));
    result["warnings"] = Json::UInt64(count(Severity::kWarning));
    result["notes"] = Json::UInt64(count(Severity::kNote));
    return result;
}
