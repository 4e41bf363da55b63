// The way to the devices themselves: control transfers to phones, and control of ports and hubs.
#pragma once

#include <pthread.h>

#include "misc/USingleton.h"

namespace dcm::usb {

// Command frame's thread. The operations on phones and ports are not there yet: messages that need them are
// refused by the command frame.
class UDevAccessor : public USingleton<UDevAccessor> {
public:
    UDevAccessor();
    ~UDevAccessor() override;

private:
    pthread_mutex_t m_mutex;  // one operation at a time, so that one libusb context exists at a time
};

}  // namespace dcm::usb
