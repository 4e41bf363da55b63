// What a USB device is, as records name it.
// Generated from tools/records/records.toml by tools/records/generate.py; do not edit.
#pragma once

#include <cstdint>

namespace dcm::usb {

enum E_DEV_TYPE : std::uint32_t {
    DEV_TYPE_NONE = 0,  // nothing special, white-listed devices included
    DEV_TYPE_UNSUPPORTED = 1,
    DEV_TYPE_HUB = 2,
    DEV_TYPE_EXT_CDROM = 3,
    DEV_TYPE_SD = 4,
    DEV_TYPE_STORAGE = 5,
    DEV_TYPE_APPLE = 6,
    DEV_TYPE_RESERVED_7 = 7,  // never given to a device
    DEV_TYPE_APPLE_SHUTTLE = 8,
    DEV_TYPE_PHONE = 9,
    DEV_TYPE_MTP = 10,
    DEV_TYPE_RESERVED_11 = 11,  // never given to a device
    DEV_TYPE_INPUT = 12,
    DEV_TYPE_ANY = 13  // in a search: any but hub; in a media record: the node's own
};

}  // namespace dcm::usb
