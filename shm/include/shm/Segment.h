// A shared-memory segment, mapped for reading and writing until the end of the block. The caller holds the
// segment's semaphore.
#pragma once

#include <cstddef>

namespace shm {

enum E_SEGMENT_OPEN {
    SEGMENT_EXISTING,  // a reader's: only what is there
    SEGMENT_CREATE     // a writer's: made when missing, all zero
};

enum E_SEGMENT_RESULT {
    SEGMENT_MAPPED,
    SEGMENT_ABSENT,  // SEGMENT_EXISTING only
    SEGMENT_FAILED   // a line on standard error says why
};

class Segment {
public:
    Segment() = default;
    ~Segment();
    Segment(const Segment&) = delete;
    Segment& operator=(const Segment&) = delete;

    // Maps `bytes` bytes. A segment that is smaller (another build of the table, somebody who died while
    // making it) grows, its new bytes zero; a larger one stays as it is, since others have it mapped.
    E_SEGMENT_RESULT Map(const char* name, std::size_t bytes, E_SEGMENT_OPEN open);

    char* Data() const { return m_data; }  // null unless mapped

private:
    char* m_data = nullptr;
    std::size_t m_bytes = 0;
};

}  // namespace shm
