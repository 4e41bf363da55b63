#include "monitor/CaptureWriter.h"

#include <string_view>

#include "monitor/Pcapng.h"

namespace kipcmon {
namespace {

template <typename Number>
std::string Raw(Number number) {
    return {reinterpret_cast<const char*>(&number), sizeof number};
}

std::string Padded(std::string_view bytes) {
    std::string padded(bytes);
    padded.resize(PaddedTo4(bytes.size()));
    return padded;
}

std::string Option(std::uint16_t code, std::string_view value) {
    return Raw(code) + Raw(static_cast<std::uint16_t>(value.size())) + Padded(value);
}

std::string Block(std::uint32_t type, std::string_view body) {
    const auto length = static_cast<std::uint32_t>(12 + body.size());
    return Raw(type) + Raw(length) + std::string(body) + Raw(length);
}

}  // namespace

std::string CaptureHead() {
    constexpr std::uint16_t kMinorVersion = 0;
    constexpr std::int64_t kUnknownLength = -1;
    constexpr std::uint32_t kNoLimit = 0;
    constexpr char kNanoseconds = 9;  // 10^-9 s
    const std::string section = Raw(kByteOrder) + Raw(kMajorVersion) + Raw(kMinorVersion) +
                                Raw(kUnknownLength) + Option(kOptionApplication, "kipcmon") +
                                Option(kOptionEnd, "");
    const std::string interface = Raw(kLinkTypeUser0) + Raw(std::uint16_t{0}) + Raw(kNoLimit) +
                                  Option(kOptionInterfaceName, "tap") +
                                  Option(kOptionTimeResolution, {&kNanoseconds, 1}) + Option(kOptionEnd, "");
    return Block(kSectionBlock, section) + Block(kInterfaceBlock, interface);
}

std::string CapturePacket(records::Bytes datagram, std::uint64_t wall_ns, std::uint64_t lost) {
    constexpr std::uint32_t kInterface = 0;
    const std::string_view bytes(reinterpret_cast<const char*>(datagram.data()), datagram.size());
    const auto length = static_cast<std::uint32_t>(bytes.size());
    std::string packet = Raw(kInterface) + Raw(static_cast<std::uint32_t>(wall_ns >> 32)) +
                         Raw(static_cast<std::uint32_t>(wall_ns)) + Raw(length) + Raw(length) + Padded(bytes);
    if (lost > 0) packet += Option(kOptionDropped, Raw(lost)) + Option(kOptionEnd, "");
    return Block(kPacketBlock, packet);
}

}  // namespace kipcmon
