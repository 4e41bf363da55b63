// One record as people and programs see it: who told whom what, by the description that fits.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "monitor/Datagram.h"
#include "records/Records.h"

namespace kipcmon {

struct Entry {
    explicit Entry(Datagram from);

    Datagram datagram;
    const records::Record* record;  // null: no description fits
    std::vector<std::string> faults;
    std::uint64_t lost;  // records missed before this one, those before filtered ones included
};

std::string Hex(records::Bytes bytes);

// One line without its end, safe for a terminal.
enum E_COLOUR { COLOUR_OFF, COLOUR_ON };
std::string LineOf(const Entry& entry, E_COLOUR colour);
std::string LostLine(std::uint64_t lost, E_COLOUR colour);

// One JSON object in one line without its end, all ASCII.
std::string JsonOf(const Entry& entry);

}  // namespace kipcmon
