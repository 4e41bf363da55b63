// A file that says it is a capture: it is read to its end or refused with a reason, and no packet is larger
// than the file.
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "monitor/CaptureReader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
    std::istringstream file(std::string(reinterpret_cast<const char*>(input), size));
    kipcmon::CaptureReader reader(&file);
    kipcmon::CapturedPacket packet;
    std::size_t bytes = 0;
    kipcmon::E_CAPTURE found = kipcmon::CAPTURE_PACKET;
    while ((found = reader.Next(&packet)) == kipcmon::CAPTURE_PACKET)
        bytes += packet.bytes.size();
    if (bytes > size) std::abort();
    if (reader.what().empty() != (found == kipcmon::CAPTURE_END)) std::abort();
    return 0;
}
