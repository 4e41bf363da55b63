// A device event made by a test: says what the test put into it.
#pragma once

#include <string>

#include "node/UEventData.h"

namespace test {

struct FakeEvent : dcm::usb::UEventData {
    dcm::usb::E_ACTION action = dcm::usb::ACTION_ADD;
    dcm::usb::E_SUBSYSTEM subsystem = dcm::usb::SUBSYSTEM_USB;
    std::string devpath;
    std::string devname;
    int usb_devtype = dcm::usb::USB_DEVTYPE_NONE;
    int block_devtype = dcm::usb::BLOCK_DEVTYPE_NONE;
    unsigned short vid = 0;
    unsigned short pid = 0;
    int custom_event = 0;
    unsigned char custom_event_port = 0;
    int enumerate = 0;
    int printed_details = 0;  // calls of PrintData(false)
    int printed_summary = 0;  // calls of PrintData(true)

    void PrintData(bool summary) override { ++(summary ? printed_summary : printed_details); }
    dcm::usb::E_ACTION GetAction() override { return action; }
    dcm::usb::E_SUBSYSTEM GetSubSystem() override { return subsystem; }
    const char* GetDevPath() override { return devpath.empty() ? nullptr : devpath.c_str(); }
    int GetUsbDevType() override { return usb_devtype; }
    int GetBlockDevType() override { return block_devtype; }
    const char* GetDevName() override { return devname.empty() ? nullptr : devname.c_str(); }
    void GetProduct(unsigned short* vendor, unsigned short* product) override {
        if (vendor) *vendor = vid;
        if (product) *product = pid;
    }
    int GetCustomEvent() override { return custom_event; }
    unsigned char GetCustomEventPort() override { return custom_event_port; }
    int GetEnumerate() override { return enumerate; }
};

}  // namespace test
