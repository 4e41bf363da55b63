// One shared settings record: its segment and, when it is persistent, its file. Any thread; processes and
// threads take turns by the record's semaphore, held for the whole of each call.
#pragma once

#include <cstddef>

#include "shm/Memory.h"
#include "shm/MemoryData.h"

namespace shm {

enum E_WRITE {
    WRITE_MEMORY = 0,  // the file is left to Sync
    WRITE_THROUGH = 1  // the file as well
};

// Finds the data in what a record's file holds, from its first byte: null when a length word or the data that
// it promises is missing. A length above the record's size is cut, with a line on standard error.
const char* TakeRecord(const MemoryData& row, const char* file, std::size_t bytes, unsigned int* length);

class PersistenceInterface : public Memory<char> {
public:
    explicit PersistenceInterface(const MemoryData& row);  // the row is not copied

    // The number of bytes written (data behind the record's size is cut off), or -1.
    int Write(const char* data, unsigned int len, int mode);

    // The number of bytes copied to `buffer`, at most the record's size; -1, and an untouched buffer, when
    // the record cannot be read or nobody has written it yet.
    int Read(char* buffer);

    // Copies what Read gives into the file. 0 or -1.
    int Sync();

private:
    int Load(Access& access, char* buffer);
    int read_emmc(char* buffer);
    int write_emmc(const char* data, unsigned int len);

    const MemoryData& m_row;
};

}  // namespace shm
