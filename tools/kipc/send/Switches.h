// The records of the shared settings store that the engineering menu writes for the USB service. Writing
// alone tells the service only where the change-notification driver runs and the service has asked for it; so
// the text is sent, too.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "setting/UsbCert.h"

namespace kipcsend {

// What is to be changed; the rest stays as the store has it.
struct SwitchChange {
    std::optional<std::uint32_t> signal_test1 = {};
    std::optional<std::uint32_t> signal_test2 = {};
    std::optional<std::uint32_t> device_mode1 = {};
    std::optional<std::uint32_t> device_mode2 = {};
};

struct HubChange {
    std::uint32_t customer_hub_support;
};

// What the store names a changed record by.
std::string SwitchesPath();
std::string HubPath();

dcm::usb::StShmUsbCert Changed(dcm::usb::StShmUsbCert now, const SwitchChange& change);
std::string TextOf(const dcm::usb::StShmUsbCert& switches);

// False: the store has said why on standard error. Creates the record when it is not there yet.
bool WriteSwitches(const SwitchChange& change, dcm::usb::StShmUsbCert* written);
bool WriteCustomerHub(const HubChange& change);

}  // namespace kipcsend
