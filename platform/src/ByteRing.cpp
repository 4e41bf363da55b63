#include "ByteRing.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace platform {
namespace {

constexpr std::size_t kFirstCapacity = 4096;
constexpr std::size_t kKeptCapacity =
    256 * 1024;  // more than this goes back to the system when the ring is empty

constexpr std::size_t RoundUp(std::size_t bytes) {
    return (bytes + 7) & ~std::size_t{7};
}

}  // namespace

ByteRing::ByteRing(std::size_t max_bytes, std::size_t max_records)
    : m_max_bytes(max_bytes), m_max_records(max_records) {}

ByteRing::~ByteRing() {
    std::free(m_buffer);
}

bool ByteRing::Push(std::uint64_t tag, std::span<const char> first, std::span<const char> second) {
    const std::size_t length = first.size() + second.size();
    if (length > m_max_bytes || m_records >= m_max_records) return false;
    const std::size_t entry = kHeadBytes + RoundUp(length);
    if (!Reserve(m_used + entry)) return false;
    const Head head{tag, static_cast<std::uint32_t>(length), 0};
    CopyIn(m_used, &head, kHeadBytes);
    CopyIn(m_used + kHeadBytes, first.data(), first.size());
    CopyIn(m_used + kHeadBytes + first.size(), second.data(), second.size());
    m_used += entry;
    ++m_records;
    return true;
}

ByteRing::Head ByteRing::Front() const {
    Head head;
    CopyOut(0, &head, kHeadBytes);
    return head;
}

void ByteRing::Pop(char* bytes) {
    const Head head = Front();
    if (bytes) CopyOut(kHeadBytes, bytes, head.length);
    const std::size_t entry = kHeadBytes + RoundUp(head.length);
    m_begin += entry;
    if (m_begin >= m_capacity) m_begin -= m_capacity;
    m_used -= entry;
    --m_records;
    if (m_records == 0) Release();
}

void ByteRing::Clear() {
    m_begin = 0;
    m_used = 0;
    m_records = 0;
    Release();
}

bool ByteRing::Reserve(std::size_t bytes) {
    if (bytes > m_max_bytes) return false;
    if (bytes <= m_capacity) return true;
    std::size_t capacity = std::max(m_capacity, kFirstCapacity);
    while (capacity < bytes)
        capacity *= 2;
    capacity = std::min(capacity, m_max_bytes);
    char* buffer = static_cast<char*>(std::malloc(capacity));
    if (!buffer) return false;
    CopyOut(0, buffer, m_used);
    std::free(m_buffer);
    m_buffer = buffer;
    m_capacity = capacity;
    m_begin = 0;
    return true;
}

void ByteRing::Release() {
    if (m_capacity <= kKeptCapacity) return;
    std::free(m_buffer);
    m_buffer = nullptr;
    m_capacity = 0;
    m_begin = 0;
}

void ByteRing::CopyIn(std::size_t offset, const void* from, std::size_t count) {
    if (count == 0) return;
    std::size_t at = m_begin + offset;
    if (at >= m_capacity) at -= m_capacity;
    const std::size_t before_the_end = std::min(count, m_capacity - at);
    std::memcpy(m_buffer + at, from, before_the_end);
    std::memcpy(m_buffer, static_cast<const char*>(from) + before_the_end, count - before_the_end);
}

void ByteRing::CopyOut(std::size_t offset, void* to, std::size_t count) const {
    if (count == 0) return;
    std::size_t at = m_begin + offset;
    if (at >= m_capacity) at -= m_capacity;
    const std::size_t before_the_end = std::min(count, m_capacity - at);
    std::memcpy(to, m_buffer + at, before_the_end);
    std::memcpy(static_cast<char*>(to) + before_the_end, m_buffer, count - before_the_end);
}

}  // namespace platform
