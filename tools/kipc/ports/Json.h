// A view as a JSON object on one line.
#pragma once

#include <string>

#include "ports/View.h"

namespace ports {

// Bytes that are not UTF-8 become U+FFFD.
std::string JsonOf(const View& view);

// The same but for the time at which it was taken: what must change before it is worth another line.
std::string JsonWithoutTime(const View& view);

}  // namespace ports
