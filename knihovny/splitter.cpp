#include "knihovny/splitter.h"

Splitter::Splitter(const std::string& text, const std::string& delimiter) { reset(text, delimiter); }

void Splitter::reset(const std::string& text, const std::string& delimiter) {
    std::vector<std::string> tokens;
    size_t position = 0;
    size_t found;
    while ((found = text.find(delimiter, position)) != std::string::npos) {
        tokens.push_back(text.substr(position, found - position));
        position = found + delimiter.size();
    }
    tokens.push_back(text.substr(position));
    _tokens.swap(tokens);
}

std::string& Splitter::operator[](size_t index) { return _tokens.at(index); }

const std::string& Splitter::operator[](size_t index) const { return _tokens.at(index); }

size_t Splitter::size() const { return _tokens.size(); }
