// Decides what kind of device a USB device is, by its ids and its interfaces. Event frame's thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "record/DeviceType.h"

namespace dcm::usb {

class UDevAccessor;
class UNode;

// One in every UNodeUsb.
class UDevClassifier {
public:
    struct KnownDevice {
        const char* vendor_name;
        std::uint16_t vid;
        const char* product_name;
        std::uint16_t pid;  // black and white list: 0 is every product of the vendor
    };
    struct KnownHub {
        const char* vendor_name;
        std::uint16_t vid;
        const char* product_name;
        std::uint16_t pid;
        std::uint8_t flag;  // 1: a part number of the vehicle's own hub
    };

    // Rows of kHubList, as CheckHub gives them.
    enum E_HUB : std::uint32_t {
        HUB_ROOT_2_0 = 0,
        HUB_ROOT_3_0 = 1,
        HUB_TWO_PORT_604 = 2,
        HUB_I2C_2530 = 3,
        HUB_TWO_PORT_4924 = 4,
        HUB_TWO_PORT_4504 = 5,
        HUB_I2C_4940 = 6,
        HUB_CUSTOMER = 7  // in no row
    };

    static const KnownDevice kBlackList[18];
    static const KnownDevice kWhiteList[5];           // network adapters
    static const KnownDevice kStorageDeviceList[17];  // sticks of vendors that stand in the Android list
    static const KnownHub kHubList[7];
    static const KnownDevice kBadBlackList[1];  // kept beside the others; no step reads it
    static const KnownDevice kAndroidDeviceList[43];

    UDevClassifier();
    virtual ~UDevClassifier() = default;

    bool IsBlackList(std::uint16_t vid, std::uint16_t pid);
    bool IsWhiteList(std::uint16_t vid, std::uint16_t pid);
    bool IsAndroidDevice(std::uint16_t vid);
    bool IsStorageDevice(std::uint16_t vid, std::uint16_t pid);
    bool IsMTPByTable(std::uint16_t vid, std::uint16_t pid);
    std::uint32_t CheckHub(std::uint16_t vid, std::uint16_t pid);  // E_HUB

    // `interfaces`: the nodes directly below the device, in list order.
    E_DEV_TYPE CheckGroup(std::uint16_t vid, std::uint16_t pid, std::vector<UNode*>& interfaces);

private:
    E_DEV_TYPE CheckInterface(std::uint16_t vid, std::uint16_t pid, const UNode* node, bool mtp,
                              bool* storage);
    E_DEV_TYPE CheckVendor(std::uint16_t vid);

    [[maybe_unused]] UDevAccessor* m_accessor;  // not owned; no step needs the device itself
};

}  // namespace dcm::usb
