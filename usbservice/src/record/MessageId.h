// Numbers that name a message of the service's queues.
// Generated from tools/records/records.toml by tools/records/generate.py; do not edit.
#pragma once

#include <cstdint>

namespace dcm {

enum E_MSGID : std::uint32_t {
    // towards SDCM
    MSGID_DEVICE_ATTACHED = 1,
    MSGID_DEVICE_DETACHED = 2,
    MSGID_SCAN_BEGIN = 3,
    MSGID_SCAN_END = 4,
    MSGID_RESULT_AA_MODE = 5,
    MSGID_RESULT_ML_MODE = 6,
    MSGID_RESULT_CP_MODE = 7,
    MSGID_RESULT_ACL_MODE = 8,
    MSGID_RESULT_ICL_MODE = 9,
    MSGID_RESULT_RESET_MODE = 10,

    // to the command frame, from SDCM
    MSGID_REQ_AA_MODE = 12,
    MSGID_REQ_ML_MODE = 13,
    MSGID_REQ_CP_MODE = 14,
    MSGID_REQ_ACL_MODE = 15,
    MSGID_REQ_ICL_MODE = 16,
    MSGID_REQ_RESET_MODE = 17,
    MSGID_SEARCH = 18,

    // to the command frame, from device nodes and the event frame
    MSGID_USB_ADD = 20,
    MSGID_USB_REMOVE = 21,
    MSGID_HID_ADD = 22,
    MSGID_HID_REMOVE = 23,
    MSGID_TTY_ADD = 24,
    MSGID_TTY_REMOVE = 25,
    MSGID_TTY_CHANGE = 26,
    MSGID_USB_SCAN_BEGIN = 27,
    MSGID_USB_SCAN_END = 28,
    MSGID_REMOVE_USB = 29,
    MSGID_RESET_HUB = 30,

    // to the monitor frame: each item is armed by the first and cancelled by the second
    MSGID_MOUNT_ERROR_ADD = 31,
    MSGID_MOUNT_ERROR_DEL = 32,
    MSGID_OVER_CURRENT_ADD = 33,
    MSGID_OVER_CURRENT_DEL = 34,
    MSGID_VOLTAGE_ADD = 35,
    MSGID_VOLTAGE_DEL = 36,
    MSGID_CUTTING_ADD = 37,
    MSGID_CUTTING_DEL = 38,
    MSGID_CH_TIMEOUT_ADD = 39,
    MSGID_CH_TIMEOUT_DEL = 40,
    MSGID_CARPLAY_TIMEOUT_ADD = 41,
    MSGID_CARPLAY_TIMEOUT_DEL = 42,
    MSGID_CARPLAY_CAPA_ADD = 43,
    MSGID_CARPLAY_CAPA_DEL = 44,

    // to the command frame, from supervision items
    MSGID_CH_TIMEOUT = 45,
    MSGID_CARPLAY_TIMEOUT = 46,
    MSGID_CARPLAY_CAPA = 47
};

}  // namespace dcm
