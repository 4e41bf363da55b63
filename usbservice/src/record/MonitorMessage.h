// Requests to the monitor frame that carry more than the head. Ids 37 and 38 are a UMsgNode.
#pragma once

#include <cstddef>
#include <cstdint>

#include "record/FrameMessage.h"
#include "record/MediaPacket.h"

namespace dcm::usb {

struct [[gnu::packed]] UMsgMountError {  // ids 31 and 32
    UMsgHeader head;
    st_storage_pkt packet;
};
static_assert(TakesBytes<UMsgMountError, 148>());
static_assert(offsetof(UMsgMountError, packet) == 12);

struct [[gnu::packed]] UMsgOverCurrent {  // ids 33 and 34
    std::uint8_t sender;
    std::uint8_t unused[3];
    std::uint32_t id;
    std::uint8_t port;
    char devpath[128];
    std::uint8_t unused2[3];
};
static_assert(TakesBytes<UMsgOverCurrent, 140>());
static_assert(offsetof(UMsgOverCurrent, id) == 4);
static_assert(offsetof(UMsgOverCurrent, port) == 8);
static_assert(offsetof(UMsgOverCurrent, devpath) == 9);

}  // namespace dcm::usb
