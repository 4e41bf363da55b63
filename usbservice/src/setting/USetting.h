// The vehicle's USB configuration: coding and adaption from diagnosis, and two records of the shared settings
// store.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "misc/Relaxed.h"
#include "misc/USingleton.h"
#include "platform/status.h"
#include "setting/UsbCert.h"

namespace dcm::usb {

enum E_USB_CODING : int {
    USB_CODING_0 = 0,  // no device messages to SDCM, nothing to media
    USB_CODING_1 = 1,  // device messages to SDCM only
    USB_CODING_2 = 2,
    USB_CODING_3 = 3  // at start
};

enum E_USB_ADAPTION : int {
    USB_ADAPTION_UNKNOWN = 0,  // at start
    USB_ADAPTION_ACTIVE = 1,
    USB_ADAPTION_INACTIVE = 2  // the port's messages are suppressed
};

inline constexpr std::uint8_t kAdaptionPorts = 5;  // 0 to 4; index 0 is not used by the service

// Made on the command frame's thread's behalf before any other frame runs; written by that thread; read by
// all, one word at a time, without a lock.
class USetting : public USingleton<USetting> {
public:
    USetting();
    ~USetting() override;

    // Loads the two records, or makes them with their defaults.
    void InitUsbCertSSm();

    void SetUsbCoding(E_USB_CODING coding);                            // no range check
    void SetUsbAdaption(unsigned char port, E_USB_ADAPTION adaption);  // ports 0 to 4
    void SetUsbCert(const StShmUsbCert* cert);
    void SetUsbCertPersist(const StShmUsbCertPersist* persist);

    // Read a record again after the store said that it changed; true when it did.
    bool UpdateUsbCert();
    bool UpdateUsbCertPersist();

    E_USB_CODING GetUsbCoding() const { return usb_coding; }
    // USB_ADAPTION_UNKNOWN for ports of 5 and above.
    E_USB_ADAPTION GetUsbAdaption(unsigned char port) const;
    StShmUsbCert GetUsbCert() const;
    std::uint32_t GetCustomerHubSupport() const { return customer_hub_support; }

private:
    void StoreUsbCert(const StShmUsbCert& cert);
    void StoreUsbCertPersist(const StShmUsbCertPersist& persist);
    void ShowStatus();

    Relaxed<E_USB_CODING> usb_coding{USB_CODING_3};
    Relaxed<E_USB_ADAPTION> usb_adaption[kAdaptionPorts];
    // Every write below and above. A valid mutex also when its initialisation by the constructor fails.
    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
    Relaxed<std::uint32_t> customer_hub_support{1};  // StShmUsbCertPersist
    Relaxed<std::uint32_t> test_force_enable1{0};    // StShmUsbCert
    Relaxed<std::uint32_t> test_force_enable2{0};
    Relaxed<std::uint32_t> device_mode1{0};
    Relaxed<std::uint32_t> device_mode2{0};
    status::Row m_status;
};

}  // namespace dcm::usb
