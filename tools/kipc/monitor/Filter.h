// Which records are shown: for each kind of filter that is used, one of its values must be the record's.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "monitor/Entry.h"

namespace kipcmon {

struct Filter {
    bool Passes(const Entry& entry) const;

    std::vector<std::string> senders = {};
    std::vector<std::string> receivers = {};
    std::vector<std::int64_t> ids = {};    // of the field "id"; a record without one does not pass
    std::vector<std::int64_t> ports = {};  // of the field "port", the same
};

// A process of the unit, "monitor", or 16 hex digits.
bool IsProcess(const std::string& name);

// The numbers that a word of the enumeration "id", or a number, stands for; none: it is neither.
std::vector<std::int64_t> IdsOf(const std::string& text);

std::optional<std::int64_t> PortOf(const std::string& text);

}  // namespace kipcmon
