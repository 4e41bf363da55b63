// Messages between the service's own frames, and from SDCM. Little-endian, as they lie in memory.
// Generated from tools/records/records.toml by tools/records/generate.py; do not edit.
#pragma once

#include <cstddef>
#include <cstdint>

#include "record/DeviceType.h"
#include "record/MessageId.h"
#include "record/Process.h"
#include "record/Text.h"

namespace dcm::usb {

enum E_SENDER : std::uint8_t {
    SENDER_COMMAND = 0,  // command frame or port state; SDCM
    SENDER_SEARCH = 1,   // search request that the command frame made
    SENDER_EVENT = 3,    // event frame or device node
    SENDER_ITEM = 4      // supervision item; with ids 20 and 21 a deferred detection
};

// Who asked for a search: the argument of message 18.
enum E_SEARCH_TRIGGER : std::uint8_t { SEARCH_FROM_SDCM = 0, SEARCH_FROM_MEDIA = 1 };

// The head of every message, and the whole of a short one.
struct [[gnu::packed]] UMsgHeader {
    std::uint8_t sender;     // E_SENDER
    std::uint8_t unused[3];  // receivers ignore it
    std::uint32_t id;        // E_MSGID
    std::uint8_t port;
    std::uint8_t argument;  // hub-detect flag of message 35, trigger of message 18, else 0
    std::uint8_t unused2[2];
};
static_assert(TakesBytes<UMsgHeader, 12>());
static_assert(offsetof(UMsgHeader, unused) == 1);
static_assert(offsetof(UMsgHeader, id) == 4);
static_assert(offsetof(UMsgHeader, port) == 8);
static_assert(offsetof(UMsgHeader, argument) == 9);
static_assert(offsetof(UMsgHeader, unused2) == 10);

// A device came or went: ids 20 and 21, and 37 and 38 towards the monitor frame.
struct [[gnu::packed]] UMsgNode {
    std::uint8_t sender;  // E_SENDER
    std::uint8_t unused[3];
    std::uint32_t id;   // E_MSGID
    std::uint8_t port;  // full port number; the three bytes behind it may be anything
    std::uint8_t unused2[3];
    std::uint32_t dev_type;  // E_DEV_TYPE
    std::uint16_t vid;
    std::uint16_t pid;
    std::uint8_t usb_class;  // of the first interface
    std::uint8_t unused3[3];
    std::uint32_t speed;
    char serial[64];
    char product[64];
    char manufacturer[64];
    char devpath[128];  // kernel device path below /sys
};
static_assert(TakesBytes<UMsgNode, 348>());
static_assert(offsetof(UMsgNode, unused) == 1);
static_assert(offsetof(UMsgNode, id) == 4);
static_assert(offsetof(UMsgNode, port) == 8);
static_assert(offsetof(UMsgNode, unused2) == 9);
static_assert(offsetof(UMsgNode, dev_type) == 12);
static_assert(offsetof(UMsgNode, vid) == 16);
static_assert(offsetof(UMsgNode, pid) == 18);
static_assert(offsetof(UMsgNode, usb_class) == 20);
static_assert(offsetof(UMsgNode, unused3) == 21);
static_assert(offsetof(UMsgNode, speed) == 24);
static_assert(offsetof(UMsgNode, serial) == 28);
static_assert(offsetof(UMsgNode, product) == 92);
static_assert(offsetof(UMsgNode, manufacturer) == 156);
static_assert(offsetof(UMsgNode, devpath) == 220);

// SDCM asks for a mode: ids 12 to 17. Its answer: ids 5 to 10.
struct [[gnu::packed]] UMsgChMode {
    std::uint8_t sender;  // E_SENDER
    std::uint8_t unused[3];
    std::uint32_t id;  // E_MSGID
    std::uint8_t port;
    std::uint8_t unused2;
    std::uint16_t vid;
    std::uint16_t pid;
    char serial[64];
    char devpath[128];
    char devid[32];  // SDCM's name for the device
    std::uint8_t unused3[2];
    std::uint32_t result;  // E_RESULT, in answers only
};
static_assert(TakesBytes<UMsgChMode, 244>());
static_assert(offsetof(UMsgChMode, unused) == 1);
static_assert(offsetof(UMsgChMode, id) == 4);
static_assert(offsetof(UMsgChMode, port) == 8);
static_assert(offsetof(UMsgChMode, unused2) == 9);
static_assert(offsetof(UMsgChMode, vid) == 10);
static_assert(offsetof(UMsgChMode, pid) == 12);
static_assert(offsetof(UMsgChMode, serial) == 14);
static_assert(offsetof(UMsgChMode, devpath) == 78);
static_assert(offsetof(UMsgChMode, devid) == 206);
static_assert(offsetof(UMsgChMode, unused3) == 238);
static_assert(offsetof(UMsgChMode, result) == 240);

using UMsgSearch = UMsgHeader;       // id 18
using UMsgHidNode = UMsgHeader;      // ids 22 and 23
using UMsgTtyNode = UMsgHeader;      // ids 24 to 26
using UMsgTimeout = UMsgHeader;      // ids 45 and 46
using UMsgCarplayCapa = UMsgHeader;  // id 47

}  // namespace dcm::usb
