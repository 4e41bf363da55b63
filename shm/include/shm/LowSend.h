// Change notifications: the driver behind "/dev/css" delivers them to the processes that asked. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>

#include "shm/ssmID.h"

namespace shm {

struct SendLengths {
    std::uint32_t payload;
    std::uint32_t buffer;
};

// The lengths of a request for a text of so many characters; the payload is the text and its terminator.
SendLengths set_lengths(std::size_t characters);

// The driver, opened by the first notification that can and kept. A failure is printed and the notification
// is lost.
class CssDriver {
public:
    CssDriver() = default;
    ~CssDriver();
    CssDriver(const CssDriver&) = delete;
    CssDriver& operator=(const CssDriver&) = delete;

    void Send(ssmID::e_SsmID id, std::uint64_t receivers);

private:
    int Open();

    std::mutex m_mutex;  // m_driver
    int m_driver = -1;
};

// Tells the receivers that the record was written; the payload is the path of the record's file. All go
// through one driver, kept for the life of the process.
void low_send(ssmID::e_SsmID id, std::uint64_t receivers);

}  // namespace shm
