// What holds for every request of the command line.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "Show.h"

namespace kipcsend {

struct Options {
    std::string root;  // folder of the sockets
    bool verbose = false;
    bool dry_run = false;
    E_FORMAT format = FORMAT_TEXT;
    std::optional<std::chrono::milliseconds> timeout;  // none: the request's own
};

}  // namespace kipcsend
