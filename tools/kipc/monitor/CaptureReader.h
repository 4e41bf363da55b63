// The packets of a pcapng file, one after the other: of files that kipcmon wrote, and of those that
// Wireshark's tools made of them. The file is foreign: what does not add up ends the reading.
#pragma once

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include "records/Records.h"

namespace kipcmon {

struct CapturedPacket {
    std::vector<unsigned char> bytes = {};
    std::uint64_t lost = 0;  // records missed before it
};

enum E_CAPTURE {
    CAPTURE_PACKET,  // there is one
    CAPTURE_END,     // the file ends where a block ended
    CAPTURE_BROKEN   // what() says why
};

class CaptureReader {
public:
    explicit CaptureReader(std::istream* file) : m_file(file) {}

    E_CAPTURE Next(CapturedPacket* packet);
    const std::string& what() const { return m_what; }

private:
    bool AtEnd();
    bool ReadBlock();
    bool OpenSection();
    bool OpenInterface();
    bool TakePacket(CapturedPacket* packet);
    bool Read(std::size_t length);
    bool Breaks(const std::string& what);

    std::istream* m_file;
    bool m_in_section = false;
    std::uint32_t m_type = 0;
    std::vector<unsigned char> m_body = {};        // of the block, without type and lengths
    std::vector<std::uint16_t> m_interfaces = {};  // link type of each
    std::string m_what;
};

}  // namespace kipcmon
