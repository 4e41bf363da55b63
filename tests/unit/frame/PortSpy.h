// The port list and hub control as the command frame sees them: they only write down what they were asked.
#pragma once

#include <string>
#include <vector>

#include "support/RecordingPlatform.h"

namespace test {

struct PortCall {
    std::string operation;  // with its numbers: "signal test port 1 on"
    Bytes record = {};      // what it was given, whole; of a search only the record tells the port
    bool operator==(const PortCall&) const = default;
    friend void PrintTo(const PortCall& call, std::ostream* out) {
        *out << call.operation << " (" << call.record.size() << " bytes)";
    }
};

std::vector<PortCall> PortCalls();  // since the last ClearPortCalls
void ClearPortCalls();

}  // namespace test
