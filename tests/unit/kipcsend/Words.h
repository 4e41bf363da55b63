// A command line of kipcsend, as a shell would split it, and what it became.
#pragma once

#include <sstream>
#include <string>
#include <variant>
#include <vector>

#include "CommandLine.h"

namespace kipcsend {

inline std::variant<Order, int> ParseWords(std::vector<std::string> words) {
    words.insert(words.begin(), "kipcsend");
    std::vector<const char*> pointers;
    for (const std::string& word : words)
        pointers.push_back(word.c_str());
    return ParseCommandLine(static_cast<int>(pointers.size()), pointers.data());
}

inline std::variant<Order, int> Parse(const std::string& line) {
    std::istringstream stream(line);
    std::vector<std::string> words;
    for (std::string word; stream >> word;)
        words.push_back(word);
    return ParseWords(words);
}

inline std::vector<unsigned char> Hex(const std::string& digits) {
    return BytesOfHex(digits);
}

}  // namespace kipcsend
