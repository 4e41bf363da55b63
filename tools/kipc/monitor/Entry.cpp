#include "monitor/Entry.h"

namespace kipcmon {

Entry::Entry(Datagram from)
    : datagram(std::move(from)),
      record(records::Identify(datagram.sender, datagram.receiver, datagram.record)),
      faults(datagram.faults),
      lost(datagram.lost) {
    if (!record) return;
    for (std::string& fault : records::Faults(*record, datagram.record))
        faults.push_back(std::move(fault));
}

std::string Hex(records::Bytes bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(bytes.size() * 2);
    for (const unsigned char byte : bytes) {
        hex += kDigits[byte >> 4];
        hex += kDigits[byte & 15];
    }
    return hex;
}

}  // namespace kipcmon
