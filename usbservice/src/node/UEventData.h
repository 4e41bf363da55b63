// What a node may ask about a device event, wherever the event came from. Event frame's thread.
#pragma once

#include <cstdint>

namespace dcm::usb {

enum E_ACTION : std::uint32_t {
    ACTION_NONE = 0,
    ACTION_ADD = 1,
    ACTION_REMOVE = 2,
    ACTION_CHANGE = 3,
    ACTION_ONLINE = 4
};

enum E_SUBSYSTEM : std::uint32_t {
    SUBSYSTEM_NONE = 0,
    SUBSYSTEM_MMC = 1,
    SUBSYSTEM_USB = 2,
    SUBSYSTEM_BLOCK = 3,
    SUBSYSTEM_SCSI = 4,
    SUBSYSTEM_SCSI_HOST = 5,
    SUBSYSTEM_SCSI_DISK = 6,
    SUBSYSTEM_SCSI_DEVICE = 7,
    SUBSYSTEM_BDI = 8,
    SUBSYSTEM_MODULE = 9,
    SUBSYSTEM_MISC = 10,
    SUBSYSTEM_DRIVERS = 11,
    SUBSYSTEM_BUS = 12,
    SUBSYSTEM_CLASS = 13,
    SUBSYSTEM_SYSTEM = 14,
    SUBSYSTEM_MXSDHCI = 15,
    SUBSYSTEM_MMC_HOST = 16,
    SUBSYSTEM_SOUND = 17,
    SUBSYSTEM_HID = 18,
    SUBSYSTEM_TTY = 19,
    SUBSYSTEM_USB_DEVICE = 20,
    SUBSYSTEM_SCSI_GENERIC = 21,
    SUBSYSTEM_NET = 22
};

enum E_USB_DEVTYPE : int { USB_DEVTYPE_NONE = 0, USB_DEVTYPE_DEVICE = 1, USB_DEVTYPE_INTERFACE = 2 };
enum E_BLOCK_DEVTYPE : int { BLOCK_DEVTYPE_NONE = 0, BLOCK_DEVTYPE_DISK = 1, BLOCK_DEVTYPE_PARTITION = 2 };

// Keys of a uevent, in the order in which a record keeps them.
enum E_UEVENT_KEY : int {
    KEY_ACTION = 0,
    KEY_DEVPATH = 1,
    KEY_SUBSYSTEM = 2,
    KEY_DEVNAME = 3,
    KEY_DEVTYPE = 4,
    KEY_SEQNUM = 5,
    KEY_BUSNUM = 6,
    KEY_PRODUCT = 7,
    KEY_EVENT = 8,      // from the unit's host driver: over-current
    KEY_PORT_NUM = 9,   // from the unit's host driver: its port
    KEY_ENUMERATE = 10  // from the unit's host driver: a failed enumeration
};
inline constexpr int kUeventKeys = 11;

// The getters never fail: what is absent or unknown reads as 0 or null, with a log line.
class UEventData {
public:
    static const char* const kStringAction[5];        // index: E_ACTION
    static const char* const kStringSubsystem[23];    // index: E_SUBSYSTEM
    static const char* const kStringUsbDevType[3];    // index: E_USB_DEVTYPE
    static const char* const kStringBlockDevType[3];  // index: E_BLOCK_DEVTYPE
    static const char* const kStringCustomEvent[2];
    static const char* const kStringEnumerate[2];
    static constexpr const char* kStringID[kUeventKeys] = {  // index: E_UEVENT_KEY
        "ACTION=", "DEVPATH=", "SUBSYSTEM=", "DEVNAME=",  "DEVTYPE=",  "SEQNUM=",
        "BUSNUM=", "PRODUCT=", "EVENT=",     "PORT_NUM=", "ENUMERATE="};

    virtual ~UEventData() = default;
    virtual void PrintData(bool summary) = 0;
    virtual E_ACTION GetAction() { return ACTION_NONE; }
    virtual E_SUBSYSTEM GetSubSystem() = 0;
    virtual const char* GetDevPath() = 0;  // null when unknown; valid as long as the event is
    virtual int GetUsbDevType() = 0;       // E_USB_DEVTYPE
    virtual int GetBlockDevType() = 0;     // E_BLOCK_DEVTYPE
    virtual const char* GetDevName() = 0;  // null when unknown; valid as long as the event is
    virtual void GetProduct(unsigned short* vendor,
                            unsigned short* product) = 0;  // nothing written: not known
    virtual int GetCustomEvent() = 0;                      // 1: over-current
    virtual unsigned char GetCustomEventPort() = 0;
    virtual int GetEnumerate() = 0;  // 1: the enumeration failed
};

}  // namespace dcm::usb
