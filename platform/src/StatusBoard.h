// One look at what the process shows of itself (platform/status.h), as the bytes that clients get.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/status.h"

namespace status {

// Records one behind the other: a RecordHead and as many bytes as it says, again and again. Throws nothing;
// without memory it is not good(), and has no meaning.
class Snapshot {
public:
    Snapshot() = default;
    ~Snapshot();
    Snapshot(Snapshot&& other) noexcept;
    Snapshot& operator=(Snapshot&& other) noexcept;

    // The StartRecord, all rows in the order in which they were first shown, all numbers. Any thread.
    static Snapshot Take();

    template <typename Record>
    void Append(std::uint32_t kind, const Record& record) {
        static_assert(__is_trivially_copyable(Record));
        Append({kind, sizeof record, 0}, &record);
        ++m_records;
    }
    void End();  // the EndRecord

    bool good() const { return m_good; }
    const char* data() const { return m_bytes; }
    std::size_t size() const { return m_size; }

private:
    friend class Board;
    bool Reserve(std::size_t bytes);
    void Append(const RecordHead& head, const void* record);

    char* m_bytes = nullptr;  // owned; from malloc
    std::size_t m_size = 0;
    std::size_t m_capacity = 0;
    std::uint32_t m_records = 0;  // without start and end
    bool m_good = true;
};

}  // namespace status
