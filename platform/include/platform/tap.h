// What a listener on `<root>/tap` reads: each record that the process sent or received, with a head of its
// own.
//
// The service connects to the SOCK_SEQPACKET socket `<root>/tap` when it has a record to show and somebody
// listens there (at the first record, and at most ten times a second while nobody does). One datagram is one
// TapHead and the record's bytes behind it. Numbers are in the machine's byte order. A listener that reads
// too slowly loses records, and sees in `lost` how many.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kipc {

inline constexpr std::uint32_t kTapMagic = 0x5041544B;  // "KTAP" in memory
inline constexpr std::uint16_t kTapVersion = 1;         // a reader refuses others

enum E_TAP_DIRECTION : std::uint8_t {
    TAP_IN = 1,  // another process to this one
    TAP_OUT = 2  // this process to another one
};

enum E_TAP_OUTCOME : std::uint8_t {
    TAP_DELIVERED = 0,    // handed to the receiver's socket, or put into this process's queue
    TAP_NO_RECEIVER = 1,  // nobody listens there, or it died: the record is lost
    TAP_FULL = 2          // the receiver does not read: the record is lost
};

struct [[gnu::packed]] TapHead {
    std::uint32_t magic;         // kTapMagic
    std::uint16_t version;       // kTapVersion
    std::uint16_t head_bytes;    // where the record begins
    std::uint64_t monotonic_ns;  // when it was sent or received: CLOCK_MONOTONIC
    std::uint64_t wall_ns;       // the same moment in CLOCK_REALTIME
    std::uint64_t mask;          // in: the source value; out: the receiver's bit, 0 for one without (sdcm)
    std::uint32_t lost;          // records that this tap missed since the one before
    std::uint32_t length;        // of the record
    std::uint8_t direction;      // E_TAP_DIRECTION
    std::uint8_t outcome;        // E_TAP_OUTCOME
    std::uint8_t unused[6];      // zero
    char sender[24];             // "usb" or "media", ...; terminated
    char receiver[24];           // the same
};
static_assert(sizeof(TapHead) == 96);
static_assert(offsetof(TapHead, monotonic_ns) == 8);
static_assert(offsetof(TapHead, mask) == 24);
static_assert(offsetof(TapHead, length) == 36);
static_assert(offsetof(TapHead, direction) == 40);
static_assert(offsetof(TapHead, sender) == 48);
static_assert(offsetof(TapHead, receiver) == 72);

}  // namespace kipc
