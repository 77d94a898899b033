// The project's CSV files, line by line.
#include <algorithm>
#include <functional>
#include <map>
#include <string_view>
#include <vector>

#include "alarmctl/check/check_contacts.h"
#include "alarmctl/check/check_project.h"
#include "alarmctl/text/sms_length.h"
#include "alarmd/alarmd.h"
#include "alarmd/project/csv_file.h"
#include "alarmd/project/group_number.h"

namespace {

constexpr char kSeparator = ';';
constexpr std::string_view kNo = "NO";
constexpr std::string_view kNobody = " ";
constexpr char32_t kReplacement = 0xfffd;

// What the lines of a file must look like.
struct Shape {
    size_t columns;  // that a line needs; it may have no more
    bool header;
    std::vector<size_t> numbers;
    size_t first_flag, last_flag;  // columns of YES or NO; none when the first is behind the last
};

const Shape kGroupShape{4, true, {0, 1}, 2, 2};
const Shape kDefinitionShape{27, true, {0, 26}, 12, 25};
const Shape kUserShape{5, false, {2}, 1, 0};

enum GroupColumn { kGroupNumber = 0 };
enum DefinitionColumn { kId = 26 };
enum UserColumn { kGroup = 2, kMail = 3, kMobil = 4 };

std::string columnName(size_t column) {
    return "column " + std::to_string(column + 1);
}

std::string_view withoutReturn(std::string_view text) {
    if (!text.empty() && text.back() == '\r') text.remove_suffix(1);
    return text;
}

bool isNumber(std::string_view text) {
    text = withoutReturn(text);
    if (!text.empty() && (text[0] == '-' || text[0] == '+')) text.remove_prefix(1);
    constexpr size_t kSafeDigits = 9;
    return !text.empty() && text.size() <= kSafeDigits &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Where the columns of the whole line begin to shift: the first empty one of those that count, or npos.
size_t firstEmpty(std::string_view line, size_t columns) {
    for (size_t column = 0; column < columns; ++column) {
        const size_t end = line.find(kSeparator);
        if (line.substr(0, end).empty()) return column;
        if (end == std::string_view::npos) break;
        line.remove_prefix(end + 1);
    }
    return std::string_view::npos;
}

size_t columnsWithText(std::string_view line) {
    size_t count = 0;
    bool inside = false;
    for (const char c : withoutReturn(line)) {
        count += c != kSeparator && !inside;
        inside = c != kSeparator;
    }
    return count;
}

// One file under check.
class CsvCheck {
  public:
    CsvCheck(const std::string& path, const Shape& shape, Findings& findings)
        : path_(path), shape_(shape), findings_(findings) {
        findings_.lookedAt(path);
    }

    // Calls row for each line that the daemon takes.
    void run(const std::function<void(const CsvFile& file, const Place& place)>& row) {
        CsvFile file(path_);
        if (shape_.header) {
            file.skipLine();
            checkHeader(file.line());
        }
        while (file.next()) {
            checkBytes(file);
            if (file.size() == 0) continue;
            const Place place{path_, file.lineNumber()};
            if (checkColumns(file, place)) {
                checkValues(file, place);
                row(file, place);
            }
        }
    }

  private:
    void checkHeader(std::string_view line) {
        const std::string_view first = line.substr(0, line.find(kSeparator));
        if (isNumber(first))
            findings_.warning({path_, 1}, "no-header",
                              "looks like data, but the first line is taken for a header and not read");
    }

    // Once a file.
    void checkBytes(const CsvFile& file) {
        const std::string_view line = file.line();
        if (!returns_told_ && !line.empty() && line.back() == '\r') {
            returns_told_ = true;
            findings_.note({path_, file.lineNumber()}, "carriage-return",
                           "the lines end with a carriage return, which belongs to their last column");
        }
        if (!bytes_told_) {
            const std::vector<char32_t> characters = charactersOf(line);
            bytes_told_ = std::find(characters.begin(), characters.end(), kReplacement) != characters.end();
            if (bytes_told_)
                findings_.warning({path_, file.lineNumber()}, "not-utf8",
                                  "is not UTF-8, and mails say that they are: the text comes out wrong");
        }
    }

    // False for a line that the daemon skips, or ends at.
    bool checkColumns(const CsvFile& file, const Place& place) {
        const bool enough = file.size() >= shape_.columns;
        const size_t empty = firstEmpty(withoutReturn(file.line()), shape_.columns);
        const std::string count =
            std::to_string(file.size()) + " of " + std::to_string(shape_.columns) + " columns";
        // With one column less a user line ends the daemon, which the loader itself tells.
        const bool ends = !shape_.header && file.size() + 1 == shape_.columns;
        const std::string left = ends ? "" : ": " + count + " are left and the line is skipped";
        if (empty != std::string_view::npos) {
            findings_.warning(place, "empty-column",
                              columnName(empty) +
                                  " is empty, which makes it no column: those behind it move up" +
                                  (enough ? "" : left));
        } else if (!enough && !ends) {
            findings_.warning(place, "short-line", "only " + count + ": the line is skipped");
        }
        const size_t all = columnsWithText(file.line());
        if (all > shape_.columns)
            findings_.warning(place, "extra-columns",
                              std::to_string(all) + " columns instead of " + std::to_string(shape_.columns) +
                                  ": those beyond are not read (a text cannot hold a \";\")");
        return enough;
    }

    void checkValues(const CsvFile& file, const Place& place) {
        for (const size_t column : shape_.numbers) {
            if (!isNumber(file[column]))
                findings_.warning(place, "no-number",
                                  inQuotes(file[column]) + " in " + columnName(column) +
                                      " is no number and counts as " +
                                      std::to_string(leadingNumber(file[column])));
        }
        for (size_t column = shape_.first_flag; column <= shape_.last_flag; ++column) {
            if (file[column] != kYes && file[column] != kNo)
                findings_.warning(place, "no-flag",
                                  inQuotes(file[column]) + " in " + columnName(column) +
                                      " is neither YES nor NO and counts as NO");
        }
    }

    const std::string& path_;
    const Shape& shape_;
    Findings& findings_;
    bool returns_told_ = false;
    bool bytes_told_ = false;
};

}  // namespace

void checkGroupsCsv(Findings& findings) {
    std::map<int, size_t> lines;
    CsvCheck(group_list, kGroupShape, findings).run([&](const CsvFile& file, const Place& place) {
        const int number = leadingNumber(file[kGroupNumber]);
        const auto [first, fresh] = lines.emplace(number, place.line);
        if (!fresh)
            findings.warning(place, "duplicate-group",
                             "group " + std::to_string(number) + " stands in line " +
                                 std::to_string(first->second) + " already: the last one counts");
    });
}

void checkDefinitionsCsv(Findings& findings, AlarmPlaces& places) {
    places.file = cas_list;
    places.lines = true;
    CsvCheck(cas_list, kDefinitionShape, findings).run([&](const CsvFile& file, const Place& place) {
        const int id = leadingNumber(file[kId]);
        const auto [first, fresh] = places.numbers.emplace(id, place.line);
        if (!fresh) {
            findings.warning(place, "duplicate-alarm",
                             "alarm " + std::to_string(id) + " is defined in line " +
                                 std::to_string(first->second) +
                                 " already: the last definition counts, in the groups of both");
            first->second = place.line;
        }
    });
    if (places.numbers.empty()) return;
    findings.warning(
        {cas_list}, "csv-texts",
        "definitions from CSV do not keep their ids with their texts, so the mails of " +
            counted(places.numbers.size(), "alarm") +
            " show \"-\" instead of the texts and the SMS are without one (cas.json has no such limit)");
}

void checkUsersCsv(Findings& findings) {
    size_t users = 0;
    CsvCheck(acc_list, kUserShape, findings).run([&](const CsvFile& file, const Place& place) {
        ++users;
        const std::string_view number = withoutReturn(file[kMobil]);
        const bool mail = file[kMail] != kNobody;
        if (mail && !addressFault(file[kMail]).empty())
            findings.warning(place, "bad-address",
                             inQuotes(file[kMail]) + " is no mail address: " + addressFault(file[kMail]));
        if (number != kNobody && !isInternationalNumber(number))
            findings.warning(place, "bad-number", numberRemark(number));
        if (!mail && number == kNobody)
            findings.warning(place, "no-contact", "neither address nor number: the user is dropped");
        if (isGroup(leadingNumber(file[kGroup])) && leadingNumber(file[kGroup]) >= kNotifiedGroups)
            findings.note(place, "silent-group",
                          "group " + std::to_string(leadingNumber(file[kGroup])) + " is never notified");
    });
    findings.error({acc_list}, "users-from-csv",
                   "its " + counted(users, "user") +
                       " get no mail and no SMS: alarms are told to users of users.json only");
}
