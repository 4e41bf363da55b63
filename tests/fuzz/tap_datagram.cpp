// One datagram of a tap, whatever it holds: what is said of it is one line that a terminal can show, its JSON
// is JSON, and what is kept of it is read back.
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "monitor/CaptureReader.h"
#include "monitor/CaptureWriter.h"
#include "monitor/Entry.h"
#include "monitor/Filter.h"

namespace {

void Check(bool holds) {
    if (!holds) std::abort();
}

void CheckLine(const std::string& line) {
    for (const char one : line) {
        const auto byte = static_cast<unsigned char>(one);
        Check(byte >= 0x20 && byte != 0x7f);
    }
}

void CheckJson(const kipcmon::Entry& entry) {
    const std::string text = kipcmon::JsonOf(entry);
    CheckLine(text);
    const auto object = nlohmann::json::parse(text);
    Check(object["hex"] == kipcmon::Hex(entry.datagram.record));
    Check(object["record"].is_null() == !entry.record);
}

void CheckKept(records::Bytes bytes, const kipcmon::Entry& entry) {
    std::istringstream file(kipcmon::CaptureHead() +
                            kipcmon::CapturePacket(bytes, entry.datagram.wall_ns, entry.lost));
    kipcmon::CaptureReader reader(&file);
    kipcmon::CapturedPacket packet;
    Check(reader.Next(&packet) == kipcmon::CAPTURE_PACKET);
    Check(std::equal(bytes.begin(), bytes.end(), packet.bytes.begin(), packet.bytes.end()));
    Check(packet.lost == entry.lost);
    Check(reader.Next(&packet) == kipcmon::CAPTURE_END);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
    const records::Bytes bytes(input, size);
    std::string refusal;
    auto datagram = kipcmon::ReadDatagram(bytes, &refusal);
    Check(datagram.has_value() == refusal.empty());
    if (!datagram) return 0;
    const kipcmon::Entry entry(std::move(*datagram));
    CheckLine(kipcmon::LineOf(entry, kipcmon::COLOUR_OFF));
    CheckJson(entry);
    CheckKept(bytes, entry);
    const kipcmon::Filter filter{.ids = {18}, .ports = {1}};
    Check(!filter.Passes(entry) || entry.record);
    return 0;
}
