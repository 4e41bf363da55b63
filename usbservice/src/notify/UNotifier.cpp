#include "notify/UNotifier.h"

#include <cstring>

#include "misc/ULog.h"
#include "platform/dcm.h"
#include "platform/frame.h"
#include "record/Device.h"
#include "record/MonitorMessage.h"
#include "setting/USetting.h"

namespace dcm::usb {

namespace {

// The first packet of a voltage report names no kind of device that media knows; the second, its first word.
constexpr std::uint32_t kVoltageDevType = 6;
constexpr std::uint32_t kVoltagePacketKind = 5000;

// Listeners of storage events that are left out while the port is inactive, in the order of their log lines.
struct GatedListener {
    unsigned long dest;
    const char* name;
};
constexpr GatedListener kGatedListeners[] = {
    {kDestMedia, "media"}, {kDestSpeech, "speech"}, {kDestNavi, "navi"}};

// Low byte of the second record identifier of a socket's faults; index: socket minus one.
constexpr std::uint8_t kOpenCircuit[] = {0x66, 0x68, 0x6A, 0x6C};
constexpr std::uint8_t kShortCircuit[] = {0x67, 0x69, 0x6B, 0x6D};

// What the gates read of a frame message.
std::uint32_t MessageId(const char* buf) {
    std::uint32_t id;
    std::memcpy(&id, buf + offsetof(UMsgHeader, id), sizeof id);
    return id;
}

unsigned char MessagePort(const char* buf) {
    return static_cast<unsigned char>(buf[offsetof(UMsgHeader, port)]) % 10;
}

// Ports of 5 and above have no adaption and count as active.
bool IsInactive(const USetting& setting, unsigned char port) {
    return setting.GetUsbAdaption(port) == USB_ADAPTION_INACTIVE;
}

// Deliberate: packets need a coding above 1, messages to SDCM one above 0.
bool MaySendPacket(const USetting& setting, unsigned char port) {
    return setting.GetUsbCoding() > USB_CODING_1 && !IsInactive(setting, port);
}

UMsgHeader MonitorRequest(E_MSGID id, unsigned char port, std::uint8_t argument = 0) {
    UMsgHeader message{};
    message.sender = SENDER_COMMAND;
    message.id = id;
    message.port = port;
    message.argument = argument;
    return message;
}

DiagHead Head(std::uint8_t service, std::uint8_t rdid1, std::uint8_t rdid2) {
    DiagHead head{};
    head.service = service;
    head.rdid[0] = rdid1;
    head.rdid[1] = rdid2;
    return head;
}

template <typename Record>
char* BytesOf(Record& record) {
    return reinterpret_cast<char*>(&record);
}

}  // namespace

UNotifier::UNotifier() {
    if (!DcmInterface::m_pInstance) DcmInterface::m_pInstance = new DcmInterface;
    DcmInterface* const platform = DcmInterface::m_pInstance;
    m_process = platform->GetKipcSP();
    if (!m_process) ULOG(LOG_FAILED, "process is null");
    m_usb_message = platform->GetMessageQueue(DcmInterface::QUEUE_USB);
    if (!m_usb_message) ULOG(LOG_FAILED, "usb_message is null");
    m_sdcm_message = platform->GetMessageQueue(DcmInterface::QUEUE_SDCM);
    if (!m_sdcm_message) ULOG(LOG_FAILED, "sdcm_message is null");
    m_monitor_message = platform->GetMessageQueue(DcmInterface::QUEUE_MONITOR);
    if (!m_monitor_message) ULOG(LOG_FAILED, "monitor_message is null");
    m_setting = USetting::GetInstance();
}

UNotifier::~UNotifier() = default;

void UNotifier::Push2USB(unsigned long src, unsigned int size, char* buf) {
    if (size < sizeof(UMsgHeader) || !buf || !m_setting || !m_usb_message) {
        ULOG(LOG_FAILED, "wrong size(%d) or no buff(%p) or no setting(%p) or no message(%p)", size,
             static_cast<void*>(buf), static_cast<void*>(m_setting), static_cast<void*>(m_usb_message));
        return;
    }
    const unsigned char port = MessagePort(buf);
    const std::uint32_t id = MessageId(buf);
    const bool isScan = id == MSGID_USB_SCAN_BEGIN || id == MSGID_USB_SCAN_END;
    if (!isScan && IsInactive(*m_setting, port)) {
        ULOG(LOG_INFO, "not send because of not active port%d adaption(%d)", port,
             m_setting->GetUsbAdaption(port));
        return;
    }
    m_usb_message->push(src, size, buf);
}

void UNotifier::Push2SDCM(unsigned long src, unsigned int size, char* buf) {
    if (size < sizeof(UMsgHeader) || !buf || !m_setting || !m_sdcm_message) {
        ULOG(LOG_FAILED, "wrong size(%d) or no buff(%p) or no setting(%p) or no message(%p)", size,
             static_cast<void*>(buf), static_cast<void*>(m_setting), static_cast<void*>(m_sdcm_message));
        return;
    }
    const unsigned char port = MessagePort(buf);
    const std::uint32_t id = MessageId(buf);
    const bool isScan = id == MSGID_SCAN_BEGIN || id == MSGID_SCAN_END;
    if (!isScan && (IsInactive(*m_setting, port) || m_setting->GetUsbCoding() <= USB_CODING_0)) {
        ULOG(LOG_INFO, "not send because of not active port%d adaption(%d) or invalid coding(%d)", port,
             m_setting->GetUsbAdaption(port), m_setting->GetUsbCoding());
        return;
    }
    m_sdcm_message->push(src, size, buf);
}

// Deliberate: cancellations of an inactive port are dropped like everything else.
void UNotifier::Push2Umonitor(unsigned long src, unsigned int size, char* buf) {
    if (size < sizeof(UMsgHeader) || !buf || !m_setting || !m_monitor_message) {
        ULOG(LOG_FAILED, "wrong size(%d) or no buff(%p) or no setting(%p) or no message(%p)", size,
             static_cast<void*>(buf), static_cast<void*>(m_setting), static_cast<void*>(m_monitor_message));
        return;
    }
    const unsigned char port = MessagePort(buf);
    if (IsInactive(*m_setting, port)) {
        ULOG(LOG_INFO, "not send because of not active port%d adaption(%d)", port,
             m_setting->GetUsbAdaption(port));
        return;
    }
    m_monitor_message->push(src, size, buf);
}

void UNotifier::Send(unsigned long dest, unsigned int size, char* buf) {
    if (size == 0 || !buf || !m_process) {
        ULOG(LOG_FAILED, "wrong size(%d) or no buff(%p) or no message(%p)", size, static_cast<void*>(buf),
             static_cast<void*>(m_process.get()));
        return;
    }
    m_process->send_pkt(dest, size, buf);
}

void UNotifier::Send(st_usb_pkt* packet) {
    if (!packet || !m_setting || !m_process) {
        ULOG(LOG_FAILED, "no pkt(%p) or no setting(%p) or no message(%p)", static_cast<void*>(packet),
             static_cast<void*>(m_setting), static_cast<void*>(m_process.get()));
        return;
    }
    const auto port = static_cast<unsigned char>(packet->port);
    if (!MaySendPacket(*m_setting, port)) {
        ULOG(LOG_INFO, "not send because of not active port%d adaption(%d) or invalid coding(%d)", port,
             m_setting->GetUsbAdaption(port), m_setting->GetUsbCoding());
        return;
    }
    m_process->send_pkt(kDestUsbSet, sizeof *packet, BytesOf(*packet));
}

void UNotifier::Send(st_storage_pkt* packet) {
    if (!packet || !m_setting || !m_process) {
        ULOG(LOG_FAILED, "no pkt(%p) or no setting(%p) or no message(%p)", static_cast<void*>(packet),
             static_cast<void*>(m_setting), static_cast<void*>(m_process.get()));
        return;
    }
    const auto port = static_cast<unsigned char>(packet->port);
    unsigned long dest = kDestStorageSet;
    if (!MaySendPacket(*m_setting, port)) {
        for (const GatedListener& listener : kGatedListeners) {
            if (!(dest & listener.dest)) continue;
            ULOG(LOG_INFO, "not send to %s because of not active port%d adaption(%d) or invalid coding(%d)",
                 listener.name, port, m_setting->GetUsbAdaption(port), m_setting->GetUsbCoding());
            dest &= ~listener.dest;
        }
    }
    if (dest) m_process->send_pkt(dest, sizeof *packet, BytesOf(*packet));
}

void UNotifier::Send(unsigned char port, E_VOLTAGE_SECTION section) {
    if (!m_setting || !m_process) {
        ULOG(LOG_FAILED, "no setting(%p) or no message(%p)", static_cast<void*>(m_setting),
             static_cast<void*>(m_process.get()));
        return;
    }
    if (!MaySendPacket(*m_setting, port)) {
        ULOG(LOG_INFO, "not send because of not active port%d adaption(%d) or invalid coding(%d)", port,
             m_setting->GetUsbAdaption(port), m_setting->GetUsbCoding());
        return;
    }
    ULOG(LOG_INFO, "port:%d volt_section:%d", port, section);
    MediaVoltagePacket media{};
    media.cmd = CMD_VOLTAGE_SECTION;
    media.dev_type = kVoltageDevType;
    media.port = port;
    media.section = section;
    m_process->send_pkt(kDestMedia, sizeof media, BytesOf(media));
    VoltagePacket voltage{};
    voltage.kind = kVoltagePacketKind;
    voltage.port = port;
    voltage.section = section;
    m_process->send_pkt(kDestVoltage, sizeof voltage, BytesOf(voltage));
}

void UNotifier::PushMountError(bool isAdd, unsigned char port, st_storage_pkt* packet) {
    ULOG(LOG_INFO, "isAdd:%d port:%d", isAdd, port);
    UMsgMountError message{};
    message.head = MonitorRequest(isAdd ? MSGID_MOUNT_ERROR_ADD : MSGID_MOUNT_ERROR_DEL, port);
    if (packet) message.packet = *packet;
    Push2Umonitor(kSourceUsb, sizeof message, BytesOf(message));
}

void UNotifier::PushOverCurrent(bool isAdd, unsigned char port, const char* devpath) {
    ULOG(LOG_INFO, "isAdd:%d port:%d devpath:%s", isAdd, port, devpath);
    UMsgOverCurrent message{};
    message.sender = SENDER_COMMAND;
    message.id = isAdd ? MSGID_OVER_CURRENT_ADD : MSGID_OVER_CURRENT_DEL;
    message.port = port;
    CopyText(message.devpath, devpath);
    Push2Umonitor(kSourceUsb, sizeof message, BytesOf(message));
}

void UNotifier::PushVoltage(bool isAdd, unsigned char port, bool isHubDetect) {
    ULOG(LOG_INFO, "isAdd:%d port:%d isHubDetect:%d", isAdd, port, isHubDetect);
    UMsgHeader message = MonitorRequest(isAdd ? MSGID_VOLTAGE_ADD : MSGID_VOLTAGE_DEL, port, isHubDetect);
    Push2Umonitor(kSourceUsb, sizeof message, BytesOf(message));
}

void UNotifier::PushCutting(bool isAdd, UMsgNode* msg) {
    if (!msg) {
        ULOG(LOG_FAILED, "msg is null");
        return;
    }
    ULOG(LOG_INFO, "isAdd:%d port:%d", isAdd, msg->port);
    UMsgNode message = DeviceOf(*msg);
    message.sender = SENDER_COMMAND;
    message.id = isAdd ? MSGID_CUTTING_ADD : MSGID_CUTTING_DEL;
    Push2Umonitor(kSourceUsb, sizeof message, BytesOf(message));
}

void UNotifier::PushChTimeout(bool isAdd, unsigned char port) {
    ULOG(LOG_INFO, "isAdd:%d port:%d", isAdd, port);
    UMsgHeader message = MonitorRequest(isAdd ? MSGID_CH_TIMEOUT_ADD : MSGID_CH_TIMEOUT_DEL, port);
    Push2Umonitor(kSourceUsb, sizeof message, BytesOf(message));
}

void UNotifier::PushCarplayTimeout(bool isAdd, unsigned char port) {
    ULOG(LOG_INFO, "isAdd:%d port:%d", isAdd, port);
    UMsgHeader message = MonitorRequest(isAdd ? MSGID_CARPLAY_TIMEOUT_ADD : MSGID_CARPLAY_TIMEOUT_DEL, port);
    Push2Umonitor(kSourceUsb, sizeof message, BytesOf(message));
}

void UNotifier::PushCarplayCapa(bool isAdd, unsigned char port) {
    ULOG(LOG_INFO, "isAdd:%d port:%d", isAdd, port);
    UMsgHeader message = MonitorRequest(isAdd ? MSGID_CARPLAY_CAPA_ADD : MSGID_CARPLAY_CAPA_DEL, port);
    Push2Umonitor(kSourceUsb, sizeof message, BytesOf(message));
}

void UNotifier::SendExternalOpticalStatus() {
    DiagByte packet{Head(kDiagService, 0x51, 0xEC), 0xFF};
    ULOG(LOG_INFO, "status[%x]", packet.value);
    Send(kDestDiagnosis, sizeof packet, BytesOf(packet));
}

void UNotifier::SendExternalOpticalErrorCode() {
    DiagErrorCode packet{Head(kDiagService, 0x10, 0x05), {0xFF, 0xFF, 0xFF}};
    ULOG(LOG_INFO, "status[%x%x%x]", packet.value[0], packet.value[1], packet.value[2]);
    Send(kDestDiagnosis, sizeof packet, BytesOf(packet));
}

void UNotifier::SendStatusCommunication(bool on) {
    DiagByte packet{Head(kDiagService, 0x18, 0xE8), on};
    ULOG(LOG_INFO, "status[%x]", packet.value);
    Send(kDestDiagnosis, sizeof packet, BytesOf(packet));
}

void UNotifier::SendDeviceState(StDiagUsbDeviceStateData& data) {
    ULOG(LOG_INFO, "p[%x]s[%x]c[%x]s[%x]p[%x]v[%x]p[%x]c[%x]", data.power, data.speed, data.usb_class,
         data.sub_class, data.protocol, data.vid, data.pid, data.connected);
    DiagDeviceState packet{};
    packet.head = Head(kDiagService, 0x18, 0x5D);
    packet.power = data.power;
    packet.speed = data.speed;
    packet.usb_class = data.usb_class;
    packet.sub_class = data.sub_class;
    packet.protocol = data.protocol;
    packet.vid = data.vid;
    packet.pid = data.pid;
    packet.connected = data.connected;
    packet.unused = 0xFF;
    Send(kDestDiagnosis, sizeof packet, BytesOf(packet));
}

void UNotifier::SendOverCurrent(bool present) {
    DiagByte packet{Head(kDiagService, 0x24, 0x7C), static_cast<std::uint8_t>(present ? 0xFF : 0x00)};
    ULOG(LOG_INFO, "over_current[%x]", packet.value);
    Send(kDestDiagnosis, sizeof packet, BytesOf(packet));
}

void UNotifier::SendFaultyCommunication(unsigned char result) {
    DiagByte packet{Head(kDiagFault, 0x06, 0x65), result};
    ULOG(LOG_INFO, "result[%x]", packet.value);
    Send(kDestDiagnosis, sizeof packet, BytesOf(packet));
}

// Deliberate: a socket that does not exist is passed over without a word here, and logged below.
void UNotifier::SendSocketOpenCircuit(unsigned char port, bool result) {
    if (port == 0 || port > sizeof kOpenCircuit) return;
    DiagByte packet{Head(kDiagFault, 0x06, kOpenCircuit[port - 1]), result};
    ULOG(LOG_INFO, "port[%x] result[%x]", port, packet.value);
    Send(kDestDiagnosis, sizeof packet, BytesOf(packet));
}

void UNotifier::SendSocketShortCircuit(unsigned char port, bool result) {
    if (port == 0 || port > sizeof kShortCircuit) {
        ULOG(LOG_FAILED, "invalid RDID_2");
        return;
    }
    DiagByte packet{Head(kDiagFault, 0x06, kShortCircuit[port - 1]), result};
    ULOG(LOG_INFO, "port[%x] result[%x]", port, packet.value);
    Send(kDestDiagnosis, sizeof packet, BytesOf(packet));
}

void UNotifier::SendDiagnosisTestResult(bool ok) {
    DiagByte packet{Head(kDiagRoutine, 0x80, 0xAA), static_cast<std::uint8_t>(ok ? 1 : 2)};
    ULOG(LOG_INFO, "result[%x]", packet.value);
    Send(kDestDiagnosis, sizeof packet, BytesOf(packet));
}

void UNotifier::SendDiagHubSupport(bool supported) {
    DiagByte packet{Head(kDiagService, 0x80, 0xAA), !supported};
    ULOG(LOG_INFO, "not_support[%x]", packet.value);
    Send(kDestDiagnosis, sizeof packet, BytesOf(packet));
}

void UNotifier::SendMountCheckResult(bool result, const char* mnt_path) {
    ULOG(LOG_INFO, "result:%x mnt_path:%s", result, mnt_path);
    MountCheckResult packet{{0x82, 0x31, 0x01}, result, {}};
    if (result) CopyText(packet.mount_path, mnt_path);
    Send(kDestTestInterface, sizeof packet, BytesOf(packet));
}

}  // namespace dcm::usb
