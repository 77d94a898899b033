// Numbers, quotes and lists of names in sentences.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// "1 alarm", "2 alarms".
std::string counted(size_t count, const std::string& noun);

// Text in quotation marks, cut when it is long.
std::string inQuotes(std::string_view text);

// Collects what belongs to one sentence and names the first few: "3 alarms: 5, 7, 9 and 12 more".
class Naming {
  public:
    void add(std::string name);
    size_t count() const { return count_; }

    // The names with "and N more" behind them when there were more than a few.
    std::string names() const;

  private:
    std::string names_;
    size_t count_ = 0;
};
