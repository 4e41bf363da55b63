// A USB device or one of its interfaces. The device decides what it is when its last interface has come, and
// tells everybody whom that concerns; when it is deleted, it tells them that it is gone.
#pragma once

#include <cstdint>
#include <vector>

#include "misc/Relaxed.h"
#include "node/UDevClassifier.h"
#include "node/UNode.h"
#include "platform/status.h"
#include "record/DeviceType.h"
#include "record/MediaPacket.h"
#include "record/MessageId.h"

namespace dcm::usb {

class UListNode;
class USetting;
struct StDiagUsbDeviceStateData;

// Event frame's thread; deleted with the list's lock held. Any thread: the getters of numbers.
class UNodeUsb : public UNode {
public:
    // Attributes below the device's path.
    static const char* const kStringPowerLevelPath;
    static const char* const kStringNumInterfacePath;
    static const char* const kStringManuFacturerPath;
    static const char* const kStringSerialPath;
    static const char* const kStringProductPath;
    static const char* const kStringSpeedPath;
    static const char* const kStringInterfaceClassPath;
    static const char* const kStringInterfaceNumberPath;
    static const char* const kStringInterfaceProtocolPath;
    static const char* const kStringInterfaceSubClassPath;
    static const char* const kStringNumEndpointsPath;
    static const char* const kStringInterfacePath;
    // The two ports of the internal hub, below the host controller, and the attribute of their hub's ports.
    static const char* const kOvercurrentCheckPath1;
    static const char* const kOvercurrentCheckPath2;
    static const char* const kStringOverCurrent;

    static constexpr std::uint8_t kSpeedHigh = 2;  // 480 Mb/s and more
    static constexpr std::uint8_t kSpeedFull = 1;  // 12 Mb/s and more
    static constexpr std::uint8_t kSpeedLow = 0;
    static constexpr std::uint8_t kSpeedUnknown = 0xff;

    UNodeUsb(E_SUBSYSTEM subsystem, const char* devpath, UNotifier* notifier);
    ~UNodeUsb() override;

    void ActionAdd(UEventData* event) override;
    void ActionChange(UEventData* event) override;

    // The node as a USB interface, or null when it is something else.
    static const UNodeUsb* AsInterface(const UNode* node);

    int GetUsbDevType() const { return m_usb_devtype; }  // E_USB_DEVTYPE
    std::uint16_t GetVid() const { return m_vid; }
    std::uint16_t GetPid() const { return m_pid; }
    E_DEV_TYPE GetDevType() const { return m_dev_type; }      // of a device
    std::uint8_t GetUsbClass() const { return m_usb_class; }  // of a device's first interface
    std::uint8_t GetSpeed() const { return m_speed; }         // of a device
    std::uint8_t GetInterfaceClass() const { return m_interface_class; }
    std::uint8_t GetInterfaceNumber() const { return m_interface_number; }
    std::uint8_t GetInterfaceProtocol() const { return m_interface_protocol; }
    std::uint8_t GetInterfaceSubClass() const { return m_interface_sub_class; }
    std::uint8_t GetNumEndpoints() const { return m_num_endpoints; }
    int GetNumInterfaces() const { return m_num_interfaces; }

    // Null when the device has none. Other threads copy them under the list's lock.
    const char* GetManufacturer() const { return m_manufacturer; }
    const char* GetInterfaceString() const { return m_manufacturer; }
    const char* GetSerial() const { return m_serial; }
    const char* GetProduct() const { return m_product; }

    // ACTION_ADD each time the last interface arrives, also when only the interfaces came back.
    void Perform(E_ACTION action);

    void PerformDeviceNone(E_ACTION action);
    void PerformDeviceUnsupported(E_ACTION action);
    void PerformDeviceHub(E_ACTION action);
    void PerformDeviceExtCDRom(E_ACTION action);
    void PerformDeviceSD(E_ACTION action);
    void PerformDeviceStorage(E_ACTION action);
    void PerformDeviceApple(E_ACTION action);
    void PerformDeviceAppleShuttle(E_ACTION action);
    void PerformDeviceAndroid(E_ACTION action);
    void PerformDeviceMTP(E_ACTION action);
    void PerformDeviceInput(E_ACTION action);

    void NotifyEventToUsb(dcm::E_MSGID id);
    void NotifyEventToMedia(E_CMD cmd, E_SUB_CMD sub, E_DEV_TYPE type);  // DEV_TYPE_ANY: the node's own
    void NotifyNodeRemovalToUsb(bool force);
    void NotifyResetHubToUsb();
    void NotifyDeviceStateToDiag(E_ACTION action);

    void CheckUdevOvercurrent();
    void UpdateNumInterfaces();
    void RunEngPopup();  // takes two seconds; not called by the service

protected:
    using Performer = void (UNodeUsb::*)(E_ACTION action);
    static const Performer kPerformers[DEV_TYPE_INPUT + 1];  // index: E_DEV_TYPE; null: no such device

    void ActionAddDevice();
    void ActionAddInterface(UEventData* event);
    void SetText(char*& member, char* text);
    void UpdateSpeed();
    void PerformWithPort(E_ACTION action);
    void PerformTwoPortHub(E_ACTION action, std::uint32_t hub);
    void PerformI2cHub(E_ACTION action);
    void PerformCustomerHub(E_ACTION action);
    UMsgNode Describe() const;  // as messages carry it
    void ShowStatus();
    void FillAttached(StDiagUsbDeviceStateData& data);
    void PushPortMessage(dcm::E_MSGID id, std::uint8_t port);

    Relaxed<int> m_usb_devtype{USB_DEVTYPE_NONE};
    Relaxed<std::uint16_t> m_vid{0};
    Relaxed<std::uint16_t> m_pid{0};
    Relaxed<E_DEV_TYPE> m_dev_type{DEV_TYPE_NONE};

    int m_num_interfaces = 0;                    // device
    Relaxed<std::uint8_t> m_interface_class{0};  // this and the four below: interface; 0xff: not readable
    Relaxed<std::uint8_t> m_interface_number{0};
    Relaxed<std::uint8_t> m_interface_protocol{0};
    Relaxed<std::uint8_t> m_interface_sub_class{0};
    Relaxed<std::uint8_t> m_num_endpoints{0};

    char* m_manufacturer = nullptr;  // owned; of an interface its own description
    char* m_serial = nullptr;        // owned
    char* m_product = nullptr;       // owned
    Relaxed<std::uint8_t> m_usb_class{0};
    Relaxed<std::uint8_t> m_speed{kSpeedLow};
    UDevClassifier m_classifier;
    UListNode* m_lists;                // not owned
    USetting* m_setting;               // not owned
    std::vector<UNode*> m_interfaces;  // the device's children, while Perform(ACTION_ADD) runs
    status::Row m_status;              // of a device
};

}  // namespace dcm::usb
