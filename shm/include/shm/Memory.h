// A segment of so many T that processes share, with the semaphore that guards it. Any thread.
#pragma once

#include <cstddef>
#include <type_traits>

#include "shm/Segment.h"
#include "shm/Semaphore.h"

namespace shm {

template <typename T>
class Memory {
public:
    static_assert(std::is_trivially_copyable_v<T>);

    Memory(const char* name, std::size_t count) : m_name(name), m_count(count), m_semaphore(name) {}
    Memory(const Memory&) = delete;
    Memory& operator=(const Memory&) = delete;

protected:
    ~Memory() = default;

    // One access: holds the semaphore and, once mapped, the segment, until the end of the block.
    class Access {
    public:
        explicit Access(Memory& memory) : m_memory(memory), m_hold(memory.m_semaphore) {}

        bool Granted() const { return m_hold.Held(); }
        E_SEGMENT_RESULT Map(E_SEGMENT_OPEN open) {
            return m_segment.Map(m_memory.m_name, m_memory.m_count * sizeof(T), open);
        }
        T* Data() const { return reinterpret_cast<T*>(m_segment.Data()); }  // mappings begin at a page

    private:
        Memory& m_memory;
        Hold m_hold;        // given back last
        Segment m_segment;  // unmapped first
    };

    const char* const m_name;

private:
    const std::size_t m_count;
    Semaphore m_semaphore;
};

}  // namespace shm
