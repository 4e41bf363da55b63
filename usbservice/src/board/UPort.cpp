#include "board/UPort.h"

#include <cstring>
#include <mutex>

#include "misc/ULog.h"
#include "misc/UMisc.h"

namespace dcm::usb {
namespace {

constexpr std::size_t kPathMost = 2048;  // a longer path has no port
constexpr std::uint8_t kBuses = 4;
constexpr const char* kBusFolders[kBuses] = {"/usb1/", "/usb2/", "/usb3/", "/usb4/"};

enum E_BOARD_TYPE : std::uint32_t {
    BOARD_UNREAD = 0,
    BOARD_B0 = 1,
    BOARD_PRE_B1 = 2,
    BOARD_B1 = 3,
    BOARD_B = 4
};

struct Board {
    const char* id;
    const char* name;
    E_BOARD_TYPE type;
};
constexpr Board kBoards[] = {
    {"X51", "X51 B0", BOARD_B0},
    {"T51", "T51 PRE_B1", BOARD_PRE_B1},
    {"X52", "X52 B1", BOARD_B1},
    {"X53", "X53 B", BOARD_B},
};

E_BOARD_TYPE BoardOf(const char* id) {
    if (!id) {
        ULOG(LOG_INFO, "board not exist. so B0");
        return BOARD_B0;
    }
    for (const Board& board : kBoards) {
        if (!UString::IsSameString(id, board.id)) continue;
        ULOG(LOG_INFO, "%s", board.name);
        return board.type;
    }
    // Deliberate: an unknown board is called B0 and treated as the newest.
    ULOG(LOG_INFO, "%s B0", id);
    return BOARD_B;
}

// 1 to 4; 0 when the path lies below none of these buses.
std::uint8_t BusOf(const char* devpath) {
    for (std::uint8_t bus = 1; bus <= kBuses; ++bus)
        if (std::strstr(devpath, kBusFolders[bus - 1])) return bus;
    return 0;
}

// A number that stands where a port stands; what does not fit into 8 bits is cut, as everywhere with ports.
std::uint8_t PortAt(const char* text) {
    return static_cast<std::uint8_t>(UString::ConvertString2Int(text));
}

// The port in the last part of a path, the port of a further hub in the tens digit. Deliberate: in an
// interface's name the second '.' may be the one behind the colon, so "1-1.4:1.1" is 14.
std::uint8_t PortInName(const char* name, const char* match, std::size_t key_length) {
    const char* second = std::strchr(match + key_length, '.');
    const unsigned port = PortAt(match + key_length);
    const unsigned hub_port = second ? PortAt(second + 1) : 0;
    ULOG(LOG_DETAIL, "pos:%s pos2:%s pos3:%s", name, match, second ? second : "(null)");
    return static_cast<std::uint8_t>(port + 10 * hub_port);
}

std::mutex board_mutex;  // the first to ask reads the board, others wait for it

}  // namespace

Relaxed<std::uint8_t> UPort::m_hub_max_port{0};
Relaxed<std::uint8_t> UPort::m_max_port{2};
Relaxed<std::uint32_t> UPort::m_max_current{1};
Relaxed<std::uint32_t> UPort::m_board_type{BOARD_UNREAD};

const char* const UPort::kBoardUsb1DevPath = "/devices/soc/6a00000.ssusb/6a00000.dwc3/xhci-hcd.0.auto";
const char* const UPort::kBoardUsb2DevPath = "/devices/soc/7600000.hsusb/7600000.dwc3/xhci-hcd.0.auto";

std::uint8_t UPort::CalcUsbPort(std::uint8_t topport, const char* devpath) {
    if (!devpath) {
        ULOG(LOG_FAILED, "devpath is null");
        return 0;
    }
    if (topport < 1 || topport > kBuses) {
        ULOG(LOG_FAILED, "invalid topport:%d", topport);
        return 0;
    }
    const char* path = strnlen(devpath, kPathMost + 1) <= kPathMost ? devpath : "";
    const char digit = static_cast<char>('0' + topport);
    const char root[] = {digit, '-', '1', '\0'};
    const char hub[] = {digit, '-', '1', '.', '\0'};

    const char* slash = std::strrchr(path, '/');
    const char* name = slash ? slash + 1 : path;
    if (const char* match = std::strstr(name, hub)) return PortInName(name, match, sizeof hub - 1);
    if (const char* match = std::strstr(path, hub)) {
        const std::uint8_t port = PortAt(match + sizeof hub - 1);
        ULOG(LOG_INFO, "port:%d", port);
        return port;
    }
    if (std::strstr(path, root)) {
        // Deliberate: the blank at the end.
        ULOG(LOG_INFO, "topport, port:1 ");
        return 1;
    }
    ULOG(LOG_INFO, "unknown port:%d", 0);
    return 0;
}

void UPort::UpdatePort(const char* devpath) {
    const int hub_ports = m_hub_max_port.load();
    if (hub_ports == 1) {
        m_port = std::uint8_t{1};
        ULOG(LOG_INFO, "%d port hub, port: %d", hub_ports, GetPort());
        return;
    }
    if (!devpath) {
        ULOG(LOG_FAILED, "devpath is null");
        return;
    }
    const auto on_controller = [devpath] {
        return std::strstr(devpath, "xhci-hcd.1.auto") || std::strstr(devpath, "xhci-hcd.0.auto");
    };
    if (hub_ports != 2 && !on_controller()) {
        ULOG(LOG_INFO, "Not a hub : %s", devpath);
        return;
    }
    const std::uint8_t bus = BusOf(devpath);
    if (bus == 0) {
        // Deliberate: the blank at the end.
        ULOG(LOG_INFO, "%d port hub, port: %d ", hub_ports, GetPort());
        return;
    }
    m_port = CalcUsbPort(bus, devpath);
    ULOG(LOG_INFO, "usb%d, %d port hub, port: %d", bus, hub_ports, GetPort());
}

const char* UPort::GetBoardHostPath() {
    if (m_board_type == BOARD_UNREAD) {
        const std::lock_guard lock(board_mutex);
        if (m_board_type == BOARD_UNREAD) {
            char* id = UString::GetInterfaceString("/devices/soc/soc:common_gpio_default", "/board_id");
            m_board_type = BoardOf(id);
            UString::DestroyString(&id);
        }
    }
    return m_board_type == BOARD_B0 ? kBoardUsb1DevPath : kBoardUsb2DevPath;
}

}  // namespace dcm::usb
