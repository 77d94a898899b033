#include "knihovny/splitter.h"

Splitter::Splitter(const std::string& text, const std::string& delimiter) {
    reset(text, delimiter);
}

void Splitter::reset(const std::string& text, const std::string& delimiter) {
    std::vector<std::string> tokens;
    size_t begin = 0;
    for (size_t end = text.find(delimiter); end != std::string::npos; end = text.find(delimiter, begin)) {
        tokens.emplace_back(text, begin, end - begin);
        begin = end + delimiter.size();
    }
    tokens.emplace_back(text, begin);
    _tokens.swap(tokens);
}

std::string& Splitter::operator[](size_t index) {
    return _tokens.at(index);
}

const std::string& Splitter::operator[](size_t index) const {
    return _tokens.at(index);
}

size_t Splitter::size() const {
    return _tokens.size();
}
