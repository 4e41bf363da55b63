#include "item/UItem.h"

#include <cerrno>
#include <cstring>

#include "misc/ULog.h"

namespace dcm::usb {

namespace {

constexpr long kNanosecondsPerSecond = 1000000000;
constexpr long kNanosecondsPerMs = 1000000;

}  // namespace

int UItem::DiffMs(timespec from, timespec to) {
    long seconds = to.tv_sec - from.tv_sec;
    long nanoseconds = to.tv_nsec - from.tv_nsec;
    if (nanoseconds < 0) {
        --seconds;
        nanoseconds += kNanosecondsPerSecond;
    }
    return static_cast<int>(seconds * 1000 + nanoseconds / kNanosecondsPerMs);
}

bool UItem::GetTime(timespec& now) {
    if (clock_gettime(CLOCK_MONOTONIC, &now) == 0) return true;
    const int error = errno;
    ULOG(LOG_FAILED, "error in gettime %d %s", error, std::strerror(error));
    return false;
}

}  // namespace dcm::usb
