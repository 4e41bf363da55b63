#include "shm/MemoryData.h"

#include <string_view>

#include "shm/Complaint.h"
#include "shm/Layout.h"

namespace shm {
namespace {

struct NumberedRow {
    unsigned int id;
    MemoryData row;
};

constexpr NumberedRow kRows[] = {
#define SSM_RECORD(id, name, flag, size) {id, {#name, "/data/sharedmemory/" #name, flag, size}},
#include "shm/records.inc"
#undef SSM_RECORD
};

constexpr bool RowsStandAtTheirIds() {
    for (unsigned int place = 0; place < std::size(kRows); ++place)
        if (kRows[place].id != place) return false;
    return true;
}

constexpr bool IsRecord(const MemoryData& row) {
    const bool kept = row.flag == RECORD_MEMORY || row.flag == RECORD_PERSISTENT;
    return kept && row.size > 0 && row.size <= 64 * 1024;  // a settings record, and far from an int's end
}

constexpr bool AllButTheLastAreRecords() {
    for (std::size_t place = 0; place + 1 < std::size(kRows); ++place)
        if (!IsRecord(kRows[place].row)) return false;
    return true;
}

constexpr bool IsRow(unsigned int id, std::string_view name, std::uint32_t flag, std::uint32_t size) {
    const MemoryData& row = kRows[id].row;
    return name == row.name && flag == row.flag && size == row.size;
}

static_assert(std::size(kRows) == 307 && std::size(kRows) == kTableRows);
static_assert(RowsStandAtTheirIds());
static_assert(AllButTheLastAreRecords());
static_assert(IsRow(143, "shm_usb_cert", RECORD_MEMORY, 16));
static_assert(IsRow(144, "shm_usb_cert_persist", RECORD_PERSISTENT, 4));
static_assert(IsRow(306, "SSM_ID_MAX", RECORD_END, 0));

constexpr std::array<MemoryData, kTableRows> MakeTable() {
    std::array<MemoryData, kTableRows> table{};
    for (std::size_t place = 0; place < table.size(); ++place)
        table[place] = kRows[place].row;
    return table;
}

constexpr std::array<MemoryData, kTableRows> kTable = MakeTable();

}  // namespace

const std::array<MemoryData, kTableRows>& get_table() {
    return kTable;
}

const MemoryData* get_table_index(ssmID::e_SsmID id) {
    if (id >= ssmID::SSM_ID_MAX) {
        Complain(__func__, "unvalid index");  // Deliberate: the spelling.
        return nullptr;
    }
    return &kTable[id];
}

}  // namespace shm
