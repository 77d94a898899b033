// The project's CSV files: one record a line, columns separated by ";", no quoting.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "alarmd/base/complaint.h"

// The text that means true in a CSV column; any other means false.
constexpr std::string_view kYes = "YES";

// Reads a CSV file line by line, whatever its size, with a bounded amount of memory.
//
// A line ends at a line feed only: in a file with CR LF lines the carriage return belongs to the last column.
// A last line without a line feed counts. Columns are split as txt2vector does it: a run of ";" separates
// once, so a column left empty is no column, and a zero byte ends the line's text.
//
// What hinders is complained of: a file that cannot be opened or read ends like an empty one, and a line
// longer than kMaxLine is passed over.
//
// An object is for one thread.
class CsvFile {
  public:
    static constexpr size_t kMaxColumns = 27;    // columns beyond are not split off
    static constexpr size_t kMaxLine = 1 << 20;  // bytes

    explicit CsvFile(std::string path);
    ~CsvFile();
    CsvFile(const CsvFile&) = delete;
    CsvFile& operator=(const CsvFile&) = delete;

    // Passes over one line, whatever its length: the header.
    void skipLine();

    // Goes to the next line; false when there is none.
    bool next();

    // The number of columns of the line, at most kMaxColumns.
    size_t size() const { return columns_.size(); }

    // A column; valid until the next line. REQUIRES: index < size().
    std::string_view operator[](size_t index) const { return columns_[index]; }

    // The whole line without its line feed, columns left empty and beyond kMaxColumns too; valid as a column
    // is.
    std::string_view line() const { return line_; }

    // Counted from 1.
    size_t lineNumber() const { return line_number_; }

    // "path, line 7", for messages.
    std::string where() const;

    // Complains of the line.
    void complainOfLine(Remark remark) const;

  private:
    bool readLine();
    bool fill();
    void split();

    const std::string path_;
    int descriptor_;
    std::vector<char> buffer_;
    size_t position_ = 0;  // of the first byte of buffer_ that is not used yet
    size_t end_ = 0;       // of the bytes in buffer_
    std::string line_;
    bool too_long_ = false;
    size_t line_number_ = 0;
    std::vector<std::string_view> columns_;
};

// The number that text begins with, as atoi reads it: blanks, a sign, digits; 0 when there are none. A number
// beyond the range of int gives its nearest end.
int leadingNumber(std::string_view text);
