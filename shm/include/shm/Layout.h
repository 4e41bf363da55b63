// What the shared settings store shows to other processes: bytes in segments, in files and in the request of
// the change-notification driver.
#pragma once

#include <cstddef>
#include <cstdint>

#include "shm/ssmID.h"

namespace shm {

// A record's segment and its persistent file both begin with this; native byte order.
struct RecordHead {
    std::uint32_t length;  // bytes of valid data behind it, at most the record's size
};
static_assert(sizeof(RecordHead) == 4);

// The segment "NotifyTable": for each record who is to be told of writes, an OR of platform sender bits.
inline constexpr std::size_t kNotifyMasks = ssmID::SSM_ID_MAX;
using NotifyMask = std::uint64_t;
static_assert(kNotifyMasks * sizeof(NotifyMask) == 2448);

// The argument of ioctl(0) on "/dev/css".
struct CssRequest {
    std::uint64_t unused;     // 0
    std::uint64_t receivers;  // who is told: platform sender bits
    std::uint64_t unused2;    // 0
    std::uint32_t length;     // bytes of payload at the front of the buffer
    std::uint32_t size;       // bytes of the buffer
    const char* buffer;
};
inline constexpr std::uint32_t kCssBufferMost = 27136;  // what the driver takes
static_assert(sizeof(CssRequest) == 40);
static_assert(offsetof(CssRequest, receivers) == 8);
static_assert(offsetof(CssRequest, unused2) == 16);
static_assert(offsetof(CssRequest, length) == 24);
static_assert(offsetof(CssRequest, size) == 28);
static_assert(offsetof(CssRequest, buffer) == 32);

}  // namespace shm
