// The table of all shared settings records. Constant; any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "shm/ssmID.h"

namespace shm {

enum E_RECORD_FLAG : std::uint32_t {
    RECORD_MEMORY = 0,      // lost when the unit is switched off
    RECORD_PERSISTENT = 1,  // kept in its file as well
    RECORD_END = 2          // behind the last record
};

struct MemoryData {
    const char* name;    // of the segment and of the semaphore
    const char* path;    // of the persistent file
    std::uint32_t flag;  // E_RECORD_FLAG
    std::uint32_t size;  // bytes of data
};

inline constexpr std::size_t kTableRows = ssmID::SSM_ID_MAX + 1;  // with the end marker

const std::array<MemoryData, kTableRows>& get_table();

// The row of a record; null, and a line on standard error, for the end marker and whatever lies behind.
const MemoryData* get_table_index(ssmID::e_SsmID id);

}  // namespace shm
