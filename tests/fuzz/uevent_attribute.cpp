// The "uevent" attribute of a device that the scan found: whatever stands in it, no getter reads outside of
// the record.
#include <libudev.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "event/UDevData.h"

struct udev_device {
    std::string uevent;
    std::string line;  // its first line, as the foreign text of all else
};

// The target's own libudev: the program's functions come before those of the library.
extern "C" {

const char* udev_device_get_sysattr_value(udev_device* device, const char*) {
    return device->uevent.c_str();
}
const char* udev_device_get_subsystem(udev_device* device) {
    return device->line.c_str();
}
const char* udev_device_get_devpath(udev_device* device) {
    return device->line.c_str();
}
const char* udev_device_get_sysname(udev_device* device) {
    return device->line.c_str();
}
const char* udev_device_get_devtype(udev_device* device) {
    return device->line.c_str();
}

int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    udev_device device;
    device.uevent.assign(reinterpret_cast<const char*>(bytes), size);
    device.line = device.uevent.substr(0, device.uevent.find('\n'));

    const auto data = std::make_unique<dcm::usb::UDevData>();
    data->ParseDevice(&device);
    unsigned short vendor = 0;
    unsigned short product = 0;
    data->GetSubSystem();
    data->GetDevPath();
    data->GetDevName();
    data->GetUsbDevType();
    data->GetBlockDevType();
    data->GetProduct(&vendor, &product);
    data->GetCustomEvent();
    data->GetCustomEventPort();
    data->GetEnumerate();
    data->PrintData(true);
    data->PrintData(false);

    // What is cut away is absent: the same text without it reads the same.
    if (std::strlen(device.uevent.c_str()) <= 2047) return 0;
    udev_device cut = device;
    cut.uevent.resize(2047);
    dcm::usb::UDevData again;
    again.ParseDevice(&cut);
    unsigned short again_vendor = 0;
    unsigned short again_product = 0;
    again.GetProduct(&again_vendor, &again_product);
    const bool same = vendor == again_vendor && product == again_product &&
                      data->GetCustomEvent() == again.GetCustomEvent() &&
                      data->GetCustomEventPort() == again.GetCustomEventPort() &&
                      data->GetEnumerate() == again.GetEnumerate();
    if (!same) std::abort();
    return 0;
}
}
