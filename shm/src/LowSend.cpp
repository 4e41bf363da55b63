#include "shm/LowSend.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "shm/Complaint.h"
#include "shm/Layout.h"
#include "shm/MemoryData.h"

namespace shm {
namespace {

constexpr const char* kDriver = "/dev/css";
constexpr std::uint32_t kPayloadMost = 26624;  // fits a buffer of kCssBufferMost
constexpr std::uint32_t kBufferGranule = 512;  // the driver's buffers are multiples of this

}  // namespace

SendLengths set_lengths(std::size_t characters) {
    const std::size_t payload = characters + 1;
    if (payload > kPayloadMost) {
        // Deliberate: on standard output, unlike the store's other lines.
        std::printf("[%s]size overflow len : %u\n", __func__, static_cast<unsigned int>(payload));
        return {kPayloadMost, kCssBufferMost};
    }
    const std::size_t buffer = (payload + 1 + kBufferGranule - 1) / kBufferGranule * kBufferGranule;
    return {static_cast<std::uint32_t>(payload), static_cast<std::uint32_t>(buffer)};
}

CssDriver::~CssDriver() {
    if (m_driver >= 0) close(m_driver);
}

// -1 as long as it cannot be opened: the next notification tries again.
int CssDriver::Open() {
    std::lock_guard lock(m_mutex);
    if (m_driver < 0) m_driver = open(kDriver, O_WRONLY | O_CLOEXEC);
    return m_driver;
}

void CssDriver::Send(ssmID::e_SsmID id, std::uint64_t receivers) {
    const MemoryData* row = get_table_index(id);
    if (!row) return;
    const int driver = Open();
    if (driver < 0) {
        Complain("low_send", "open failed");
        return;
    }
    const std::size_t characters = std::strlen(row->path);
    const SendLengths lengths = set_lengths(characters);
    std::vector<char> buffer(lengths.buffer);
    std::copy_n(row->path, std::min<std::size_t>(characters, lengths.payload), buffer.begin());
    CssRequest request{};
    request.receivers = receivers;
    request.length = lengths.payload;
    request.size = lengths.buffer;
    request.buffer = buffer.data();
    if (ioctl(driver, 0, &request) < 0) ComplainOfCall("low_send", "ioctl", kDriver, errno);
}

void low_send(ssmID::e_SsmID id, std::uint64_t receivers) {
    static CssDriver& driver = *new CssDriver;  // never closed: a late thread may still write a record
    driver.Send(id, receivers);
}

}  // namespace shm
