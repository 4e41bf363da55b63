// What other processes of the head unit send to the service.
#pragma once

#include <cstddef>
#include <cstdint>

#include "record/Text.h"

namespace dcm::usb {

// Senders, besides kSourceUsb: one bit per process, as in the destinations; 0 is the shared settings store.
inline constexpr unsigned long kSourceSettings = 0;

struct [[gnu::packed]] MediaCommand {
    std::uint32_t unused;
    std::uint32_t cmd;  // E_CMD
    std::uint32_t unused2;
    std::uint8_t dev_type;
    std::uint8_t unused3[3];
    std::uint8_t port;
    std::uint8_t unused4[3];
};
static_assert(TakesBytes<MediaCommand, 20>());
static_assert(offsetof(MediaCommand, cmd) == 4);
static_assert(offsetof(MediaCommand, dev_type) == 12);
static_assert(offsetof(MediaCommand, port) == 16);

struct [[gnu::packed]] DiagRequest {
    std::uint8_t command;      // 0x83
    std::uint8_t sub_command;  // 0x60
    std::uint8_t service;      // 0x22 data by identifier, 0x31 routine
    std::uint8_t rdid[2];      // identifier, high byte first
    std::uint8_t data[4];
};
static_assert(TakesBytes<DiagRequest, 9>());
static_assert(offsetof(DiagRequest, data) == 5);

struct [[gnu::packed]] PowerNotification {
    std::uint8_t command;      // 0x83
    std::uint8_t sub_command;  // 0x91
    std::uint8_t kind;         // 1 power states, 3 terminal states
    std::uint8_t value[4];
};
static_assert(TakesBytes<PowerNotification, 7>());
static_assert(offsetof(PowerNotification, value) == 3);

struct [[gnu::packed]] TestCommand {
    std::uint8_t head[3];        // 02 31 02
    std::uint8_t extra_command;  // 8: mount check
    std::uint8_t port;           // 0 first port, 1 second port
};
static_assert(TakesBytes<TestCommand, 5>());
static_assert(offsetof(TestCommand, extra_command) == 3);

}  // namespace dcm::usb
