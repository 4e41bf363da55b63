#include "node/UNodeUsb.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "misc/ULog.h"
#include "misc/UMisc.h"
#include "node/UListNode.h"
#include "notify/UNotifier.h"
#include "record/Device.h"
#include "record/DiagPacket.h"
#include "record/FrameMessage.h"
#include "record/StatusRecord.h"
#include "setting/USetting.h"

namespace dcm::usb {

const char* const UNodeUsb::kStringPowerLevelPath = "/power/level";
const char* const UNodeUsb::kStringNumInterfacePath = "/bNumInterfaces";
const char* const UNodeUsb::kStringManuFacturerPath = "/manufacturer";
const char* const UNodeUsb::kStringSerialPath = "/serial";
const char* const UNodeUsb::kStringProductPath = "/product";
const char* const UNodeUsb::kStringSpeedPath = "/speed";
const char* const UNodeUsb::kStringInterfaceClassPath = "/bInterfaceClass";
const char* const UNodeUsb::kStringInterfaceNumberPath = "/bInterfaceNumber";
const char* const UNodeUsb::kStringInterfaceProtocolPath = "/bInterfaceProtocol";
const char* const UNodeUsb::kStringInterfaceSubClassPath = "/bInterfaceSubClass";
const char* const UNodeUsb::kStringNumEndpointsPath = "/bNumEndpoints";
const char* const UNodeUsb::kStringInterfacePath = "/interface";
const char* const UNodeUsb::kOvercurrentCheckPath1 = "/usb1/1-1/1-1.1";
const char* const UNodeUsb::kOvercurrentCheckPath2 = "/usb1/1-1/1-1.2";
const char* const UNodeUsb::kStringOverCurrent = "overcurrent";

const UNodeUsb::Performer UNodeUsb::kPerformers[DEV_TYPE_INPUT + 1] = {
    &UNodeUsb::PerformDeviceNone,         &UNodeUsb::PerformDeviceUnsupported,
    &UNodeUsb::PerformDeviceHub,          &UNodeUsb::PerformDeviceExtCDRom,
    &UNodeUsb::PerformDeviceSD,           &UNodeUsb::PerformDeviceStorage,
    &UNodeUsb::PerformDeviceApple,        nullptr,
    &UNodeUsb::PerformDeviceAppleShuttle, &UNodeUsb::PerformDeviceAndroid,
    &UNodeUsb::PerformDeviceMTP,          nullptr,
    &UNodeUsb::PerformDeviceInput,
};

UNodeUsb::UNodeUsb(E_SUBSYSTEM subsystem, const char* devpath, UNotifier* notifier)
    : UNode(subsystem, devpath, notifier),
      m_lists(USingleton<UListNode>::GetInstance()),
      m_setting(USingleton<USetting>::GetInstance()) {}

UNodeUsb::~UNodeUsb() {
    if (m_usb_devtype == USB_DEVTYPE_DEVICE) Perform(ACTION_REMOVE);
    UString::DestroyString(&m_manufacturer);
    UString::DestroyString(&m_serial);
    UString::DestroyString(&m_product);
}

const UNodeUsb* UNodeUsb::AsInterface(const UNode* node) {
    if (!node || node->GetSubSystem() != SUBSYSTEM_USB) return nullptr;
    const auto* usb = static_cast<const UNodeUsb*>(node);
    return usb->GetUsbDevType() == USB_DEVTYPE_INTERFACE ? usb : nullptr;
}

void UNodeUsb::ActionAdd(UEventData* event) {
    if (!event) {
        ULOG(LOG_FAILED, "event_data is null");
        return;
    }
    event->PrintData(false);
    unsigned short vid = m_vid;
    unsigned short pid = m_pid;
    event->GetProduct(&vid, &pid);
    m_usb_devtype = event->GetUsbDevType();
    m_vid = vid;
    m_pid = pid;
    m_port.UpdatePort(m_devpath);

    if (m_usb_devtype == USB_DEVTYPE_DEVICE)
        ActionAddDevice();
    else if (m_usb_devtype == USB_DEVTYPE_INTERFACE)
        ActionAddInterface(event);
    else
        ULOG(LOG_REFUSED, "unknown type:%d", m_usb_devtype.load());
}

void UNodeUsb::ActionChange(UEventData* event) {
    if (!event) {
        ULOG(LOG_FAILED, "event_data is null");
        return;
    }
    if (event->GetCustomEvent() != 1) return;
    if (m_notifier)
        m_notifier->PushOverCurrent(true, event->GetCustomEventPort(), m_devpath);
    else
        ULOG(LOG_FAILED, "notifier is null");
    NotifyEventToMedia(CMD_ERROR, SUB_CMD_OVER_CURRENT, DEV_TYPE_ANY);
}

// Other threads' finders hand the texts out: they change under the list's lock.
void UNodeUsb::SetText(char*& member, char* text) {
    if (!m_lists) {
        ULOG(LOG_FAILED, "lists is null");
        UString::DestroyString(&text);
        return;
    }
    m_lists->ReplaceText(member, text);
}

void UNodeUsb::UpdateSpeed() {
    const int speed = UString::GetInterfaceString2Value(m_devpath, kStringSpeedPath);  // Mb/s
    if (speed > 479)
        m_speed = kSpeedHigh;
    else if (speed >= 12)
        m_speed = kSpeedFull;
    else if (speed < 1)
        m_speed = kSpeedUnknown;
    else
        m_speed = kSpeedLow;
}

void UNodeUsb::ActionAddDevice() {
    m_num_interfaces = UString::GetInterfaceString2Value(m_devpath, kStringNumInterfacePath);
    SetText(m_manufacturer, UString::GetInterfaceString(m_devpath, kStringManuFacturerPath));
    char* serial = UString::GetInterfaceString(m_devpath, kStringSerialPath);
    if (!serial) {
        char ids[32];
        std::snprintf(ids, sizeof ids, "%x_%x", m_vid.load(), m_pid.load());
        serial = UString::CreateString(ids);
    }
    SetText(m_serial, serial);
    SetText(m_product, UString::GetInterfaceString(m_devpath, kStringProductPath));
    UpdateSpeed();
    ULOG(LOG_INFO, "vid:%x pid:%x manufacturer:%s product:%s serial:%s numInterfaces:%d speed:%d",
         m_vid.load(), m_pid.load(), m_manufacturer, m_product, m_serial, m_num_interfaces, m_speed.load());
    ShowStatus();
    CheckUdevOvercurrent();
}

void UNodeUsb::ActionAddInterface(UEventData* event) {
    if (!event) {
        ULOG(LOG_FAILED, "event_data is null");
        return;
    }
    if (!m_lists) {
        ULOG(LOG_FAILED, "lists is null");
        return;
    }
    // Two hexadecimal digits each; what cannot be read is -1, kept as 0xff.
    const auto number = [this](const char* attribute) {
        return static_cast<std::uint8_t>(UString::GetInterfaceValue(m_devpath, attribute));
    };
    m_interface_class = number(kStringInterfaceClassPath);
    m_interface_number = number(kStringInterfaceNumberPath);
    m_interface_protocol = number(kStringInterfaceProtocolPath);
    m_interface_sub_class = number(kStringInterfaceSubClassPath);
    m_num_endpoints = number(kStringNumEndpointsPath);
    SetText(m_manufacturer, UString::GetInterfaceString(m_devpath, kStringInterfacePath));
    ULOG(LOG_INFO, "vid:%x pid:%x class:%x,%x interfaceNum:%d numEndPoints:%d interfaceStr:%s", m_vid.load(),
         m_pid.load(), m_interface_class.load(), m_interface_sub_class.load(), m_interface_number.load(),
         m_num_endpoints.load(), m_manufacturer);

    auto* device = static_cast<UNodeUsb*>(m_lists->FindParentUsbDeviceNode(this));
    if (!device) {
        ULOG(LOG_REFUSED, "parent doesn't exist");
        return;
    }
    device->UpdateNumInterfaces();
    ULOG(LOG_INFO, "total_interface_num:%d cur_interface_num:%d", device->m_num_interfaces,
         m_interface_number.load());
    // Deliberate: the highest number counts as the last to arrive, whichever others are missing.
    if (m_interface_number == device->m_num_interfaces - 1) device->Perform(ACTION_ADD);
}

void UNodeUsb::UpdateNumInterfaces() {
    const int number = UString::GetInterfaceString2Value(m_devpath, kStringNumInterfacePath);
    if (number <= 0) {
        ULOG(LOG_FAILED, "cant' get the num of interface");  // Deliberate: the spelling.
        return;
    }
    if (number == m_num_interfaces) return;
    ULOG(LOG_INFO, "%p, %d -> %d", static_cast<void*>(this), m_num_interfaces, number);
    m_num_interfaces = number;
}

void UNodeUsb::Perform(E_ACTION action) {
    if (!m_lists || !m_notifier) {
        ULOG(LOG_FAILED, "lists(%p) or notifier(%p) is null", static_cast<void*>(m_lists),
             static_cast<void*>(m_notifier));
        return;
    }
    // A removal comes from the destructor, with the list's lock held: it asks nothing of the list.
    if (action == ACTION_ADD && m_lists->FindChildNode(this, m_interfaces) > 0) {
        m_dev_type = m_classifier.CheckGroup(m_vid, m_pid, m_interfaces);
        const UNodeUsb* first = AsInterface(m_interfaces.front());
        m_usb_class = first ? first->GetInterfaceClass() : std::uint8_t{0};
        ShowStatus();
    }
    const E_DEV_TYPE type = m_dev_type;
    if (type <= DEV_TYPE_INPUT) {
        const Performer performer = kPerformers[type];
        if (performer)
            (this->*performer)(action);
        else
            ULOG(LOG_FAILED, "performer is null, dev_type:%d", type);
    }
    if (type != DEV_TYPE_HUB) NotifyDeviceStateToDiag(action);
    m_interfaces.clear();  // the children may go before this is called again
}

void UNodeUsb::PerformDeviceNone(E_ACTION action) {
    ULOG(LOG_INFO, "action:%d", action);
    if (action != ACTION_ADD && action != ACTION_REMOVE) ULOG(LOG_REFUSED, "unknown action:%d", action);
}

void UNodeUsb::PerformDeviceExtCDRom(E_ACTION action) {
    PerformDeviceNone(action);
}

void UNodeUsb::PerformDeviceSD(E_ACTION action) {
    PerformDeviceNone(action);
}

void UNodeUsb::PerformDeviceUnsupported(E_ACTION action) {
    ULOG(LOG_INFO, "action:%d", action);
    if (action == ACTION_ADD) {
        NotifyEventToMedia(CMD_ERROR, SUB_CMD_UNSUPPORTED_DEVICE, DEV_TYPE_ANY);
        NotifyNodeRemovalToUsb(true);
    } else if (action == ACTION_REMOVE) {
        NotifyEventToMedia(CMD_DETACH, SUB_CMD_NONE, DEV_TYPE_ANY);
    } else {
        ULOG(LOG_REFUSED, "unknown action:%d", action);
    }
}

void UNodeUsb::PerformDeviceInput(E_ACTION action) {
    ULOG(LOG_INFO, "action:%d", action);
    if (!m_setting) {
        ULOG(LOG_FAILED, "setting is null");
        return;
    }
    if (action == ACTION_ADD) {
        NotifyEventToMedia(CMD_ERROR, SUB_CMD_UNSUPPORTED_DEVICE, DEV_TYPE_ANY);
        NotifyNodeRemovalToUsb(false);
    } else if (action == ACTION_REMOVE) {
        NotifyEventToMedia(CMD_DETACH, SUB_CMD_NONE, DEV_TYPE_ANY);
    } else {
        ULOG(LOG_REFUSED, "unknown action:%d", action);
    }
}

void UNodeUsb::PerformWithPort(E_ACTION action) {
    ULOG(LOG_INFO, "action:%d", action);
    if (action == ACTION_ADD)
        NotifyEventToUsb(MSGID_USB_ADD);
    else if (action == ACTION_REMOVE)
        NotifyEventToUsb(MSGID_USB_REMOVE);
    else
        ULOG(LOG_REFUSED, "unknown action:%d", action);
}

void UNodeUsb::PerformDeviceStorage(E_ACTION action) {
    PerformWithPort(action);
}

void UNodeUsb::PerformDeviceApple(E_ACTION action) {
    PerformWithPort(action);
}

void UNodeUsb::PerformDeviceAppleShuttle(E_ACTION action) {
    PerformWithPort(action);
}

void UNodeUsb::PerformDeviceAndroid(E_ACTION action) {
    PerformWithPort(action);
}

void UNodeUsb::PerformDeviceMTP(E_ACTION action) {
    PerformWithPort(action);
}

void UNodeUsb::PerformDeviceHub(E_ACTION action) {
    ULOG(LOG_INFO, "action:%d", action);
    if (!m_notifier) {
        ULOG(LOG_FAILED, "notifier is null");
        return;
    }
    if (action != ACTION_ADD && action != ACTION_REMOVE) {
        ULOG(LOG_REFUSED, "unknown action:%d", action);
        return;
    }
    const std::uint32_t hub = m_classifier.CheckHub(m_vid, m_pid);
    switch (hub) {
        case UDevClassifier::HUB_TWO_PORT_604:
        case UDevClassifier::HUB_TWO_PORT_4924:
        case UDevClassifier::HUB_TWO_PORT_4504:
            PerformTwoPortHub(action, hub);
            return;
        case UDevClassifier::HUB_I2C_2530:
        case UDevClassifier::HUB_I2C_4940:
            PerformI2cHub(action);
            return;
        case UDevClassifier::HUB_CUSTOMER:
            PerformCustomerHub(action);
            return;
        default:
            ULOG(LOG_INFO, "action:%d hub:%d", action, hub);
            return;
    }
}

void UNodeUsb::PerformTwoPortHub(E_ACTION action, std::uint32_t hub) {
    ULOG(LOG_INFO, "action:%d ka 2port hub:%d", action, hub);
    if (action == ACTION_ADD) {
        if (UPort::m_hub_max_port != 0) return;
        UPort::m_hub_max_port = 2;
        m_notifier->SendStatusCommunication(false);
        m_notifier->SendFaultyCommunication(0);
        return;
    }
    if (UPort::m_hub_max_port != 2) return;
    UPort::m_hub_max_port = 0;
    m_notifier->SendStatusCommunication(true);
    m_notifier->SendFaultyCommunication(1);
    m_notifier->SendDiagHubSupport(false);
    m_notifier->PushOverCurrent(false, 0, m_devpath);
    NotifyResetHubToUsb();
}

void UNodeUsb::PerformI2cHub(E_ACTION action) {
    if (action == ACTION_REMOVE) {
        m_notifier->PushVoltage(false, 0, false);
        return;
    }
    if (m_serial && std::strstr(m_serial, "604")) {
        ULOG(LOG_INFO, "max current is 2.1A because of 604 hub");
        UPort::m_max_current = 0;
    }
    m_notifier->SendDiagHubSupport(
        true);  // the hub's own function answered: whatever its part number, it is there
    m_notifier->PushVoltage(true, 0, false);
}

void UNodeUsb::PerformCustomerHub(E_ACTION action) {
    ULOG(LOG_INFO, "action:%d customer hub", action);
    // Deliberate: told as an unsupported device, not as a hub.
    if (action == ACTION_ADD) {
        NotifyEventToMedia(CMD_ERROR, SUB_CMD_CUSTOMER_HUB, DEV_TYPE_UNSUPPORTED);
        NotifyNodeRemovalToUsb(false);
        return;
    }
    NotifyEventToMedia(CMD_DETACH, SUB_CMD_NONE, DEV_TYPE_UNSUPPORTED);
}

UMsgNode UNodeUsb::Describe() const {
    UMsgNode device{};
    device.port = GetPort();
    device.dev_type = m_dev_type;
    device.vid = m_vid;
    device.pid = m_pid;
    device.usb_class = m_usb_class;
    device.speed = m_speed;
    CopyText(device.serial, m_serial);
    CopyText(device.product, m_product);
    CopyText(device.manufacturer, m_manufacturer);
    CopyText(device.devpath, m_devpath);
    return device;
}

void UNodeUsb::ShowStatus() {
    m_status.Show(STATUS_DEVICE, StatusOf(Describe()));
}

void UNodeUsb::NotifyEventToUsb(dcm::E_MSGID id) {
    if (!m_notifier) {
        ULOG(LOG_FAILED, "notifier is null");
        return;
    }
    UMsgNode message = Describe();
    message.sender = SENDER_EVENT;
    message.id = id;
    ULOG(LOG_INFO, "msgID:%d dev_type:%d port:%d vid:%x pid:%x class:%x speed:%d", id, m_dev_type.load(),
         GetPort(), m_vid.load(), m_pid.load(), m_usb_class.load(), m_speed.load());
    ULOG(LOG_INFO, "serial:%s product:%s manu:%s dev_path:%s", m_serial, m_product, m_manufacturer,
         m_devpath);
    m_notifier->Push2USB(kSourceUsb, sizeof message, reinterpret_cast<char*>(&message));
}

void UNodeUsb::NotifyEventToMedia(E_CMD cmd, E_SUB_CMD sub, E_DEV_TYPE type) {
    if (!m_notifier) {
        ULOG(LOG_FAILED, "notifier is null");
        return;
    }
    st_usb_pkt packet = MediaPacketOf(cmd, sub, Describe());
    if (type != DEV_TYPE_ANY) packet.dev_type = type;
    ULOG(LOG_INFO, "cmd:%d sub_cmd:%d dev_type:%d port:%d vid:%x pid:%x support:%d:%d:%d class:%x speed:%d",
         packet.cmd, packet.sub_cmd, packet.dev_type, packet.port, packet.vid, packet.pid, packet.support[0],
         packet.support[1], packet.support[2], packet.usb_class, packet.speed);
    ULOG(LOG_INFO, "serial:%s product:%s manu:%s dev_path:%s", m_serial, m_product, m_manufacturer,
         m_devpath);
    m_notifier->Send(&packet);
}

void UNodeUsb::PushPortMessage(dcm::E_MSGID id, std::uint8_t port) {
    UMsgHeader message{};
    message.sender = SENDER_EVENT;
    message.id = id;
    message.port = port;
    m_notifier->Push2USB(kSourceUsb, sizeof message, reinterpret_cast<char*>(&message));
}

void UNodeUsb::NotifyNodeRemovalToUsb(bool force) {
    if (!m_notifier) {
        ULOG(LOG_FAILED, "notifier is null");
        return;
    }
    if (!m_setting) {
        ULOG(LOG_FAILED, "setting is null");
        return;
    }
    const std::uint32_t customer_hub_support = m_setting->GetCustomerHubSupport();
    if (!force && customer_hub_support != 0) {
        ULOG(LOG_REFUSED, "don't remove it because customer_hub is supported");
        return;
    }
    ULOG(LOG_INFO, "remove it. isForce:%d customer_hub_support:%d path:%s port:%d", force,
         customer_hub_support, m_devpath, GetPort());
    PushPortMessage(MSGID_REMOVE_USB, GetPort());
}

void UNodeUsb::NotifyResetHubToUsb() {
    if (!m_notifier) {
        ULOG(LOG_FAILED, "notifier is null");
        return;
    }
    ULOG(LOG_INFO, "reset hub");
    PushPortMessage(MSGID_RESET_HUB, 0);
}

void UNodeUsb::NotifyDeviceStateToDiag(E_ACTION action) {
    if (!m_notifier) {
        ULOG(LOG_FAILED, "notifier is null");
        return;
    }
    StDiagUsbDeviceStateData data;
    std::memset(&data, 0xff, sizeof data);
    if (action == ACTION_ADD) {
        FillAttached(data);
    } else if (action == ACTION_REMOVE) {
        data.connected = 0;
    } else {
        ULOG(LOG_REFUSED, "unknown action:%d", action);
        return;
    }
    m_notifier->SendDeviceState(data);
}

void UNodeUsb::FillAttached(StDiagUsbDeviceStateData& data) {
    char* power_level = UString::GetInterfaceString(m_devpath, kStringPowerLevelPath);
    const UNodeUsb* first = m_interfaces.empty() ? nullptr : AsInterface(m_interfaces.front());
    data.power = UString::IsSameString(power_level, "on") ? 1 : 0;
    data.speed = m_speed;
    data.usb_class = first ? first->GetInterfaceClass() : 0;
    data.sub_class = first ? first->GetInterfaceSubClass() : 0;
    data.protocol = first ? first->GetInterfaceProtocol() : 0;
    data.vid = m_vid;
    data.pid = m_pid;
    data.connected = 1;
    ULOG(LOG_INFO, "power_level:%s speed:%d", power_level, m_speed.load());
    UString::DestroyString(&power_level);
}

// A device that is plugged in while its port reports an over-current already will see no event of it.
void UNodeUsb::CheckUdevOvercurrent() {
    const char* const host = UPort::GetBoardHostPath();
    if (!UString::IsParentString(host, m_devpath)) return;
    const char* const below = m_devpath + std::strlen(host);
    if (!UString::IsSameString(below, kOvercurrentCheckPath1) &&
        !UString::IsSameString(below, kOvercurrentCheckPath2))
        return;  // on no port of the internal hub itself
    char attribute[64];
    std::snprintf(attribute, sizeof attribute, "/usb1/1-1/1-1:1.0/1-1-port%d/%s", GetPort() % 10,
                  kStringOverCurrent);
    const int overcurrent = UString::GetInterfaceValue(host, attribute);
    ULOG(LOG_INFO, "%s%s overcurrent:%d", host, attribute, overcurrent);
    if (overcurrent != 1) return;
    if (m_notifier)
        m_notifier->PushOverCurrent(true, GetPort(), m_devpath);
    else
        ULOG(LOG_FAILED, "notifier is null");
    NotifyEventToMedia(CMD_ERROR, SUB_CMD_OVER_CURRENT, DEV_TYPE_ANY);
}

void UNodeUsb::RunEngPopup() {
    ULOG(LOG_INFO, "Open Eng Popup");
    if (USpawn::RunCmd("/usr/bin/run_engineering-popup.sh USB") != 0) {
        const int error = errno;
        ULOG(LOG_FAILED, "error in OpenEngPopup %s", std::strerror(error));
    }
    sleep(2);
    ULOG(LOG_INFO, "Close Eng Popup");
    if (USpawn::RunCmd("killall engineering-popup") != 0) {
        const int error = errno;
        ULOG(LOG_FAILED, "error in CloseEngPopup %s", std::strerror(error));
    }
}

}  // namespace dcm::usb
