// Reads lines "sender receiver hex" and prints what the description says of each record, one line each.
#include <iostream>
#include <sstream>

#include "records/Records.h"

namespace {

std::vector<unsigned char> BytesOf(const std::string& hex) {
    std::vector<unsigned char> bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(static_cast<unsigned char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

}  // namespace

int main() {
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::string sender, receiver, hex;
        words >> sender >> receiver >> hex;
        const auto bytes = BytesOf(hex);
        std::cout << records::Describe(records::Identify(sender, receiver, bytes), bytes) << '\n';
    }
}
