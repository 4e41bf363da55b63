// What other processes of the head unit send to the service.
// Generated from tools/records/records.toml by tools/records/generate.py; do not edit.
#pragma once

#include <cstddef>
#include <cstdint>

#include "record/Process.h"
#include "record/Text.h"

namespace dcm::usb {

struct [[gnu::packed]] MediaCommand {
    std::uint32_t unused;
    std::uint32_t cmd;  // E_CMD
    std::uint32_t unused2;
    std::uint8_t dev_type;  // E_DEV_TYPE, only logged
    std::uint8_t unused3[3];
    std::uint8_t port;  // only logged: both ports are searched
    std::uint8_t unused4[3];
};
static_assert(TakesBytes<MediaCommand, 20>());
static_assert(offsetof(MediaCommand, cmd) == 4);
static_assert(offsetof(MediaCommand, unused2) == 8);
static_assert(offsetof(MediaCommand, dev_type) == 12);
static_assert(offsetof(MediaCommand, unused3) == 13);
static_assert(offsetof(MediaCommand, port) == 16);
static_assert(offsetof(MediaCommand, unused4) == 17);

struct [[gnu::packed]] DiagRequest {
    std::uint8_t command;      // 0x83
    std::uint8_t sub_command;  // 0x60
    std::uint8_t service;      // 0x22 data by identifier, 0x31 routine
    std::uint8_t rdid[2];      // identifier, high byte first
    std::uint8_t data[4];
};
static_assert(TakesBytes<DiagRequest, 9>());
static_assert(offsetof(DiagRequest, sub_command) == 1);
static_assert(offsetof(DiagRequest, service) == 2);
static_assert(offsetof(DiagRequest, rdid) == 3);
static_assert(offsetof(DiagRequest, data) == 5);

struct [[gnu::packed]] PowerNotification {
    std::uint8_t command;      // 0x83
    std::uint8_t sub_command;  // 0x91
    std::uint8_t kind;         // 1 power states, 3 terminal states
    std::uint8_t value[4];
};
static_assert(TakesBytes<PowerNotification, 7>());
static_assert(offsetof(PowerNotification, sub_command) == 1);
static_assert(offsetof(PowerNotification, kind) == 2);
static_assert(offsetof(PowerNotification, value) == 3);

struct [[gnu::packed]] TestCommand {
    std::uint8_t head[3];        // 02 31 02
    std::uint8_t extra_command;  // 8: mount check
    std::uint8_t port;           // 0 first port, 1 second port
};
static_assert(TakesBytes<TestCommand, 5>());
static_assert(offsetof(TestCommand, extra_command) == 3);
static_assert(offsetof(TestCommand, port) == 4);

}  // namespace dcm::usb
