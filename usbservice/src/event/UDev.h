// Finds what was plugged in before the service started: walks once through libudev's devices, and hands those
// on USB to the list of nodes as if they had just come. Event frame's thread only.
#pragma once

#include "event/UDevData.h"

struct udev;

namespace dcm::usb {

class UListNode;
class UNotifier;

class UDev {
public:
    explicit UDev(UNotifier* notifier);

    void ScanDevices();

    // Hands the current device to the list of nodes, when it is on USB.
    void ProcessDevData();

    // "usb" stands anywhere in the current device's path.
    bool IsUsbBased();

private:
    void ScanDevice(udev* context, const char* syspath);

    UDevData m_data;        // its device is gone after ScanDevice
    UListNode* m_lists;     // not owned
    UNotifier* m_notifier;  // not owned, may be null
};

}  // namespace dcm::usb
