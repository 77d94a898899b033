#pragma once

#include <cstddef>
#include <string>
#include <vector>

// Splits a text at a whole delimiter string and keeps empty tokens: "a,,b," at "," gives "a", "", "b", "".
// An object is for one thread.
class Splitter {
  public:
    // REQUIRES: delimiter is not empty.
    Splitter(const std::string& text, const std::string& delimiter);

    // Splits anew. The old tokens stay when the split throws (out of memory).
    void reset(const std::string& text, const std::string& delimiter);

    // Throws std::out_of_range for an index past the end.
    std::string& operator[](size_t index);
    const std::string& operator[](size_t index) const;

    size_t size() const;

  private:
    std::vector<std::string> _tokens;
};
