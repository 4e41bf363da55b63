#include "node/UDevClassifier.h"

#include <cstring>
#include <iterator>

#include "access/UDevAccessor.h"
#include "misc/ULog.h"
#include "node/UNodeUsb.h"
#include "platform/mtp.h"

namespace dcm::usb {

// Names and ids as the vehicle's maker keeps them, misspellings included.
const UDevClassifier::KnownDevice UDevClassifier::kBlackList[18] = {
    {"", 0x2721, "", 0xec00},
    {"Standard Microsystems Corp.", 0x0424, "", 0x4040},
    {"Standard Microsystems Corp.", 0x0424, "", 0x2530},
    {"Standard Microsystems Corp.", 0x0424, "LAN9500/LAN9500i", 0x9500},
    {"", 0x1e2d, "", 0x0055},
    {"", 0x1e2d, "", 0x0060},
    {"Japan Radio Company", 0x1145, "", 0x0008},
    {"Future Technology", 0x0403, "FT232 Serial (UART) IC", 0x6001},
    {"Future Technology", 0x0403, "FT4232H Quad HS USB-UART/FIFO IC", 0x6011},
    {"OMEGA TECHNOLOGY", 0x1c9e, "", 0x9b05},
    {"OMEGA TECHNOLOGY", 0x1c9e, "", 0x7605},
    {"Asix", 0x0b95, "AX88179 Gigabit Ethernet", 0x1790},
    {"Asix", 0x0b95, "AX88772A Fast Ethernet", 0x772a},
    {"Research In Motion, Ltd.", 0x0fca, "Blackberry", 0x8004},
    {"Logitech", 0x046d, "", 0x081b},
    {"Logitech", 0x046d, "Logitech USB Headset", 0x0a0b},
    {"USB-IF non-workshop", 0x1a0a, "", 0x0201},
    {"", 0x0009, "", 0x0000},
};

const UDevClassifier::KnownDevice UDevClassifier::kWhiteList[5] = {
    {"Realtek", 0x0bda, "RTL8152 Fast Ethernet Adapter", 0x8152},
    {"Realtek", 0x0bda, "RTL8153 Gigabit Ethernet Adapter", 0x8153},
    {"D-Link", 0x2001, "DUB-E100 Fast Ethernet Adapter(rev.B1)", 0x3c05},
    {"D-Link", 0x2001, "DUB-E100 Fast Ethernet Adapter(rev.C1)", 0x1a02},
    {"D-Link", 0x2001, "D-Link DUB-1312", 0x4a00},
};

const UDevClassifier::KnownDevice UDevClassifier::kStorageDeviceList[17] = {
    {"Sony Corp.", 0x054c, "Micro Vault 64M Mass Storage", 0x008b},
    {"Sony Corp.", 0x054c, "Micro Vault 1.0G Mass Storage", 0x019e},
    {"Sony Corp.", 0x054c, "MicroVault Flash Drive", 0x0243},
    {"Toshiba Corp", 0x0930, "2.5 External Hard Disk", 0x01bf},
    {"Toshiba Corp", 0x0930, "PX1220E-1G25 External hard drive", 0x0b05},
    {"Toshiba Corp", 0x0930, "PX1396E-3T01 External hard drive", 0x0b09},
    {"Toshiba Corp", 0x0930, "Memory Stick 2GB", 0x1400},
    {"Toshiba Corp", 0x0930, "Memory Stick 64GB", 0x140b},
    {"Toshiba Corp", 0x0930, "Kingston DataTraveler 2.0 USB Stick", 0x6519},
    {"Toshiba Corp", 0x0930, "256M Stick", 0x6532},
    {"Toshiba Corp", 0x0930, "512M Stick", 0x6533},
    {"Toshiba Corp", 0x0930, "Kingston DataTraveler 2.0 Stick (512M)", 0x653c},
    {"Toshiba Corp", 0x0930, "Kingston DataTraveler 2.0 Stick (1GB)", 0x653d},
    {"Toshiba Corp", 0x0930, "Flash Memory", 0x653e},
    {"Toshiba Corp", 0x0930, "TransMemory Flash Memory", 0x6540},
    {"Toshiba Corp", 0x0930, "TransMemory-Mini", 0x6544},
    {"Toshiba Corp", 0x0930, "Kingston DataTraveler 102/2.0", 0x6545},
};

const UDevClassifier::KnownHub UDevClassifier::kHubList[7] = {
    {"Linux", 0x1d6b, "ROOT HUB 2.0", 0x0002, 0},      {"Linux", 0x1d6b, "ROOT HUB 3.0", 0x0003, 0},
    {"Microchip", 0x0424, "3Q8.217.604.B", 0x4503, 1}, {"Microchip", 0x0424, "Internal I2C", 0x2530, 0},
    {"Microchip", 0x0424, "2H7.319.528", 0x4924, 1},   {"Microchip", 0x0424, "8E1.319.528.A", 0x4504, 1},
    {"Microchip", 0x0424, "Internal I2C", 0x4940, 0},
};
static_assert(UDevClassifier::HUB_CUSTOMER == std::size(UDevClassifier::kHubList));

const UDevClassifier::KnownDevice UDevClassifier::kBadBlackList[1] = {
    {"Asix", 0x0b95, "AX88772A Fast Ethernet", 0x772a},
};

// Vendors of phones; any product, so none has a product id here.
const UDevClassifier::KnownDevice UDevClassifier::kAndroidDeviceList[43] = {
    {"Nokia", 0x0421, "series", 0},   {"SONY", 0x0fce, "series", 0},    {"Samsung", 0x04e8, "series", 0},
    {"HTC", 0x0bb4, "series", 0},     {"MCCI", 0x040e, "series", 0},    {"HX", 0x1004, "zeta3", 0},
    {"Google", 0x18d1, "Nexus", 0},   {"PLX", 0x0525, "series", 0},     {"Huawei", 0x12d1, "series", 0},
    {"RIM", 0x0fca, "series", 0},     {"Acer", 0x0502, "series", 0},    {"ASUS", 0x0b05, "series", 0},
    {"Dell", 0x413c, "series", 0},    {"Foxconn", 0x0489, "series", 0}, {"Fujitsu", 0x04c5, "series", 0},
    {"Garim", 0x0912, "series", 0},   {"Haier", 0x201e, "series", 0},   {"Hisense", 0x109b, "series", 0},
    {"HP", 0x03f0, "series", 0},      {"Intel", 0x8087, "series", 0},   {"Ktouch", 0x24e3, "series", 0},
    {"KTtech", 0x2116, "series", 0},  {"Kyocera", 0x0482, "series", 0}, {"Lenovo", 0x17ef, "series", 0},
    {"Moto", 0x22b8, "series", 0},    {"Meizu", 0x2a45, "series", 0},   {"MTK", 0x0e8d, "series", 0},
    {"NEC", 0x0409, "series", 0},     {"Nook", 0x2080, "series", 0},    {"Nvidia", 0x0955, "series", 0},
    {"OTGV", 0x2257, "series", 0},    {"Pantech", 0x10a9, "series", 0}, {"Pega", 0x1d4d, "series", 0},
    {"Philips", 0x0471, "series", 0}, {"PMC", 0x04da, "series", 0},     {"QUAL", 0x05c6, "series", 0},
    {"SK", 0x1f53, "series", 0},      {"Sharp", 0x04dd, "series", 0},   {"Sonyorg", 0x054c, "series", 0},
    {"Tele", 0x2340, "series", 0},    {"Tohsi", 0x0930, "series", 0},   {"Xiaomi", 0x2717, "series", 0},
    {"ZTE", 0x19d2, "series", 0},
};

namespace {

constexpr std::uint16_t kHubVendor = 0x0424;  // the vehicle's hubs, and whatever else this vendor makes
constexpr std::uint16_t kCdDriveVendor = 0x2166;
constexpr std::uint16_t kCdDriveProduct = 0x000c;
constexpr std::uint16_t kAppleVendor = 0x05ac;
constexpr std::uint16_t kApplePhones = 0x1200;  // high byte of the product id; others are shuttles

// Interface classes, as the USB consortium numbers them.
constexpr std::uint8_t kClassHid = 0x03;
constexpr std::uint8_t kClassPhysical = 0x05;
constexpr std::uint8_t kClassStillImage = 0x06;
constexpr std::uint8_t kClassMassStorage = 0x08;
constexpr std::uint8_t kClassHub = 0x09;
constexpr std::uint8_t kClassSmartCard = 0x0b;
constexpr std::uint8_t kClassContentSecurity = 0x0d;
constexpr std::uint8_t kClassHealthcare = 0x0f;
constexpr std::uint8_t kClassDiagnostic = 0xdc;
constexpr std::uint8_t kClassWireless = 0xe0;
constexpr std::uint8_t kClassApplication = 0xfe;
constexpr std::uint8_t kClassVendor = 0xff;
constexpr std::uint8_t kUnsupportedClasses[] = {kClassPhysical,   kClassSmartCard,  kClassContentSecurity,
                                                kClassHealthcare, kClassDiagnostic, kClassWireless,
                                                kClassApplication};
constexpr std::uint8_t kProtocolKeyboard = 1;
constexpr std::uint8_t kProtocolMouse = 2;
constexpr std::uint8_t kMtpEndpoints = 3;  // bulk in, bulk out, interrupt in

bool IsUnsupportedClass(std::uint8_t usb_class) {
    for (const std::uint8_t unsupported : kUnsupportedClasses)
        if (usb_class == unsupported) return true;
    return false;
}

template <std::size_t rows>
bool Lists(const UDevClassifier::KnownDevice (&list)[rows], std::uint16_t vid, std::uint16_t pid) {
    for (const UDevClassifier::KnownDevice& row : list)
        if (row.vid == vid && (row.pid == pid || row.pid == 0)) return true;
    return false;
}

}  // namespace

UDevClassifier::UDevClassifier() : m_accessor(USingleton<UDevAccessor>::GetInstance()) {}

bool UDevClassifier::IsBlackList(std::uint16_t vid, std::uint16_t pid) {
    return Lists(kBlackList, vid, pid);
}

bool UDevClassifier::IsWhiteList(std::uint16_t vid, std::uint16_t pid) {
    return Lists(kWhiteList, vid, pid);
}

bool UDevClassifier::IsAndroidDevice(std::uint16_t vid) {
    for (const KnownDevice& row : kAndroidDeviceList) {
        if (row.vid != vid) continue;
        ULOG(LOG_INFO, "Android device %s, %s", row.vendor_name, row.product_name);
        return true;
    }
    return false;
}

bool UDevClassifier::IsStorageDevice(std::uint16_t vid, std::uint16_t pid) {
    for (const KnownDevice& row : kStorageDeviceList) {
        if (row.vid != vid || row.pid != pid) continue;
        ULOG(LOG_INFO, "Storage device %s, %s", row.vendor_name, row.product_name);
        return true;
    }
    return false;
}

bool UDevClassifier::IsMTPByTable(std::uint16_t vid, std::uint16_t pid) {
    const char* vendor_name = nullptr;
    const char* product_name = nullptr;
    unsigned int flags = 0;
    if (get_vendor_product_flag(vid, pid, &vendor_name, &product_name, &flags) != 0) return false;
    ULOG(LOG_INFO, "chk mtp device %s, %s", vendor_name, product_name);
    return true;
}

std::uint32_t UDevClassifier::CheckHub(std::uint16_t vid, std::uint16_t pid) {
    std::uint32_t index = 0;
    for (const KnownHub& row : kHubList) {
        if (row.vid == vid && row.pid == pid) {
            ULOG(LOG_INFO, " %s %s support", row.vendor_name, row.product_name);
            return index;
        }
        ++index;
    }
    return HUB_CUSTOMER;
}

E_DEV_TYPE UDevClassifier::CheckGroup(std::uint16_t vid, std::uint16_t pid, std::vector<UNode*>& interfaces) {
    if (vid == kHubVendor) {
        ULOG(LOG_INFO, "this is hub device");
        return DEV_TYPE_HUB;
    }
    if (IsBlackList(vid, pid)) {
        ULOG(LOG_INFO, "this is blacklist device");
        return DEV_TYPE_UNSUPPORTED;
    }
    if (IsWhiteList(vid, pid)) {
        ULOG(LOG_INFO, "this is whitelist device");
        return DEV_TYPE_NONE;
    }
    if (vid == kCdDriveVendor && pid == kCdDriveProduct) {
        ULOG(LOG_INFO, "this is cdda device");
        return DEV_TYPE_EXT_CDROM;
    }
    if (vid == kAppleVendor) {
        if ((pid & 0xff00) == kApplePhones) {
            ULOG(LOG_INFO, "this is apple device");
            return DEV_TYPE_APPLE;
        }
        ULOG(LOG_INFO, "this is apple shuttle device");
        return DEV_TYPE_APPLE_SHUTTLE;
    }

    const bool mtp = IsMTPByTable(vid, pid);
    bool storage = false;
    for (const UNode* node : interfaces) {
        const E_DEV_TYPE type = CheckInterface(vid, pid, node, mtp, &storage);
        if (type != DEV_TYPE_NONE) return type;
    }
    if (!storage) return CheckVendor(vid);
    if (IsStorageDevice(vid, pid)) {
        ULOG(LOG_INFO, "this is white storage device");
        return DEV_TYPE_STORAGE;
    }
    const E_DEV_TYPE type = CheckVendor(vid);
    if (type != DEV_TYPE_NONE) return type;
    ULOG(LOG_INFO, "this is storage device");
    return DEV_TYPE_STORAGE;
}

// What this interface alone makes of its device; DEV_TYPE_NONE when the others decide.
E_DEV_TYPE UDevClassifier::CheckInterface(std::uint16_t vid, std::uint16_t pid, const UNode* node, bool mtp,
                                          bool* storage) {
    const UNodeUsb* interface = UNodeUsb::AsInterface(node);
    const std::uint8_t usb_class = interface ? interface->GetInterfaceClass() : 0;
    const std::uint8_t sub_class = interface ? interface->GetInterfaceSubClass() : 0;
    const std::uint8_t endpoints = interface ? interface->GetNumEndpoints() : 0;
    ULOG(LOG_DETAIL, "usb_interface v[%2x]p[%2x]c[%x]s[%x]ne[%d]", vid, pid, usb_class, sub_class, endpoints);
    if (!interface) return DEV_TYPE_NONE;

    if (usb_class == kClassHub) {
        ULOG(LOG_INFO, "this is hub device");
        return DEV_TYPE_HUB;
    }
    if (IsUnsupportedClass(usb_class)) {
        ULOG(LOG_INFO, "this is unsupported device. class:%x subclass:%x", usb_class, sub_class);
        return DEV_TYPE_UNSUPPORTED;
    }
    const std::uint8_t protocol = interface->GetInterfaceProtocol();
    if (usb_class == kClassHid && (protocol == kProtocolKeyboard || protocol == kProtocolMouse)) {
        ULOG(LOG_INFO, "this is input device. class:%x protocol:%x", usb_class, protocol);
        return DEV_TYPE_INPUT;
    }
    if (endpoints == kMtpEndpoints) {
        const char* name = interface->GetInterfaceString();
        if (mtp || (name && std::strcmp(name, "MTP") == 0) || usb_class == kClassStillImage ||
            usb_class == kClassVendor) {
            ULOG(LOG_INFO, "this is mtp device");
            return DEV_TYPE_MTP;
        }
    }
    if (usb_class == kClassMassStorage) *storage = true;
    return DEV_TYPE_NONE;
}

E_DEV_TYPE UDevClassifier::CheckVendor(std::uint16_t vid) {
    if (!IsAndroidDevice(vid)) return DEV_TYPE_NONE;
    ULOG(LOG_INFO, "this is phone device");
    return DEV_TYPE_PHONE;
}

}  // namespace dcm::usb
