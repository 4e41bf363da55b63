// The three projection modes of Android phones: the same road (start, return, reset, return), other names.
#pragma once

#include <cstdint>

#include "access/UDevAccessor.h"
#include "port/UPortState.h"
#include "record/DeviceType.h"
#include "record/MessageId.h"

namespace dcm::usb {

struct UPortState::ModeRoad {
    E_MSGID result;         // of the answer to SDCM
    E_DEV_TYPE node_type;   // what GetUsbNode looks for
    E_CON_STATE changing;   // started, the phone has not returned yet
    E_CON_STATE running;    // it has
    E_CON_STATE resetting;  // left by a port reset, the phone has not returned yet
    int (UDevAccessor::*start)(std::uint16_t vid, std::uint16_t pid, std::uint8_t port);
    int (*reset)(UDevAccessor& accessor, std::uint16_t vid, std::uint16_t pid, std::uint8_t port);
};

inline constexpr UPortState::ModeRoad UPortState::kAndroidAuto = {
    MSGID_RESULT_AA_MODE,
    DEV_TYPE_PHONE,
    STATE_AA_CHANGING,
    STATE_AA,
    STATE_AA_RESETTING,
    &UDevAccessor::StartAOAP,
    [](UDevAccessor& accessor, std::uint16_t vid, std::uint16_t pid, std::uint8_t port) {
        return accessor.StartAAPortReset(vid, pid, port);
    },
};

inline constexpr UPortState::ModeRoad UPortState::kCarLife = {
    MSGID_RESULT_ACL_MODE,
    DEV_TYPE_PHONE,
    STATE_CL_CHANGING,
    STATE_CL,
    STATE_CL_RESETTING,
    &UDevAccessor::StartCarLifeAOAP,
    [](UDevAccessor& accessor, std::uint16_t vid, std::uint16_t pid, std::uint8_t port) {
        return accessor.StartCLPortReset(vid, pid, port);
    },
};

inline constexpr UPortState::ModeRoad UPortState::kMirrorLink = {
    MSGID_RESULT_ML_MODE,
    DEV_TYPE_STORAGE,
    STATE_ML_CHANGING,
    STATE_ML,
    STATE_ML_RESETTING,
    &UDevAccessor::StartMirrorLink,
    [](UDevAccessor& accessor, std::uint16_t, std::uint16_t, std::uint8_t port) {
        return accessor.StartMLPortReset(port);
    },
};

}  // namespace dcm::usb
