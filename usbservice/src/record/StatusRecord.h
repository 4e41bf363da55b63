// What the service shows of itself on the platform's status socket: copies for tools, which nothing else
// reads. Little-endian, as they lie in memory; texts are terminated. Whoever changes a layout raises
// kStatusVersion.
#pragma once

#include <cstddef>
#include <cstdint>

#include "record/FrameMessage.h"
#include "record/Text.h"

namespace dcm::usb {

inline constexpr std::uint16_t kStatusVersion = 1;  // a reader refuses others

// Kinds of rows, behind the platform's own (status::KIND_OF_OWNERS).
enum E_STATUS_KIND : std::uint32_t {
    STATUS_PORT = 256,     // one for each port with a state machine
    STATUS_DEVICE = 257,   // one for each USB device of the node list
    STATUS_MOUNT = 258,    // one for each mounted volume
    STATUS_SETTINGS = 259  // one
};

// Names of numbers.
inline constexpr const char* kStatusVersionName = "version";  // kStatusVersion
inline constexpr const char* kStatusState = "state";          // E_SERVICE_STATE
inline constexpr const char* kStatusUevents = "uevents";      // received since start
inline constexpr const char* kStatusNodes = "nodes";          // in the list

enum E_SERVICE_STATE : std::uint32_t {
    SERVICE_STARTING = 0,  // no socket for the kernel's events yet
    SERVICE_SCANNING = 1,  // what was plugged in before
    SERVICE_RUNNING = 2
};

struct [[gnu::packed]] DeviceStatus {
    std::uint32_t dev_type;  // E_DEV_TYPE
    std::uint16_t vid;
    std::uint16_t pid;
    std::uint8_t port;  // full port number
    std::uint8_t unused[3];
    char serial[64];
    char product[64];
    char manufacturer[64];
    char devpath[128];
};
static_assert(TakesBytes<DeviceStatus, 332>());
static_assert(offsetof(DeviceStatus, vid) == 4);
static_assert(offsetof(DeviceStatus, port) == 8);
static_assert(offsetof(DeviceStatus, serial) == 12);
static_assert(offsetof(DeviceStatus, devpath) == 204);

inline DeviceStatus StatusOf(const UMsgNode& device) {
    DeviceStatus status{};
    status.dev_type = device.dev_type;
    status.vid = device.vid;
    status.pid = device.pid;
    status.port = device.port;
    CopyText(status.serial, device.serial);
    CopyText(status.product, device.product);
    CopyText(status.manufacturer, device.manufacturer);
    CopyText(status.devpath, device.devpath);
    return status;
}

struct [[gnu::packed]] PortStatus {
    std::uint64_t since_ns;  // when the port came into this state: CLOCK_MONOTONIC
    std::uint32_t state;     // E_CON_STATE
    std::uint8_t port;       // full port number
    std::uint8_t unused[3];
    char state_name[24];
    DeviceStatus device;  // what is remembered of it; all zero while the state is STATE_DETACH
};
static_assert(TakesBytes<PortStatus, 372>());
static_assert(offsetof(PortStatus, port) == 12);
static_assert(offsetof(PortStatus, state_name) == 16);
static_assert(offsetof(PortStatus, device) == 40);

struct [[gnu::packed]] MountStatus {
    std::uint8_t port;       // units digit, as in the mount path
    std::uint8_t partition;  // slot of the volume
    std::uint8_t unused[2];
    char fs_type[32];
    char mount_path[64];
    char label[64];
    char uuid[64];
    char devpath[256];
};
static_assert(TakesBytes<MountStatus, 484>());
static_assert(offsetof(MountStatus, mount_path) == 36);
static_assert(offsetof(MountStatus, devpath) == 228);

inline constexpr std::size_t kStatusAdaptions = 4;  // ports 1 to 4
inline constexpr std::size_t kStatusUnitPorts = 2;

struct [[gnu::packed]] SettingsStatus {
    std::uint32_t coding;                      // E_USB_CODING
    std::uint32_t adaption[kStatusAdaptions];  // E_USB_ADAPTION
    std::uint32_t customer_hub_support;
    std::uint32_t force_enable[kStatusUnitPorts];
    std::uint32_t device_mode[kStatusUnitPorts];
};
static_assert(TakesBytes<SettingsStatus, 40>());
static_assert(offsetof(SettingsStatus, customer_hub_support) == 20);
static_assert(offsetof(SettingsStatus, device_mode) == 32);

}  // namespace dcm::usb
