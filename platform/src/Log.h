// The platform's own log lines.
#pragma once

#include "platform/trace.h"

namespace platform {

inline constexpr int kLogModule = 100;  // the platform in the unit's trace table

enum E_LOG : int {
    LOG_DETAIL = 64,    // what helps to find a fault
    LOG_INFO = 128,     // what happens
    LOG_REFUSED = 160,  // unexpected input, refusals
    LOG_FAILED = 192    // errors, lost records
};

}  // namespace platform

// The arguments are evaluated only when the line is written.
#define PLOG(level, ...)                                                                                 \
    do {                                                                                                 \
        if ((level) >= ka_log_threshold)                                                                 \
            ka_log_print(__FILE__, __func__, __LINE__, (level), ::platform::kLogModule, 0, __VA_ARGS__); \
    } while (false)
