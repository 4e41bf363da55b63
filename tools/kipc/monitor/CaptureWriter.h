// Datagrams of the tap as a pcapng file (draft-ietf-opsawg-pcapng): one section, one interface of link type
// USER0, times in nanoseconds. The bytes of a packet are a datagram as it came: nothing is lost.
#pragma once

#include <cstdint>
#include <string>

#include "records/Records.h"

namespace kipcmon {

inline constexpr std::uint16_t kLinkTypeUser0 = 147;

// What the file begins with.
std::string CaptureHead();

// One more packet. `lost`: records missed before it.
std::string CapturePacket(records::Bytes datagram, std::uint64_t wall_ns, std::uint64_t lost);

}  // namespace kipcmon
