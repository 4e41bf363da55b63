// Records of different lengths that wait in one circular buffer, first in, first out. Takes no lock: whoever
// owns the ring does.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace platform {

class ByteRing {
public:
    // At most that many bytes, heads included, and that many records wait at a time.
    ByteRing(std::size_t max_bytes, std::size_t max_records);
    ~ByteRing();
    ByteRing(const ByteRing&) = delete;
    ByteRing& operator=(const ByteRing&) = delete;

    // Copies `first` and `second` as one record. False when it does not fit or memory is short. The buffer
    // doubles when it must, so that a ring that has seen its usual load does not allocate again.
    bool Push(std::uint64_t tag, std::span<const char> first, std::span<const char> second = {});

    struct Head {
        std::uint64_t tag;  // the pusher's own word
        std::uint32_t length;
        std::uint32_t unused;
    };
    static constexpr std::size_t kHeadBytes = 16;
    static_assert(sizeof(Head) == kHeadBytes);

    Head Front() const;     // of the oldest record; there must be one
    void Pop(char* bytes);  // the oldest record leaves: its Front().length bytes into `bytes`, or nowhere
                            // when null
    void Clear();

    std::size_t records() const { return m_records; }
    std::size_t bytes() const { return m_used; }

private:
    bool Reserve(std::size_t bytes);
    void Release();
    void CopyIn(std::size_t offset, const void* from, std::size_t count);
    void CopyOut(std::size_t offset, void* to, std::size_t count) const;

    const std::size_t m_max_bytes;
    const std::size_t m_max_records;
    char* m_buffer = nullptr;  // owned; from malloc
    std::size_t m_capacity = 0;
    std::size_t m_begin = 0;  // where the oldest record's head is
    std::size_t m_used = 0;
    std::size_t m_records = 0;
};

}  // namespace platform
