// Codes of the records about phones and projection modes.
// Generated from tools/records/records.toml by tools/records/generate.py; do not edit.
#pragma once

#include <cstdint>

namespace dcm::usb {

// What a phone can do, one per projection mode.
enum E_CAPABILITY : std::uint32_t {
    CAPA_UNKNOWN = 0,
    CAPA_SUPPORTED = 1,
    CAPA_NOT_SUPPORTED = 2,
    CAPA_ACCESSORY = 3  // it is already in accessory mode
};

// Answer to a mode request.
enum E_RESULT : std::uint32_t { RESULT_OK = 0, RESULT_FAILED = 1 };

}  // namespace dcm::usb
