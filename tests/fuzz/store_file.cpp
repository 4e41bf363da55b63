// What a record's file holds, as the flash may give it back after a power cut: whatever stands there, a
// reader gets at most the record's size, and only bytes of the file.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "shm/PersistenceInterface.h"

namespace {

void Require(bool holds) {
    if (!holds) std::abort();
}

// The same bytes as the file of a record of this size, in memory that ends where they end.
void TakeAs(std::uint32_t size, const std::uint8_t* data, std::size_t bytes) {
    const shm::MemoryData row{"fuzz", "/data/sharedmemory/fuzz", shm::RECORD_PERSISTENT, size};
    // read_emmc never looks at more of a file.
    const std::size_t read = bytes < sizeof(std::uint32_t) + size ? bytes : sizeof(std::uint32_t) + size;
    const std::unique_ptr<char[]> file(new char[read]);
    if (read > 0) std::memcpy(file.get(), data, read);
    unsigned int length = 0;
    const char* found = shm::TakeRecord(row, file.get(), read, &length);
    if (!found) return;
    Require(length <= size);
    Require(found == file.get() + sizeof(std::uint32_t));
    Require(length <= read - sizeof(std::uint32_t));
    const std::unique_ptr<char[]> buffer(new char[size]);
    std::memcpy(buffer.get(), found, length);
    Require(std::memcmp(buffer.get(), data + sizeof(std::uint32_t), length) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The store's line for every length that is too large would be most of the output.
    if (FILE* quiet = std::fopen("/dev/null", "we")) stderr = quiet;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t bytes) {
    for (const std::uint32_t size : {4U, 16U, 1024U})
        TakeAs(size, data, bytes);
    return 0;
}
