// What the service says to others, and what the model says that it has to say: per receiver and port of the
// unit, in order. What concerns different ports may come in any order.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "support/RecordingPlatform.h"

namespace test {

enum E_RECEIVER { TO_SDCM, TO_MEDIA, TO_MONITOR, TO_PORT_CONTROL, TO_DEVICE, kReceivers };
inline constexpr const char* kReceiverName[kReceivers] = {"SDCM", "media", "monitor", "port control",
                                                          "device"};

struct Saying {
    std::string text;  // a shell command or a transfer; of a record what it is in words
    Bytes bytes;       // a record

    bool operator==(const Saying& other) const {
        return bytes.empty() ? text == other.text : bytes == other.bytes;
    }
};

using Said = std::map<std::pair<E_RECEIVER, unsigned>, std::vector<Saying>>;  // by receiver and port

// A record in words: id, port, ids, result or capabilities.
std::string InWords(E_RECEIVER receiver, const Bytes& record);

// Everything in which the two differ, for the reader of a failed test; empty when they are the same.
std::string Difference(const Said& expected, const Said& found);

}  // namespace test
