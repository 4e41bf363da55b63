// One datagram of the tap taken apart. It comes from foreign hands: nothing in it is believed unchecked.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "records/Records.h"

namespace kipcmon {

inline constexpr std::size_t kMostDatagramBytes = 256 * 1024;  // twice what a Unix socket passes by default

struct Datagram {
    std::uint64_t monotonic_ns = 0;
    std::uint64_t wall_ns = 0;
    std::uint32_t lost = 0;  // records that the tap missed before this one
    unsigned direction = 0;  // kipc::E_TAP_DIRECTION, or anything
    unsigned outcome = 0;    // kipc::E_TAP_OUTCOME, or anything
    std::string sender;      // printable
    std::string receiver;    // printable
    records::Bytes record;   // within the bytes that were given
    std::vector<std::string> faults;
};

// Empty when the bytes are no datagram of a tap that we know; `refusal` then says why.
std::optional<Datagram> ReadDatagram(records::Bytes bytes, std::string* refusal);

std::string_view DirectionWord(unsigned direction);  // "in", "out" or "unknown"
std::string_view OutcomeWord(unsigned outcome);      // "delivered", "no receiver", "full" or "unknown"

}  // namespace kipcmon
