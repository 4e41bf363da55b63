// What is to be done, from the words of the command line.
#pragma once

#include <optional>
#include <variant>

#include "Options.h"
#include "Request.h"
#include "Switches.h"

namespace kipcsend {

// A mode request; the service itself may have to be asked what of the phone was not given.
struct ModeOrder {
    const Mode* mode;
    Phone phone;
};

struct Order {
    Options options;
    Request request;  // empty while `incomplete` is there
    std::optional<ModeOrder> incomplete;
    std::variant<std::monostate, SwitchChange, HubChange>
        change;  // of the settings store, before the request
};

// The number to end with instead, when help was asked for or the words are wrong; both are printed.
std::variant<Order, int> ParseCommandLine(int count, const char* const* words);

}  // namespace kipcsend
