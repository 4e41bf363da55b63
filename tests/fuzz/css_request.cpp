// What a caller of "/dev/css" has in its memory: whatever it is, what is read and what is delivered stay
// within what the driver takes, and within the bytes that were read.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Request.h"

namespace {

constexpr std::size_t kRequestBytes = 40;
constexpr std::size_t kTextMost = 27136;
constexpr std::uint64_t kArgument = 0x1000;

void Check(bool holds) {
    if (!holds) std::abort();
}

css::Step Ask(unsigned int command, const std::vector<char>& bytes) {
    const css::Step step = css::NextStep(command, kArgument, bytes);
    switch (step.kind) {
        case css::STEP_REFUSE:
            Check(step.error != 0);
            break;
        case css::STEP_READ:
            Check(!step.pieces.empty() && step.pieces.size() <= 2);
            Check(step.pieces[0] == css::Piece{kArgument, kRequestBytes});
            if (step.pieces.size() == 2) Check(step.pieces[1].bytes > 0 && step.pieces[1].bytes <= kTextMost);
            break;
        case css::STEP_DELIVER:
            Check(step.receivers != 0 && !step.text.empty() && step.text.size() <= kTextMost);
            Check(step.text.data() == bytes.data() + kRequestBytes);
            Check(step.text.size() == bytes.size() - kRequestBytes);
            break;
    }
    return step;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
    if (size == 0) return 0;
    const std::vector<char> bytes(input + 1, input + size);
    Ask(input[0], bytes);

    // As the kernel does it: the request alone, then with as much behind it as was asked for.
    if (bytes.size() < kRequestBytes) return 0;
    std::vector<char> read(bytes.begin(), bytes.begin() + kRequestBytes);
    const css::Step step = Ask(0, read);
    if (step.kind != css::STEP_READ) return 0;
    read.resize(kRequestBytes + step.pieces[1].bytes);
    Check(Ask(0, read).kind == css::STEP_DELIVER);
    return 0;
}
