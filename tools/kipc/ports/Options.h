// What the command line asks for.
#pragma once

#include <optional>
#include <string>

#include "shared/When.h"

namespace ports {

enum E_EXIT {
    EXIT_AS_ASKED = 0,       // shown; with repetition: until a signal came
    EXIT_USAGE = 2,          // wrong options
    EXIT_NO_ANSWER = 4,      // the service does not answer, or the output cannot be written
    EXIT_NOT_UNDERSTOOD = 5  // what answers shows no status of this version
};

struct Options {
    std::string folder;  // of the sockets
    bool json = false;
    bool once = false;
    bool watch = false;
    double interval_s = 1;
    kipc_tools::E_WHEN colour = kipc_tools::WHEN_AUTO;
};

// Empty when the program is to end with `exit_code`: help was asked for and printed, or the complaint was.
std::optional<Options> ReadOptions(int argc, const char* const* argv, int* exit_code);

}  // namespace ports
