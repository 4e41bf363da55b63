// Texts in records: fixed fields, always terminated, the rest zero.
#pragma once

#include <cstddef>
#include <cstring>

namespace dcm::usb {

// Fills the field: at most its size minus one character of `text`, then zeros. A null text leaves only zeros.
// The text may be a field of a foreign record and lack its terminator when `limit` bounds it.
template <std::size_t size>
void CopyText(char (&field)[size], const char* text, std::size_t limit = size) {
    std::memset(field, 0, size);
    if (!text) return;
    const std::size_t most = limit < size - 1 ? limit : size - 1;
    std::memcpy(field, text, strnlen(text, most));
}

// True when the record can be copied byte by byte and takes exactly so many bytes.
template <typename Record, std::size_t bytes>
constexpr bool TakesBytes() {
    return __is_trivially_copyable(Record) && sizeof(Record) == bytes;
}

}  // namespace dcm::usb
