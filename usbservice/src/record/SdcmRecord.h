// Records to SDCM. The result of a mode request is a UMsgChMode.
// Generated from tools/records/records.toml by tools/records/generate.py; do not edit.
#pragma once

#include <cstddef>
#include <cstdint>

#include "record/FrameMessage.h"
#include "record/Text.h"

namespace dcm::usb {

// The scan at start began or ended. The command frame's inbox takes the same form with its own ids.
struct [[gnu::packed]] ScanRecord {
    std::uint32_t sender;  // E_SENDER; 3 between the frames
    std::uint32_t id;      // MSGID_SCAN_..., inbox: MSGID_USB_...
    std::uint32_t unused;  // the port that gates read
};
static_assert(TakesBytes<ScanRecord, 12>());
static_assert(offsetof(ScanRecord, id) == 4);
static_assert(offsetof(ScanRecord, unused) == 8);

// A phone came or went.
struct [[gnu::packed]] DeviceEventRecord {
    std::uint8_t sender;  // SENDER_COMMAND
    std::uint8_t unused[3];
    std::uint32_t id;  // MSGID_DEVICE_ATTACHED or MSGID_DEVICE_DETACHED
    std::uint32_t port;
    std::uint32_t dev_type;  // E_DEV_TYPE
    std::uint16_t vid;
    std::uint16_t pid;
    std::uint8_t usb_class;  // of the first interface
    std::uint8_t unused2[3];
    std::uint32_t speed;
    std::uint32_t aa_capa;  // E_CAPABILITY
    std::uint32_t ml_capa;  // E_CAPABILITY
    std::uint32_t cp_capa;  // E_CAPABILITY
    std::uint32_t cl_capa;  // E_CAPABILITY
    char serial[64];
    char product[64];
    char manufacturer[64];
    char devpath[128];
};
static_assert(TakesBytes<DeviceEventRecord, 364>());
static_assert(offsetof(DeviceEventRecord, unused) == 1);
static_assert(offsetof(DeviceEventRecord, id) == 4);
static_assert(offsetof(DeviceEventRecord, port) == 8);
static_assert(offsetof(DeviceEventRecord, dev_type) == 12);
static_assert(offsetof(DeviceEventRecord, vid) == 16);
static_assert(offsetof(DeviceEventRecord, pid) == 18);
static_assert(offsetof(DeviceEventRecord, usb_class) == 20);
static_assert(offsetof(DeviceEventRecord, unused2) == 21);
static_assert(offsetof(DeviceEventRecord, speed) == 24);
static_assert(offsetof(DeviceEventRecord, aa_capa) == 28);
static_assert(offsetof(DeviceEventRecord, ml_capa) == 32);
static_assert(offsetof(DeviceEventRecord, cp_capa) == 36);
static_assert(offsetof(DeviceEventRecord, cl_capa) == 40);
static_assert(offsetof(DeviceEventRecord, serial) == 44);
static_assert(offsetof(DeviceEventRecord, product) == 108);
static_assert(offsetof(DeviceEventRecord, manufacturer) == 172);
static_assert(offsetof(DeviceEventRecord, devpath) == 236);

}  // namespace dcm::usb
