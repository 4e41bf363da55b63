// Records of the shared settings store that belong to the USB service.
#pragma once

#include <cstddef>
#include <cstdint>

namespace dcm::usb {

// "shm_usb_cert", id 143, not persistent: switches of the engineering menu for certification tests.
struct StShmUsbCert {
    std::uint32_t test_force_enable1 = 0;  // 1: signal quality test on port 1
    std::uint32_t test_force_enable2 = 0;  // 1: signal quality test on port 2
    std::uint32_t device_mode1 = 0;        // 1: port 1 in device mode
    std::uint32_t device_mode2 = 0;        // 1: port 2 in device mode

    bool operator==(const StShmUsbCert&) const = default;
};
static_assert(sizeof(StShmUsbCert) == 16);
static_assert(offsetof(StShmUsbCert, test_force_enable2) == 4);
static_assert(offsetof(StShmUsbCert, device_mode1) == 8);
static_assert(offsetof(StShmUsbCert, device_mode2) == 12);

// "shm_usb_cert_persist", id 144, persistent.
struct StShmUsbCertPersist {
    std::uint32_t customer_hub_support = 1;  // 0: customers' hubs and input devices are removed from the bus

    bool operator==(const StShmUsbCertPersist&) const = default;
};
static_assert(sizeof(StShmUsbCertPersist) == 4);

}  // namespace dcm::usb
