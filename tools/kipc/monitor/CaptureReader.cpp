#include "monitor/CaptureReader.h"

#include <cstring>
#include <optional>

#include "monitor/CaptureWriter.h"
#include "monitor/Pcapng.h"

namespace kipcmon {
namespace {

constexpr std::uint32_t kBlockFrame = 12;            // type, and the length before and behind the body
constexpr std::uint32_t kMostBlockBytes = 16 << 20;  // the largest that the format's own tools take
constexpr std::size_t kMostInterfaces = 1024;        // a merged file has some; more are nonsense

template <typename Number>
bool Take(records::Bytes* rest, Number* number) {
    if (rest->size() < sizeof *number) return false;
    std::memcpy(number, rest->data(), sizeof *number);
    *rest = rest->subspan(sizeof *number);
    return true;
}

// The count in the option of dropped packets; 0 without one. Empty: the options do not add up.
std::optional<std::uint64_t> DroppedIn(records::Bytes options) {
    std::uint64_t dropped = 0;
    while (!options.empty()) {
        std::uint16_t code = 0;
        std::uint16_t length = 0;
        if (!Take(&options, &code) || !Take(&options, &length)) return std::nullopt;
        if (code == kOptionEnd) return dropped;
        if (PaddedTo4(length) > options.size()) return std::nullopt;
        records::Bytes value = options.first(length);
        if (code == kOptionDropped && !Take(&value, &dropped)) return std::nullopt;
        options = options.subspan(PaddedTo4(length));
    }
    return dropped;
}

}  // namespace

// False, for a reader that stops.
bool CaptureReader::Breaks(const std::string& what) {
    m_what = what;
    return false;
}

E_CAPTURE CaptureReader::Next(CapturedPacket* packet) {
    while (!AtEnd()) {
        if (!ReadBlock()) return CAPTURE_BROKEN;
        if (m_type == kSectionBlock && !OpenSection()) return CAPTURE_BROKEN;
        if (m_type == kInterfaceBlock && !OpenInterface()) return CAPTURE_BROKEN;
        if (m_type == kPacketBlock) return TakePacket(packet) ? CAPTURE_PACKET : CAPTURE_BROKEN;
        // Any other kind is to be passed over: names, statistics, comments.
    }
    if (m_in_section) return CAPTURE_END;
    m_what = "it is empty";
    return CAPTURE_BROKEN;
}

bool CaptureReader::AtEnd() {
    return m_file->peek() == std::istream::traits_type::eof();
}

// Behind what m_body holds.
bool CaptureReader::Read(std::size_t length) {
    const std::size_t before = m_body.size();
    m_body.resize(before + length);
    m_file->read(reinterpret_cast<char*>(m_body.data() + before), static_cast<std::streamsize>(length));
    return static_cast<std::size_t>(m_file->gcount()) == length;
}

bool CaptureReader::ReadBlock() {
    const std::string cut = m_in_section ? "it ends within a block" : "it is no pcapng file";
    std::uint32_t length = 0;
    m_body.clear();
    if (!Read(sizeof m_type + sizeof length)) return Breaks(cut);
    records::Bytes head = m_body;
    Take(&head, &m_type);
    Take(&head, &length);
    m_body.clear();
    if (m_type != kSectionBlock && !m_in_section) return Breaks(cut);
    if (m_type == kSectionBlock) {
        // Looked at first: the length is in its order too.
        std::uint32_t order = 0;
        if (!Read(sizeof order)) return Breaks(cut);
        std::memcpy(&order, m_body.data(), sizeof order);
        if (order == kOtherByteOrder) return Breaks("it is from a machine of the other byte order");
        if (order != kByteOrder) return Breaks("it is no pcapng file");
    }
    if (length < kBlockFrame + m_body.size() || length > kMostBlockBytes || length % 4 != 0)
        return Breaks("a block of " + std::to_string(length) + " bytes");
    std::uint32_t again = 0;
    if (!Read(length - kBlockFrame - m_body.size() + sizeof again)) return Breaks(cut);
    std::memcpy(&again, m_body.data() + m_body.size() - sizeof again, sizeof again);
    m_body.resize(m_body.size() - sizeof again);
    if (again != length)
        return Breaks("a block of " + std::to_string(length) + " bytes that ends as one of " +
                      std::to_string(again));
    return true;
}

bool CaptureReader::OpenSection() {
    records::Bytes rest = m_body;
    std::uint32_t order = 0;
    std::uint16_t major = 0;
    if (!Take(&rest, &order) || !Take(&rest, &major)) return Breaks("a section without a version");
    if (major != kMajorVersion) return Breaks("it is pcapng of version " + std::to_string(major));
    m_in_section = true;
    m_interfaces.clear();
    return true;
}

bool CaptureReader::OpenInterface() {
    records::Bytes rest = m_body;
    std::uint16_t link_type = 0;
    if (!Take(&rest, &link_type)) return Breaks("an interface without a link type");
    if (m_interfaces.size() == kMostInterfaces) return Breaks("too many interfaces");
    m_interfaces.push_back(link_type);
    return true;
}

bool CaptureReader::TakePacket(CapturedPacket* packet) {
    records::Bytes rest = m_body;
    std::uint32_t interface = 0;
    std::uint32_t time_high = 0;
    std::uint32_t time_low = 0;
    std::uint32_t length = 0;
    std::uint32_t whole_length = 0;
    if (!Take(&rest, &interface) || !Take(&rest, &time_high) || !Take(&rest, &time_low) ||
        !Take(&rest, &length) || !Take(&rest, &whole_length))
        return Breaks("a packet without a head");
    if (interface >= m_interfaces.size()) return Breaks("a packet of an interface that is not there");
    if (m_interfaces[interface] != kLinkTypeUser0)
        return Breaks("it holds packets of link type " + std::to_string(m_interfaces[interface]) +
                      ": the tap's are " + std::to_string(kLinkTypeUser0));
    if (length > rest.size() || PaddedTo4(length) > rest.size())
        return Breaks("a packet that is longer than its block");
    const std::optional<std::uint64_t> dropped = DroppedIn(rest.subspan(PaddedTo4(length)));
    if (!dropped) return Breaks("options that do not fit their block");
    packet->bytes.assign(rest.begin(), rest.begin() + length);
    packet->lost = *dropped;
    return true;
}

}  // namespace kipcmon
