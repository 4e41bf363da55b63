// Change notifications: the driver behind "/dev/css" delivers them to the processes that asked. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "shm/ssmID.h"

namespace shm {

struct SendLengths {
    std::uint32_t payload;
    std::uint32_t buffer;
};

// The lengths of a request for a text of so many characters; the payload is the text and its terminator.
SendLengths set_lengths(std::size_t characters);

// Tells the receivers that the record was written; the payload is the path of the record's file. A failure
// is printed and the notification is lost.
void low_send(ssmID::e_SsmID id, std::uint64_t receivers);

}  // namespace shm
