// Which port of the head unit a device hangs on, and where the board's host controller is.
#pragma once

#include <cstdint>

#include "misc/Relaxed.h"

namespace dcm::usb {

// One in every node. Event frame's thread; the number may be read from any thread.
// A port number holds the head unit's own port in the units digit, and the port of a further hub plugged into
// it in the tens digit (32: port 3 of a hub on port 2). 0 is unknown.
class UPort {
public:
    UPort() = default;
    virtual ~UPort() = default;

    // What the internal hub is, for the whole process. Written by the event frame, read by all.
    static Relaxed<std::uint8_t> m_hub_max_port;  // 0 unknown, 1 single port, 2 the vehicle's two-port hub
    static Relaxed<std::uint8_t> m_max_port;      // ports served
    static Relaxed<std::uint32_t> m_max_current;  // current class of the ports: 1, or 0 on a 2.1 A hub
    static Relaxed<std::uint32_t> m_board_type;   // 0 not read yet

    static const char* const kBoardUsb1DevPath;  // host controller on board type 1
    static const char* const kBoardUsb2DevPath;  // host controller on all others

    // Port number of a device path below root bus `topport` (1 to 4); 0 when there is none.
    std::uint8_t CalcUsbPort(std::uint8_t topport, const char* devpath);

    // Computes and keeps the port number; leaves it as it was when the path tells nothing.
    void UpdatePort(const char* devpath);

    std::uint8_t GetPort() const { return m_port; }

    // Device path of this board's host controller. Any thread: the board is read once per process.
    static const char* GetBoardHostPath();

private:
    Relaxed<std::uint8_t> m_port{0};
};

}  // namespace dcm::usb
