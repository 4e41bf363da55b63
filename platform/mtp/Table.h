// The rows that the generator makes from libmtp's list. Without pointers, which the start of the process
// would have to set, in pages of its own.
#pragma once

#include <cstddef>
#include <cstdint>

namespace mtp {

struct Row {
    std::uint16_t vendor_id;
    std::uint16_t product_id;
    std::uint32_t vendor;   // where in kTexts its text begins; an empty one for none
    std::uint32_t product;  // the same
    std::uint32_t flags;    // libmtp's device flags, unchanged
};

extern const Row kRows[];  // ascending by vendor, then product; each pair once
extern const std::size_t kRowCount;
extern const char kTexts[];  // each ends with its NUL

}  // namespace mtp
