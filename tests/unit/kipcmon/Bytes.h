// What the tests of kipcmon share: datagrams as the service's tap makes them, and worse ones.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "monitor/Entry.h"
#include "platform/tap.h"

namespace test {

using Octets = std::vector<unsigned char>;
using Values = std::vector<std::pair<std::string_view, std::string_view>>;

// A record of the description with these values. One that the description does not know fails the test.
inline Octets RecordOf(std::string_view name, const Values& values = {}) {
    const records::Record* record = records::Find(name);
    if (!record) {
        ADD_FAILURE() << "no record " << name;
        return {};
    }
    Octets bytes = records::Blank(*record);
    for (const auto& [name_of_field, value] : values) {
        const records::Field* field = records::FindField(*record, name_of_field);
        if (!field || !records::Set(*field, value, bytes))
            ADD_FAILURE() << name << "." << name_of_field << " cannot be " << value;
    }
    return bytes;
}

constexpr std::uint64_t kMonotonicNs = 5000000123;
constexpr std::uint64_t kWallNs = 1700000000123456789;  // 2023-11-14T22:13:20 UTC

struct Sent {
    Octets record = {};
    std::string sender = "usb";
    std::string receiver = "media";
    unsigned direction = kipc::TAP_OUT;
    unsigned outcome = kipc::TAP_DELIVERED;
    std::uint32_t lost = 0;

    kipc::TapHead Head() const {
        kipc::TapHead head{};
        head.magic = kipc::kTapMagic;
        head.version = kipc::kTapVersion;
        head.head_bytes = sizeof head;
        head.monotonic_ns = kMonotonicNs;
        head.wall_ns = kWallNs;
        head.lost = lost;
        head.length = static_cast<std::uint32_t>(record.size());
        head.direction = static_cast<std::uint8_t>(direction);
        head.outcome = static_cast<std::uint8_t>(outcome);
        std::memcpy(head.sender, sender.data(), std::min(sender.size(), sizeof head.sender));
        std::memcpy(head.receiver, receiver.data(), std::min(receiver.size(), sizeof head.receiver));
        return head;
    }

    Octets Datagram() const { return Datagram(Head()); }

    Octets Datagram(const kipc::TapHead& head) const {
        Octets bytes(sizeof head);
        std::memcpy(bytes.data(), &head, sizeof head);
        bytes.insert(bytes.end(), record.begin(), record.end());
        return bytes;
    }
};

// The bytes must outlive it.
inline kipcmon::Entry EntryOf(const Octets& datagram) {
    std::string refusal;
    return kipcmon::Entry(*kipcmon::ReadDatagram(datagram, &refusal));
}

}  // namespace test
