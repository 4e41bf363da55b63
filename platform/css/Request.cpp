#include "Request.h"

#include <cerrno>
#include <cstring>

#include "shm/Layout.h"

namespace css {
namespace {

constexpr unsigned int kNotify = 0;  // the only command
constexpr std::size_t kRequestBytes = sizeof(shm::CssRequest);

Step Refuse(int error) {
    return {.kind = STEP_REFUSE, .error = error};
}

bool IsWellFormed(const shm::CssRequest& request) {
    return request.receivers != 0 && request.length > 0 && request.length <= request.size &&
           request.length <= shm::kCssBufferMost;
}

}  // namespace

Step NextStep(unsigned int command, std::uint64_t argument, std::span<const char> bytes) {
    if (command != kNotify) return Refuse(ENOTTY);
    const Piece head{argument, kRequestBytes};
    if (bytes.empty()) return {.kind = STEP_READ, .pieces = {head}};
    if (bytes.size() < kRequestBytes) return Refuse(EINVAL);

    shm::CssRequest request;
    std::memcpy(&request, bytes.data(), kRequestBytes);
    if (!IsWellFormed(request)) return Refuse(EINVAL);
    const std::span<const char> text = bytes.subspan(kRequestBytes);
    if (text.empty()) {
        const auto address = reinterpret_cast<std::uintptr_t>(request.buffer);
        return {.kind = STEP_READ, .pieces = {head, {address, request.length}}};
    }
    // The request is read again together with its text: a caller that changed its length meanwhile is
    // refused.
    if (text.size() != request.length) return Refuse(EINVAL);
    return {.kind = STEP_DELIVER, .receivers = request.receivers, .text = text};
}

}  // namespace css
