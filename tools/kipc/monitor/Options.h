// What the command line asks for.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "monitor/Filter.h"
#include "shared/When.h"

namespace kipcmon {

enum E_EXIT {
    EXIT_AS_ASKED =
        0,  // the count was reached, or there was none and a signal, the timeout or the file's end came
    EXIT_TOO_FEW = 1,  // fewer records than the count
    EXIT_USAGE = 2,
    EXIT_TAKEN = 3,   // another monitor listens
    EXIT_FAILED = 4,  // a socket or a file could not be opened, read or written
    EXIT_BROKEN = 5   // what is read is no capture of a tap, or ends too early
};

enum E_FORMAT { FORMAT_LINES, FORMAT_JSON };

struct Options {
    std::string folder = {};  // of the tap
    std::string read = {};    // a file to show instead; "-": standard input
    std::string write = {};   // "-": standard output
    E_FORMAT format = FORMAT_LINES;
    kipc_tools::E_WHEN colour = kipc_tools::WHEN_AUTO;
    std::uint64_t count = 0;  // 0: no limit
    std::optional<double> timeout_s = {};
    Filter filter = {};
};

// Empty when the program is to end with `exit_code`: help was asked for and printed, or the complaint was.
std::optional<Options> ReadOptions(int argc, const char* const* argv, int* exit_code);

}  // namespace kipcmon
