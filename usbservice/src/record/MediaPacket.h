// Packets to the media service and the other listeners of USB and storage events.
// Generated from tools/records/records.toml by tools/records/generate.py; do not edit.
#pragma once

#include <cstddef>
#include <cstdint>

#include "record/FrameMessage.h"
#include "record/Process.h"
#include "record/Text.h"

namespace dcm::usb {

// What a media packet says happened; also the media player's own commands.
enum E_CMD : std::uint32_t {
    CMD_ATTACH = 2,  // plugged in; of a disk, with the number of partitions to expect
    CMD_MOUNTED = 3,
    CMD_DETACH = 5,        // gone, ejected
    CMD_ERROR = 6,         // something is wrong; the sub-command says what
    CMD_SEARCH_PHONE = 8,  // from the media player only
    CMD_VOLTAGE_SECTION = 19
};

// Of an error, what is wrong. Mount errors (2, 6, 9, 10) are not sent.
enum E_SUB_CMD : std::uint32_t {
    SUB_CMD_NONE = 0,
    SUB_CMD_UNSUPPORTED_DEVICE = 1,
    SUB_CMD_UNKNOWN_FILESYSTEM = 2,
    SUB_CMD_INVALID_FILESYSTEM = 6,
    SUB_CMD_CUSTOMER_HUB = 7,
    SUB_CMD_OVER_CURRENT = 8,
    SUB_CMD_MOUNT_FAILED = 9,
    SUB_CMD_MOUNT_BUSY = 10
};

// How the supply of the hub is.
enum E_VOLTAGE_SECTION : std::uint32_t {
    VOLTAGE_NON_CRITICAL = 1,
    VOLTAGE_CRITICAL = 2,
    VOLTAGE_NON_CRITICAL_2_1A = 3,
    VOLTAGE_INITIAL = 4
};

inline constexpr std::uint32_t kMediaPacketKind = 3;  // first word of usb and storage packets

struct [[gnu::packed]] st_usb_pkt {
    std::uint32_t kind;      // kMediaPacketKind
    std::uint32_t cmd;       // E_CMD
    std::uint32_t sub_cmd;   // E_SUB_CMD
    std::uint32_t dev_type;  // E_DEV_TYPE
    std::uint32_t port;      // units digit
    std::uint16_t vid;
    std::uint16_t pid;
    std::uint32_t support[3];  // always 0
    char serial[64];
    char product[64];
    char manufacturer[64];
    char devpath[128];
    std::uint8_t usb_class;
    std::uint8_t speed;
    std::uint8_t unused[2];
};
static_assert(TakesBytes<st_usb_pkt, 360>());
static_assert(offsetof(st_usb_pkt, cmd) == 4);
static_assert(offsetof(st_usb_pkt, sub_cmd) == 8);
static_assert(offsetof(st_usb_pkt, dev_type) == 12);
static_assert(offsetof(st_usb_pkt, port) == 16);
static_assert(offsetof(st_usb_pkt, vid) == 20);
static_assert(offsetof(st_usb_pkt, pid) == 22);
static_assert(offsetof(st_usb_pkt, support) == 24);
static_assert(offsetof(st_usb_pkt, serial) == 36);
static_assert(offsetof(st_usb_pkt, product) == 100);
static_assert(offsetof(st_usb_pkt, manufacturer) == 164);
static_assert(offsetof(st_usb_pkt, devpath) == 228);
static_assert(offsetof(st_usb_pkt, usb_class) == 356);
static_assert(offsetof(st_usb_pkt, speed) == 357);
static_assert(offsetof(st_usb_pkt, unused) == 358);

struct [[gnu::packed]] st_storage_pkt {
    std::uint32_t kind;      // kMediaPacketKind
    std::uint32_t cmd;       // E_CMD
    std::uint32_t sub_cmd;   // E_SUB_CMD
    std::uint32_t dev_type;  // DEV_TYPE_STORAGE
    std::uint32_t port;      // units digit
    std::uint8_t partition;  // slot of the volume, or how many partitions to expect
    char mount_path[32];
    char label[32];
    char uuid[32];
    char fs_type[16];
    std::uint8_t usb_class;
    std::uint8_t speed;
    std::uint8_t unused;
};
static_assert(TakesBytes<st_storage_pkt, 136>());
static_assert(offsetof(st_storage_pkt, cmd) == 4);
static_assert(offsetof(st_storage_pkt, sub_cmd) == 8);
static_assert(offsetof(st_storage_pkt, dev_type) == 12);
static_assert(offsetof(st_storage_pkt, port) == 16);
static_assert(offsetof(st_storage_pkt, partition) == 20);
static_assert(offsetof(st_storage_pkt, mount_path) == 21);
static_assert(offsetof(st_storage_pkt, label) == 53);
static_assert(offsetof(st_storage_pkt, uuid) == 85);
static_assert(offsetof(st_storage_pkt, fs_type) == 117);
static_assert(offsetof(st_storage_pkt, usb_class) == 133);
static_assert(offsetof(st_storage_pkt, speed) == 134);
static_assert(offsetof(st_storage_pkt, unused) == 135);

// To the media service.
struct [[gnu::packed]] MediaVoltagePacket {
    std::uint32_t kind;      // 0
    std::uint32_t cmd;       // CMD_VOLTAGE_SECTION
    std::uint32_t sub_cmd;   // SUB_CMD_NONE
    std::uint32_t dev_type;  // DEV_TYPE_APPLE
    std::uint32_t port;
    std::uint32_t section;  // E_VOLTAGE_SECTION
};
static_assert(TakesBytes<MediaVoltagePacket, 24>());
static_assert(offsetof(MediaVoltagePacket, cmd) == 4);
static_assert(offsetof(MediaVoltagePacket, sub_cmd) == 8);
static_assert(offsetof(MediaVoltagePacket, dev_type) == 12);
static_assert(offsetof(MediaVoltagePacket, port) == 16);
static_assert(offsetof(MediaVoltagePacket, section) == 20);

// To the voltage listener.
struct [[gnu::packed]] VoltagePacket {
    std::uint32_t kind;  // 5000
    std::uint32_t port;
    std::uint32_t section;  // E_VOLTAGE_SECTION
};
static_assert(TakesBytes<VoltagePacket, 12>());
static_assert(offsetof(VoltagePacket, port) == 4);
static_assert(offsetof(VoltagePacket, section) == 8);

}  // namespace dcm::usb
