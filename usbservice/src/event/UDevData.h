// One device as libudev tells it, in the form of an event. Filled and read on the event frame's thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "node/UEventData.h"

struct udev_device;

namespace dcm::usb {

// Does not own the device: it must outlive every getter call. Never has an action.
class UDevData : public UEventData {
public:
    // Makes the device the current one and reads its "uevent" attribute.
    void ParseDevice(udev_device* device);

    void PrintData(bool summary) override;
    E_SUBSYSTEM GetSubSystem() override;
    const char* GetDevPath() override;
    int GetUsbDevType() override;
    int GetBlockDevType() override;
    const char* GetDevName() override;  // the kernel object's own name ("1-1.2"), not what DEVNAME= says
    void GetProduct(unsigned short* vendor, unsigned short* product) override;
    int GetCustomEvent() override;
    unsigned char GetCustomEventPort() override;
    int GetEnumerate() override;

private:
    static constexpr std::size_t kTextBytes = 2048;  // kernel: UEVENT_BUFFER_SIZE, linux/kobject.h

    void PrintSummary() const;
    void PrintDetails() const;
    char* CopyValue(E_UEVENT_KEY key) const;  // to be destroyed by the caller; null for an empty value

    udev_device* m_device = nullptr;  // not owned
    char m_text[kTextBytes] = {};
    const char* m_values[kUeventKeys] = {};     // in m_text; null where it has no such key
    std::uint32_t m_lengths[kUeventKeys] = {};  // the values have no NUL of their own
};

}  // namespace dcm::usb
