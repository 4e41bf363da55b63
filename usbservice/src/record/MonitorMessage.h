// Requests to the monitor frame that carry more than the head. Ids 37 and 38 are a UMsgNode.
// Generated from tools/records/records.toml by tools/records/generate.py; do not edit.
#pragma once

#include <cstddef>
#include <cstdint>

#include "record/FrameMessage.h"
#include "record/MediaPacket.h"
#include "record/Text.h"

namespace dcm::usb {

// Ids 31 and 32.
struct [[gnu::packed]] UMsgMountError {
    UMsgHeader head;
    st_storage_pkt packet;
};
static_assert(TakesBytes<UMsgMountError, 148>());
static_assert(offsetof(UMsgMountError, packet) == 12);

// Ids 33 and 34.
struct [[gnu::packed]] UMsgOverCurrent {
    std::uint8_t sender;  // E_SENDER
    std::uint8_t unused[3];
    std::uint32_t id;  // MSGID_OVER_CURRENT_ADD or MSGID_OVER_CURRENT_DEL
    std::uint8_t port;
    char devpath[128];
    std::uint8_t unused2[3];
};
static_assert(TakesBytes<UMsgOverCurrent, 140>());
static_assert(offsetof(UMsgOverCurrent, unused) == 1);
static_assert(offsetof(UMsgOverCurrent, id) == 4);
static_assert(offsetof(UMsgOverCurrent, port) == 8);
static_assert(offsetof(UMsgOverCurrent, devpath) == 9);
static_assert(offsetof(UMsgOverCurrent, unused2) == 137);

}  // namespace dcm::usb
