// What the block-id tool prints, as a chunk and through a pipe: any bytes at all. Besides not crashing, a
// value is never longer than its chunk and holds no quote, and two readers of the same output agree.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/trace.h"
#include "storage/UBlkid.h"

namespace {

using dcm::usb::UBlkID;

constexpr std::size_t kChunkMost = 1023;       // one read
constexpr std::size_t kPipeBytes = 64 * 1024;  // fits into an empty pipe: nobody reads while it is filled

void Require(bool holds) {
    if (!holds) std::abort();
}

void CheckValue(const char* value, std::size_t most) {
    if (!value) return;
    Require(std::strlen(value) <= most);
    Require(!std::strchr(value, '"'));
}

void CheckValues(const UBlkID& id, std::size_t most) {
    CheckValue(id.GetLabel(), most);
    CheckValue(id.GetUuid(), most);
    CheckValue(id.GetType(), most);
}

bool IsSame(const char* a, const char* b) {
    return a && b ? std::strcmp(a, b) == 0 : a == b;
}

// In a buffer of exactly its size: a read behind it is seen.
void ParseChunk(UBlkID& id, const std::uint8_t* data, std::size_t size) {
    const std::unique_ptr<char[]> chunk(new char[size + 1]);
    if (size > 0) std::memcpy(chunk.get(), data, size);
    chunk[size] = '\0';
    id.ParseBuf(chunk.get());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    ka_log_threshold = 255;  // no line is written

    UBlkID whole;
    ParseChunk(whole, data, size);
    CheckValues(whole, size);

    const std::size_t printed = std::min(size, kPipeBytes);
    UBlkID chunked;
    for (std::size_t at = 0; at < printed; at += kChunkMost)
        ParseChunk(chunked, data + at, std::min(kChunkMost, printed - at));
    CheckValues(chunked, kChunkMost);

    int ends[2];
    Require(pipe2(ends, O_CLOEXEC) == 0);
    Require(write(ends[1], data, printed) == static_cast<ssize_t>(printed));
    close(ends[1]);
    UBlkID piped;
    piped.ReadPipe(ends[0]);
    Require(ends[0] == -1);
    Require(IsSame(piped.GetLabel(), chunked.GetLabel()));
    Require(IsSame(piped.GetUuid(), chunked.GetUuid()));
    Require(IsSame(piped.GetType(), chunked.GetType()));
    return 0;
}
