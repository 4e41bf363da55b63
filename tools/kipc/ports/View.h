// What a snapshot of the service says.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/status.h"
#include "record/StatusRecord.h"

namespace ports {

struct View {
    status::StartRecord start{};
    std::uint64_t state = 0;  // E_SERVICE_STATE
    std::uint64_t uevents = 0;
    std::uint64_t nodes = 0;
    std::uint64_t refused = 0;  // rows that the service could not show
    std::vector<dcm::usb::PortStatus> ports;
    std::vector<dcm::usb::DeviceStatus> devices;
    std::vector<dcm::usb::MountStatus> mounts;
    std::optional<dcm::usb::SettingsStatus> settings;
    std::vector<status::ReceiverRecord> receivers;
    std::vector<status::QueueRecord> queues;
};

// The datagrams of one answer. Empty when they are no whole snapshot, or one of another version; then `error`
// says why. Records of unknown kinds are passed over.
std::optional<View> Read(const std::vector<std::string>& answer, std::string* error);

// A text of a record: up to its terminator or the end of its field, bytes as they are.
template <std::size_t size>
std::string TextOf(const char (&field)[size]) {
    std::string text(field, size);
    return text.substr(0, text.find('\0'));
}

std::string StateWord(std::uint64_t state);          // "starting", "scanning", "running"
std::string DeviceTypeWord(std::uint32_t dev_type);  // "storage"; else the number
std::string AdaptionWord(std::uint32_t adaption);    // "unknown", "active", "inactive"; else the number

}  // namespace ports
