// Packets to vehicle diagnosis and to the test interface.
// Generated from tools/records/records.toml by tools/records/generate.py; do not edit.
#pragma once

#include <cstddef>
#include <cstdint>

#include "record/Text.h"

namespace dcm::usb {

inline constexpr std::uint8_t kDiagService = 0x22;  // data by identifier
inline constexpr std::uint8_t kDiagFault = 0x19;    // fault
inline constexpr std::uint8_t kDiagRoutine = 0x31;  // routine

// The head of every diagnosis packet.
struct [[gnu::packed]] DiagHead {
    std::uint8_t command = 0x01;
    std::uint8_t sub_command = 0x60;
    std::uint8_t service;  // kDiagService, kDiagFault, kDiagRoutine
    std::uint8_t rdid[2];  // record identifier, high byte first
};
static_assert(TakesBytes<DiagHead, 5>());
static_assert(offsetof(DiagHead, sub_command) == 1);
static_assert(offsetof(DiagHead, service) == 2);
static_assert(offsetof(DiagHead, rdid) == 3);

struct [[gnu::packed]] DiagByte {
    DiagHead head;
    std::uint8_t value;
};
static_assert(TakesBytes<DiagByte, 6>());
static_assert(offsetof(DiagByte, value) == 5);

struct [[gnu::packed]] DiagErrorCode {
    DiagHead head;
    std::uint8_t value[3];
};
static_assert(TakesBytes<DiagErrorCode, 8>());
static_assert(offsetof(DiagErrorCode, value) == 5);

// State of the device on a port; every byte is 0xFF unless set.
struct [[gnu::packed]] StDiagUsbDeviceStateData {
    std::uint8_t power;  // 1: the device's power level is "on"
    std::uint8_t speed;
    std::uint8_t usb_class;  // of the first interface
    std::uint8_t sub_class;
    std::uint8_t protocol;
    std::uint8_t unused;  // left out of the packet
    std::uint16_t vid;
    std::uint16_t pid;
    std::uint8_t connected;  // 1 attached, 0 detached
    std::uint8_t unused2;    // 0xFF
};
static_assert(TakesBytes<StDiagUsbDeviceStateData, 12>());
static_assert(offsetof(StDiagUsbDeviceStateData, speed) == 1);
static_assert(offsetof(StDiagUsbDeviceStateData, usb_class) == 2);
static_assert(offsetof(StDiagUsbDeviceStateData, sub_class) == 3);
static_assert(offsetof(StDiagUsbDeviceStateData, protocol) == 4);
static_assert(offsetof(StDiagUsbDeviceStateData, unused) == 5);
static_assert(offsetof(StDiagUsbDeviceStateData, vid) == 6);
static_assert(offsetof(StDiagUsbDeviceStateData, pid) == 8);
static_assert(offsetof(StDiagUsbDeviceStateData, connected) == 10);
static_assert(offsetof(StDiagUsbDeviceStateData, unused2) == 11);

struct [[gnu::packed]] DiagDeviceState {
    DiagHead head;       // 01 60 22 18 5D
    std::uint8_t power;  // 1: the device's power level is "on"
    std::uint8_t speed;
    std::uint8_t usb_class;  // of the first interface
    std::uint8_t sub_class;
    std::uint8_t protocol;
    std::uint16_t vid;
    std::uint16_t pid;
    std::uint8_t connected;
    std::uint8_t unused;  // 0xFF
};
static_assert(TakesBytes<DiagDeviceState, 16>());
static_assert(offsetof(DiagDeviceState, power) == 5);
static_assert(offsetof(DiagDeviceState, speed) == 6);
static_assert(offsetof(DiagDeviceState, usb_class) == 7);
static_assert(offsetof(DiagDeviceState, sub_class) == 8);
static_assert(offsetof(DiagDeviceState, protocol) == 9);
static_assert(offsetof(DiagDeviceState, vid) == 10);
static_assert(offsetof(DiagDeviceState, pid) == 12);
static_assert(offsetof(DiagDeviceState, connected) == 14);
static_assert(offsetof(DiagDeviceState, unused) == 15);

// Answer to a mount check of the test interface.
struct [[gnu::packed]] MountCheckResult {
    std::uint8_t head[3];  // 82 31 01
    std::uint8_t result;   // 1 mounted, 0 not
    char mount_path[32];   // zero unless mounted
};
static_assert(TakesBytes<MountCheckResult, 36>());
static_assert(offsetof(MountCheckResult, result) == 3);
static_assert(offsetof(MountCheckResult, mount_path) == 4);

}  // namespace dcm::usb
