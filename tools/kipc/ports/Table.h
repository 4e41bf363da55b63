// A view as lines for people.
#pragma once

#include <string>
#include <vector>

#include "ports/View.h"

namespace ports {

enum E_COLOUR { COLOUR_OFF, COLOUR_ON };

// Without line ends. Control bytes and bytes that are not UTF-8 are shown as "\x1b".
std::vector<std::string> TableOf(const View& view, E_COLOUR colour);

std::string DurationOf(std::uint64_t ns);  // "12.3 s", "4 min 05 s", "2 h 07 min", "3 d 02 h"

}  // namespace ports
