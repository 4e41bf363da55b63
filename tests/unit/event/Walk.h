// What UNetLinkData::ParseData promises, said in the plainest way, to compare it with.
#pragma once

#include <array>
#include <cstring>

#include "event/UNetLinkData.h"

namespace test {

using Values = std::array<const char*, dcm::usb::kUeventKeys>;

// The record has no more state than its values, so that they can be looked at without asking a getter.
static_assert(sizeof(dcm::usb::UNetLinkData) == sizeof(void*) + sizeof(Values));

inline Values ValuesOf(const dcm::usb::UNetLinkData& data) {
    Values values;
    std::memcpy(&values, reinterpret_cast<const char*>(&data) + sizeof(void*), sizeof values);
    return values;
}

// Compares every key at every place.
inline Values WalkByteByByte(const char* buf, int len) {
    Values values = {};
    int at = 0;
    do {
        if (buf[at] == '\0') continue;
        for (int key = 0; key < dcm::usb::kUeventKeys; ++key) {
            const char* text = dcm::usb::UEventData::kStringID[key];
            const std::size_t length = std::strlen(text);
            if (buf[at] == *text && std::strncmp(buf + at, text, length) == 0)
                values[static_cast<std::size_t>(key)] = buf + at + length;
        }
    } while (++at < len);
    return values;
}

}  // namespace test
