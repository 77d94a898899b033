#include "alarmd/base/complaint.h"

#include <iterator>
#include <utility>

#include "alarmd/base/fatal.h"
#include "knihovny/debugerror.h"

namespace {

// Thrown in the place of the process's end.
struct LoadersEnd {};

// Takes the complaints in the place of the console while complaintsOf runs.
std::vector<Complaint>* collection = nullptr;

class Collecting {
  public:
    explicit Collecting(std::vector<Complaint>& complaints)
        : before_(std::exchange(collection, &complaints)) {}
    ~Collecting() { collection = before_; }
    Collecting(const Collecting&) = delete;
    Collecting& operator=(const Collecting&) = delete;

  private:
    std::vector<Complaint>* const before_;
};

}  // namespace

std::string describe(const Complaint& complaint) {
    std::string text = complaint.file;
    // The parser's words, which a malformed setting is told in, name the line themselves.
    const bool line = complaint.line > 0 && complaint.code != ComplaintCode::kMalformedSetting;
    if (line) text += ", line " + std::to_string(complaint.line);
    if (complaint.element > 0) text += ", element " + std::to_string(complaint.element);
    return text + ": " + complaint.text;
}

void complain(Complaint complaint) {
    if (collection == nullptr && complaint.code == ComplaintCode::kNotJson) {
        Print(complaint.text + "\n");
    } else {
        complainOfAll({std::move(complaint)});
    }
}

void complainOfAll(std::vector<Complaint> complaints) {
    if (collection != nullptr) {
        std::move(complaints.begin(), complaints.end(), std::back_inserter(*collection));
        return;
    }
    std::string lines;
    for (const Complaint& complaint : complaints) AppendLine(lines, "alarmd: ", describe(complaint));
    PrintError(lines);
}

void complainAndEnd(Complaint complaint) {
    if (collection == nullptr) fatal(describe(complaint));
    complaint.fatal = true;
    collection->push_back(std::move(complaint));
    throw LoadersEnd();
}

std::vector<Complaint> complaintsOf(const std::function<void()>& loaders) {
    std::vector<Complaint> complaints;
    const Collecting collecting(complaints);
    try {
        loaders();
    } catch (const LoadersEnd&) {
        // Its complaint is the last.
    }
    return complaints;
}
