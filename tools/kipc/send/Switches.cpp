#include "Switches.h"

#include "shm/MemoryData.h"
#include "shm/ssmInterface.h"

namespace kipcsend {

std::string SwitchesPath() {
    return shm::get_table_index(ssmID::shm_usb_cert)->path;
}

std::string HubPath() {
    return shm::get_table_index(ssmID::shm_usb_cert_persist)->path;
}

dcm::usb::StShmUsbCert Changed(dcm::usb::StShmUsbCert now, const SwitchChange& change) {
    now.test_force_enable1 = change.signal_test1.value_or(now.test_force_enable1);
    now.test_force_enable2 = change.signal_test2.value_or(now.test_force_enable2);
    now.device_mode1 = change.device_mode1.value_or(now.device_mode1);
    now.device_mode2 = change.device_mode2.value_or(now.device_mode2);
    return now;
}

std::string TextOf(const dcm::usb::StShmUsbCert& switches) {
    return "signal-test1=" + std::to_string(switches.test_force_enable1) +
           " signal-test2=" + std::to_string(switches.test_force_enable2) +
           " device-mode1=" + std::to_string(switches.device_mode1) +
           " device-mode2=" + std::to_string(switches.device_mode2);
}

bool WriteSwitches(const SwitchChange& change, dcm::usb::StShmUsbCert* written) {
    dcm::usb::StShmUsbCert now;  // the defaults, when nobody has written them yet
    ssmInterface::read_ssm(ssmID::shm_usb_cert, reinterpret_cast<char*>(&now));
    *written = Changed(now, change);
    return ssmInterface::write_ssm(ssmID::shm_usb_cert, reinterpret_cast<const char*>(written),
                                   sizeof *written) >= 0;
}

bool WriteCustomerHub(const HubChange& change) {
    const dcm::usb::StShmUsbCertPersist record{change.customer_hub_support};
    return ssmInterface::write_ssm(ssmID::shm_usb_cert_persist, reinterpret_cast<const char*>(&record),
                                   sizeof record) >= 0;
}

}  // namespace kipcsend
