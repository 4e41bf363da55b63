// What "/dev/css" answers to an ioctl. Knows no kernel and no sockets: bytes in, the next step out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace css {

// A piece of the caller's memory.
struct Piece {
    std::uint64_t address;
    std::size_t bytes;
    bool operator==(const Piece&) const = default;
};

enum E_STEP {
    STEP_REFUSE,  // the caller gets `error`
    STEP_READ,    // ask again with the bytes of all `pieces`, in order
    STEP_DELIVER  // the caller gets 0, the receivers get `text`
};

struct Step {
    E_STEP kind = STEP_REFUSE;
    int error = 0;
    std::vector<Piece> pieces = {};
    std::uint64_t receivers = 0;      // platform sender bits
    std::span<const char> text = {};  // within the bytes that were given
};

// `argument` is the address of the caller's request, `bytes` what was read of the caller's memory so far:
// nothing, then the request, then the request and its text.
Step NextStep(unsigned int command, std::uint64_t argument, std::span<const char> bytes);

}  // namespace css
