// The service's log lines: all go through the platform's trace log with the service's own module number.
#pragma once

#include "platform/trace.h"

namespace dcm::usb {

enum E_LOG : int {
    LOG_TRACE = 32,     // constructors, destructors, calls
    LOG_DETAIL = 64,    // what helps to find a fault
    LOG_INFO = 128,     // what happens
    LOG_REFUSED = 160,  // unexpected input, refusals
    LOG_FAILED = 192    // errors, null pointers
};

inline constexpr int kLogModule = 2816;  // this service in the unit's trace table
inline constexpr int kLogSubmodule = 0;

}  // namespace dcm::usb

// The arguments are evaluated only when the line is written.
#define ULOG(level, ...)                                                                \
    do {                                                                                \
        if ((level) >= ka_log_threshold)                                                \
            ka_log_print(__FILE__, __func__, __LINE__, (level), ::dcm::usb::kLogModule, \
                         ::dcm::usb::kLogSubmodule, __VA_ARGS__);                       \
    } while (false)
