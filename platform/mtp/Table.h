// The rows that the generator makes from libmtp's list.
#pragma once

#include <cstddef>
#include <cstdint>

namespace mtp {

struct Row {
    std::uint16_t vendor_id;
    std::uint16_t product_id;
    const char* vendor;   // never null
    const char* product;  // never null
    std::uint32_t flags;  // libmtp's device flags, unchanged
};

extern const Row kRows[];  // ascending by vendor, then product; each pair once
extern const std::size_t kRowCount;

}  // namespace mtp
