// One uevent as the kernel sent it. Filled and read on the event frame's thread.
#pragma once

#include "node/UEventData.h"

namespace dcm::usb {

// Owns no text: the buffer that was parsed must outlive every getter call.
class UNetLinkData : public UEventData {
public:
    // Takes over one message of `len` bytes: a head, then lines of key and value with a NUL behind each.
    // Every place is looked at, not only the starts of lines, and of several equal keys the last one counts,
    // so that a key inside another line's value wins over the key before it. A value ends at its NUL and a
    // key may reach over the end of the message, so that behind the `len` bytes the buffer goes on with at
    // least 16 zero bytes. A negative `len` has the first place looked at.
    void ParseData(char* buf, int len);

    void PrintData(bool summary) override;
    E_ACTION GetAction() override;
    E_SUBSYSTEM GetSubSystem() override;
    const char* GetDevPath() override { return m_values[KEY_DEVPATH]; }
    int GetUsbDevType() override;
    int GetBlockDevType() override;
    const char* GetDevName() override { return m_values[KEY_DEVNAME]; }
    void GetProduct(unsigned short* vendor, unsigned short* product) override;
    int GetCustomEvent() override;
    unsigned char GetCustomEventPort() override;
    int GetEnumerate() override;

private:
    void PrintSummary() const;
    void PrintDetails() const;

    const char* m_values[kUeventKeys] = {};  // index: E_UEVENT_KEY; null where the message had no such key
};

}  // namespace dcm::usb
