// A list of nodes below a made-up /sys, whose notifier speaks into a recording platform. Plugs in and out
// what a test describes, as the event sources do.
#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "board/UPort.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "node/UListNode.h"
#include "node/UNodeUsb.h"
#include "notify/UNotifier.h"
#include "setting/USetting.h"
#include "support/FakeEvent.h"
#include "support/Format.h"
#include "support/MemoryStore.h"
#include "support/RecordingPlatform.h"
#include "support/SysTree.h"

namespace test {

inline const std::string kHost = "/devices/soc/7600000.hsusb/7600000.dwc3/xhci-hcd.0.auto";
inline const std::string kHub = kHost + "/usb1/1-1";
inline const std::string kPort1 = kHub + "/1-1.1";
inline const std::string kPort2 = kHub + "/1-1.2";
inline const std::string kPort32 = kHub + "/1-1.2/1-1.2.3";

inline constexpr unsigned kUsb = dcm::DcmInterface::QUEUE_USB;
inline constexpr unsigned kMonitor = dcm::DcmInterface::QUEUE_MONITOR;

inline Bytes Join(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

// A text in a field of a record: zeros behind it.
inline Bytes Field(const std::string& text, std::size_t size) {
    Bytes bytes(text.begin(), text.end());
    bytes.resize(size);
    return bytes;
}

// One interface as sysfs shows it; an empty text is a missing attribute.
struct Interface {
    std::string usb_class = "ff";
    std::string sub_class = "00";
    std::string protocol = "00";
    std::string endpoints = "02";
    std::string name = "";
};

struct Device {
    unsigned short vid = 0;
    unsigned short pid = 0;
    std::vector<Interface> interfaces = {};
    std::string manufacturer = "";
    std::string product = "";
    std::string serial = "";
    std::string speed = "480";
};

class NodeBench : public ::testing::Test {
protected:
    void SetUp() override {
        dcm::usb::UListNode::Release();
        ResetPlatform();
        ResetStore();
        dcm::usb::UPort::m_hub_max_port = 0;
        dcm::usb::UPort::m_max_current = 1;
        dcm::usb::UPort::m_board_type = 4;  // the host controller is kHost
        m_notifier.emplace();
        List();
        ClearLogs();
    }

    void TearDown() override {
        dcm::usb::UListNode::Release();
        m_notifier.reset();
        ResetStore();
        dcm::usb::UPort::m_hub_max_port = 0;
        dcm::usb::UPort::m_max_current = 1;
        dcm::usb::UPort::m_board_type = 0;
    }

    dcm::usb::UListNode& List() { return *dcm::usb::UListNode::GetInstance(); }
    dcm::usb::UNotifier* Notifier() { return &*m_notifier; }

    dcm::usb::UNode* Insert(dcm::usb::E_SUBSYSTEM subsystem, const std::string& path) {
        return List().InsertNode(subsystem, path.c_str(), Notifier());
    }
    // A node of the silent kind: its deletion tells nobody anything.
    dcm::usb::UNode* Insert(const std::string& path) { return Insert(dcm::usb::SUBSYSTEM_NET, path); }

    dcm::usb::UNode* Find(const std::string& path) { return List().FindNode(path.c_str()); }
    void Remove(const std::string& path) { List().RemoveNode(path.c_str()); }

    dcm::usb::UNode* Add(FakeEvent& event) {
        dcm::usb::UNode* node = Insert(event.subsystem, event.devpath);
        if (node) node->ActionAdd(&event);
        return node;
    }

    static FakeEvent DeviceEvent(const std::string& path, const Device& device) {
        FakeEvent event;
        event.devpath = path;
        event.usb_devtype = dcm::usb::USB_DEVTYPE_DEVICE;
        event.vid = device.vid;
        event.pid = device.pid;
        return event;
    }

    static std::string InterfacePath(const std::string& path, std::size_t number) {
        return path + path.substr(path.rfind('/')) + Format(":1.%zu", number);
    }

    // The device alone: its attributes, and its event.
    dcm::usb::UNodeUsb* AddDevice(const std::string& path, const Device& device) {
        Attribute(path + "/bNumInterfaces", Format("%2zu", device.interfaces.size()));
        Attribute(path + "/manufacturer", device.manufacturer);
        Attribute(path + "/product", device.product);
        Attribute(path + "/serial", device.serial);
        Attribute(path + "/speed", device.speed);
        FakeEvent event = DeviceEvent(path, device);
        return static_cast<dcm::usb::UNodeUsb*>(Add(event));
    }

    dcm::usb::UNodeUsb* AddInterface(const std::string& path, const Device& device, std::size_t number) {
        const Interface& interface = device.interfaces.at(number);
        const std::string below = InterfacePath(path, number);
        Attribute(below + "/bInterfaceClass", interface.usb_class);
        Attribute(below + "/bInterfaceNumber", Format("%02zx", number));
        Attribute(below + "/bInterfaceProtocol", interface.protocol);
        Attribute(below + "/bInterfaceSubClass", interface.sub_class);
        Attribute(below + "/bNumEndpoints", interface.endpoints);
        Attribute(below + "/interface", interface.name);
        FakeEvent event = DeviceEvent(below, device);
        event.usb_devtype = dcm::usb::USB_DEVTYPE_INTERFACE;
        return static_cast<dcm::usb::UNodeUsb*>(Add(event));
    }

    // The device with all its interfaces, in the kernel's order.
    dcm::usb::UNodeUsb* PlugIn(const std::string& path, const Device& device) {
        dcm::usb::UNodeUsb* node = AddDevice(path, device);
        for (std::size_t number = 0; number < device.interfaces.size(); ++number)
            AddInterface(path, device, number);
        return node;
    }

    // As the kernel tells it: leaves first.
    void Unplug(const std::string& path, std::size_t interfaces) {
        while (interfaces > 0)
            Remove(InterfacePath(path, --interfaces));
        Remove(path);
    }

    void Attribute(const std::string& path, const std::string& text) {
        if (text.empty())
            m_sys.Remove(path);
        else
            m_sys.Set(path, text + "\n");
    }

    // What waits for the command frame, without the details: id and port.
    static std::vector<std::pair<unsigned, unsigned>> PortMessages() {
        std::vector<std::pair<unsigned, unsigned>> messages;
        for (const Queued& queued : Drain(kUsb))
            messages.emplace_back(queued.bytes.at(4), queued.bytes.at(8));
        return messages;
    }

    static void SetCustomerHubSupport(std::uint32_t support) {
        const dcm::usb::StShmUsbCertPersist persist{support};
        dcm::usb::USetting::GetInstance()->SetUsbCertPersist(&persist);
        ClearLogs();
    }

    SysTree& Sys() { return m_sys; }

private:
    SysTree m_sys;
    std::optional<dcm::usb::UNotifier> m_notifier;
};

}  // namespace test
