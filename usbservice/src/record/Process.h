// The processes of the head unit, one bit each: destinations of packets, and senders of what is received.
// Generated from tools/records/records.toml by tools/records/generate.py; do not edit.
#pragma once

#include <cstdint>

namespace dcm::usb {

inline constexpr unsigned long kDestVoltage = 0x0000000000000200;        // the voltage listener
inline constexpr unsigned long kDestMedia = 0x0000000000800000;          // the media player
inline constexpr unsigned long kDestNavi = 0x0000000002000000;           // navigation
inline constexpr unsigned long kDestSpeech = 0x0000004000000000;         // speech
inline constexpr unsigned long kDestTestInterface = 0x0000040000000000;  // the test interface
inline constexpr unsigned long kDestDiagnosis = 0x0800000000000000;      // vehicle diagnosis
inline constexpr unsigned long kDestPower = 0x8000000000000000;          // power management; only sends
inline constexpr unsigned long kSourceUsb = 0x0000000000001000;          // SDCM and the service, as senders
inline constexpr unsigned long kSourceSettings = 0x0000000000000000;     // the settings store, as a sender

// Who gets an st_usb_pkt: media, speech.
inline constexpr unsigned long kDestUsbSet = 0x0000004000800000;

// Who gets an st_storage_pkt: media, navi, speech, and the processes of bits 14, 21, 35, 41, 43, 45.
inline constexpr unsigned long kDestStorageSet = 0x00002A4802A04000;

}  // namespace dcm::usb
