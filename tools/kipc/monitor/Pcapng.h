// Numbers of the pcapng format that writer and reader share.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kipcmon {

inline constexpr std::uint32_t kSectionBlock = 0x0A0D0D0A;
inline constexpr std::uint32_t kInterfaceBlock = 1;
inline constexpr std::uint32_t kPacketBlock = 6;  // "enhanced packet"

inline constexpr std::uint32_t kByteOrder = 0x1A2B3C4D;
inline constexpr std::uint32_t kOtherByteOrder = 0x4D3C2B1A;
inline constexpr std::uint16_t kMajorVersion = 1;

inline constexpr std::uint16_t kOptionEnd = 0;
inline constexpr std::uint16_t kOptionInterfaceName = 2;
inline constexpr std::uint16_t kOptionApplication = 4;  // of a section
inline constexpr std::uint16_t kOptionDropped = 4;      // of a packet
inline constexpr std::uint16_t kOptionTimeResolution = 9;

constexpr std::size_t PaddedTo4(std::size_t length) {
    return (length + 3) / 4 * 4;
}

}  // namespace kipcmon
