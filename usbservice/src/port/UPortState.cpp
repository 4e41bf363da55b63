#include "port/UPortState.h"

#include <cstring>

#include "misc/ULog.h"
#include "misc/UMisc.h"
#include "notify/UNotifier.h"
#include "record/Device.h"
#include "record/SdcmRecord.h"
#include "record/StatusRecord.h"

namespace dcm::usb {
namespace {

constexpr std::uint16_t kAccessoryVid = 0x18D1;
constexpr std::uint16_t kAccessoryPids[] = {0x2D00, 0x2D01};
constexpr std::uint16_t kAccessoryAudioBit = 0x0004;  // the same with audio

constexpr int kCarLifeInterface = 3111;
constexpr const char* kHostPort1Path =
    "/devices/platform/17300000.usb/17300000.dwc3/xhci-hcd.4.auto/usb1/1-1/1-1.1";
constexpr const char* kHostPort2Path =
    "/devices/platform/17300000.usb/17300000.dwc3/xhci-hcd.4.auto/usb1/1-1/1-1.2";

template <typename Record>
char* BytesOf(Record& record) {
    return reinterpret_cast<char*>(&record);
}

// Both are fields of records of the same size.
template <std::size_t size>
bool IsSame(const char (&a)[size], const char (&b)[size]) {
    return std::strncmp(a, b, size) == 0;
}

}  // namespace

const char* const UPortState::kStateName[kStateCount] = {
    "STATE_DETACH",       "STATE_ATTACH",       "STATE_CP_SUPPORT",   "STATE_AA_CHANGING",
    "STATE_ML_CHANGING",  "STATE_CP_CHANGING",  "STATE_CL_CHANGING",  "STATE_RESETTING",
    "STATE_AA",           "STATE_ML",           "STATE_CP",           "STATE_CL",
    "STATE_AA_RESETTING", "STATE_ML_RESETTING", "STATE_CP_RESETTING", "STATE_CL_RESETTING",
};

UPortState::UPortState(std::uint8_t port, UNotifier* notifier)
    : m_port(port),
      m_notifier(notifier),
      m_lists(USingleton<UListNode>::GetInstance()),
      m_dev_accessor(USingleton<UDevAccessor>::GetInstance()) {
    m_device.port = port;
    if (pthread_mutex_init(&m_mutex, nullptr) != 0) ULOG(LOG_FAILED, "failed to init mutex");
    ShowStatus();
}

UPortState::~UPortState() {
    pthread_mutex_destroy(&m_mutex);
}

void UPortState::SetState(E_CON_STATE state) {
    if (state >= kStateCount) {
        ULOG(LOG_FAILED, "state(%d) is wrong", state);
        return;
    }
    ULOG(LOG_INFO, "port%d %s->%s", m_port, kStateName[m_state], kStateName[state]);
    if (state != m_state) m_since_ns = status::NowNs();
    pthread_mutex_lock(&m_mutex);
    m_state = state;
    pthread_mutex_unlock(&m_mutex);
    ShowStatus();
}

void UPortState::UpdateNode(UMsgNode* msg) {
    if (!HasMessage(msg)) return;
    m_device = DeviceOf(*msg);
    m_device.port = m_port;
    ULOG(LOG_INFO, "devtype:%d vid:%x pid:%x class:%x speed:%x manu:%s serial:%s product:%s path:%s",
         m_device.dev_type, m_device.vid, m_device.pid, m_device.usb_class, m_device.speed,
         m_device.manufacturer, m_device.serial, m_device.product, m_device.devpath);
    ShowStatus();
}

void UPortState::UpdateNode(UMsgChMode* msg) {
    if (!HasMessage(msg)) return;
    CopyText(m_devid, msg->devid, sizeof msg->devid);
    ULOG(LOG_INFO, "devid:%s", m_devid);
    if (msg->vid == m_device.vid && msg->pid == m_device.pid && IsSame(msg->serial, m_device.serial) &&
        IsSame(msg->devpath, m_device.devpath))
        return;
    ULOG(LOG_REFUSED, "why is difference? vid:%x,%x pid:%x,%x serial:%s,%s devpath:%s,%s", msg->vid,
         m_device.vid, msg->pid, m_device.pid, msg->serial, m_device.serial, msg->devpath, m_device.devpath);
}

// The first node of the first type that has one.
bool UPortState::FindNode(std::initializer_list<E_DEV_TYPE> types, FoundUsbNode& found) {
    for (const E_DEV_TYPE type : types)
        if (m_lists->FindUsbNode(UnitPort(), type, found)) return true;
    return false;
}

std::optional<FoundUsbNode> UPortState::GetUsbNode(UMsgChMode* msg, E_DEV_TYPE type) {
    if (!m_lists) {
        ULOG(LOG_FAILED, "lists is null");
        return std::nullopt;
    }
    if (!HasMessage(msg)) return std::nullopt;
    FoundUsbNode node{};
    bool found = false;
    switch (type) {
        case DEV_TYPE_APPLE:
            found = FindNode({DEV_TYPE_APPLE}, node);
            break;
        case DEV_TYPE_PHONE:
            found = FindNode({DEV_TYPE_PHONE, DEV_TYPE_MTP}, node);
            break;
        case DEV_TYPE_STORAGE:
            found = FindNode({DEV_TYPE_PHONE, DEV_TYPE_MTP, DEV_TYPE_STORAGE}, node);
            break;
        default:
            ULOG(LOG_REFUSED, "type isn't available");
    }
    if (!found) return std::nullopt;
    if (node.vid != msg->vid || node.pid != msg->pid) {
        ULOG(LOG_REFUSED, "vid(%x %x) or pid(%x %x) is different", msg->vid, node.vid, msg->pid, node.pid);
        return std::nullopt;
    }
    return node;
}

// --- what the phone can do ---

bool UPortState::IsAccessory(std::uint16_t vid, std::uint16_t pid) {
    const std::uint16_t without_audio = pid & ~kAccessoryAudioBit;
    return vid == kAccessoryVid && (without_audio == kAccessoryPids[0] || without_audio == kAccessoryPids[1]);
}

bool UPortState::IsApple() const {
    return m_device.dev_type == DEV_TYPE_APPLE || m_device.dev_type == DEV_TYPE_APPLE_SHUTTLE;
}

bool UPortState::IsAndroid() const {
    return m_device.dev_type == DEV_TYPE_PHONE || m_device.dev_type == DEV_TYPE_MTP;
}

void UPortState::CheckCapability() {
    if (m_state != STATE_DETACH && m_state != STATE_ATTACH)
        ULOG(LOG_REFUSED, "port%d %s, not update", m_port, kStateName[m_state]);
    else if (IsApple())
        UpdateCapability(CAPA_NOT_SUPPORTED, CAPA_NOT_SUPPORTED,
                         CheckCPCapability(m_device.vid, m_device.pid, PhonePort()));
    else if (m_state == STATE_DETACH && IsAndroid())
        UpdateCapability(CheckAACapability(m_device.vid, m_device.pid, PhonePort()), CAPA_SUPPORTED,
                         CAPA_NOT_SUPPORTED);
    else if (m_state == STATE_DETACH && m_device.dev_type == DEV_TYPE_STORAGE)
        UpdateCapability(CAPA_NOT_SUPPORTED, CAPA_SUPPORTED, CAPA_NOT_SUPPORTED);
    ULOG(LOG_INFO, "aa_capa:%d ml_capa:%d cp_capa:%d cl_capa:%d", m_aa_capa, m_ml_capa, m_cp_capa, m_cl_capa);
}

// CarLife is never announced as supported.
void UPortState::UpdateCapability(int aa, int ml, int cp) {
    m_aa_capa = aa;
    m_ml_capa = ml;
    m_cp_capa = cp;
    m_cl_capa = CAPA_NOT_SUPPORTED;
}

int UPortState::CheckAACapability(std::uint16_t vid, std::uint16_t pid, std::uint8_t port) {
    if (!m_dev_accessor) {
        ULOG(LOG_FAILED, "m_dev_accessor is null");
        return CAPA_UNKNOWN;
    }
    if (IsAccessory(vid, pid)) {
        ULOG(LOG_INFO, "aoap mode");
        return CAPA_ACCESSORY;
    }
    return m_dev_accessor->DiscernAACapability(vid, pid, port);
}

int UPortState::CheckCPCapability(std::uint16_t vid, std::uint16_t pid, std::uint8_t port) {
    if (!m_lists) {
        ULOG(LOG_FAILED, "lists is null ");  // Deliberate: the blank at the end.
        return CAPA_UNKNOWN;
    }
    if (!HasAccessor()) return CAPA_UNKNOWN;
    return m_dev_accessor->DiscernCPCapability(vid, pid, port);
}

int UPortState::CheckMLCapability(std::uint16_t vid, std::uint16_t pid, std::uint8_t port) {
    // Deliberate: what the phone answers is not used.
    if (HasAccessor()) m_dev_accessor->DiscernMLCapability(vid, pid, port);
    return CAPA_UNKNOWN;
}

int UPortState::CheckCLCapability(std::uint16_t vid, std::uint16_t pid, std::uint8_t port) {
    if (IsApple()) return CheckCPCapability(vid, pid, port);
    if (IsAndroid()) return CheckAACapability(vid, pid, port);
    return CAPA_UNKNOWN;
}

// --- reports ---

UMsgChMode UPortState::StoredRequest() const {
    UMsgChMode request{};
    request.port = m_port;
    request.vid = m_device.vid;
    request.pid = m_device.pid;
    CopyText(request.serial, m_device.serial);
    CopyText(request.devpath, m_device.devpath);
    CopyText(request.devid, m_devid);
    return request;
}

void UPortState::SendEvent(E_MSGID id, const UMsgNode& about) {
    if (!HasNotifier()) return;
    DeviceEventRecord record{};
    record.sender = SENDER_COMMAND;
    record.id = id;
    record.port = about.port;
    record.dev_type = about.dev_type;
    record.vid = about.vid;
    record.pid = about.pid;
    record.usb_class = about.usb_class;
    record.speed = about.speed;
    record.aa_capa = m_aa_capa;
    record.ml_capa = m_ml_capa;
    record.cp_capa = m_cp_capa;
    record.cl_capa = m_cl_capa;
    CopyText(record.serial, about.serial, sizeof about.serial);
    CopyText(record.product, about.product, sizeof about.product);
    CopyText(record.manufacturer, about.manufacturer, sizeof about.manufacturer);
    CopyText(record.devpath, about.devpath, sizeof about.devpath);
    ULOG(LOG_INFO, "msgID:%d vid:%x pid:%x capa:%d,%d,%d,%d", id, about.vid, about.pid, m_aa_capa, m_ml_capa,
         m_cp_capa, m_cl_capa);
    m_notifier->Push2SDCM(kSourceUsb, sizeof record, BytesOf(record));
}

void UPortState::NotifyEventToSdcm(UMsgNode* msg) {
    if (!HasMessage(msg)) return;
    switch (msg->id) {
        case MSGID_USB_ADD:
            SendEvent(MSGID_DEVICE_ATTACHED, *msg);
            break;
        case MSGID_USB_REMOVE:
            SendEvent(MSGID_DEVICE_DETACHED, *msg);
            break;
        default:
            ULOG(LOG_REFUSED, "unknown msgID:%d", msg->id);
    }
}

void UPortState::NotifyEventToSdcm(E_MSGID id) {
    SendEvent(id, m_device);
}

void UPortState::SendResult(E_MSGID id, E_RESULT result, const char* devid, const UMsgChMode& about) {
    UMsgChMode record{};
    record.sender = SENDER_COMMAND;
    record.id = id;
    record.port = about.port;
    record.vid = about.vid;
    record.pid = about.pid;
    CopyText(record.serial, about.serial, sizeof about.serial);
    CopyText(record.devpath, about.devpath, sizeof about.devpath);
    CopyText(record.devid, devid);
    record.result = result;
    m_notifier->Push2SDCM(kSourceUsb, sizeof record, BytesOf(record));
}

void UPortState::NotifyResultModeOkToSdcm(E_MSGID id, const char* devid, UMsgNode* msg) {
    if (!HasMessage(msg)) return;
    if (!devid) {
        ULOG(LOG_FAILED, "dev_id is null");
        return;
    }
    if (!HasNotifier()) return;
    UMsgChMode about{};
    about.port = msg->port;
    about.vid = msg->vid;
    about.pid = msg->pid;
    CopyText(about.serial, msg->serial, sizeof msg->serial);
    CopyText(about.devpath, msg->devpath, sizeof msg->devpath);
    ULOG(LOG_INFO, "msgID:%d port:%d vid:%x pid:%x", id, about.port, about.vid, about.pid);
    SendResult(id, RESULT_OK, devid, about);
}

void UPortState::NotifyResultModeToSdcm(E_MSGID id, E_RESULT result, UMsgChMode* msg) {
    if (!HasNotifier()) return;
    const UMsgChMode about = msg ? *msg : StoredRequest();
    char devid[sizeof about.devid];
    CopyText(devid, about.devid, sizeof about.devid);
    ULOG(LOG_INFO, "msgID:%d result:%d port:%d vid:%x pid:%x", id, result, about.port, about.vid, about.pid);
    SendResult(id, result, devid, about);
}

void UPortState::NotifyEventToMedia(E_CMD cmd) {
    if (!HasNotifier()) return;
    st_usb_pkt packet = MediaPacketOf(cmd, SUB_CMD_NONE, m_device);
    ULOG(LOG_INFO, "cmd:%d sub_cmd:%d dev_type:%d port:%d vid:%x pid:%x support:%d:%d:%d class:%x speed:%d",
         packet.cmd, packet.sub_cmd, packet.dev_type, packet.port, packet.vid, packet.pid, packet.support[0],
         packet.support[1], packet.support[2], packet.usb_class, packet.speed);
    ULOG(LOG_INFO, "serial:%s product:%s manu:%s dev_path:%s", m_device.serial, m_device.product,
         m_device.manufacturer, m_device.devpath);
    m_notifier->Send(&packet);
}

// --- for tools ---

void UPortState::ShowStatus() {
    PortStatus port{};
    port.since_ns = m_since_ns;
    port.state = m_state;
    port.port = m_port;
    CopyText(port.state_name, kStateName[m_state]);
    if (m_state != STATE_DETACH) port.device = StatusOf(m_device);
    m_status.Show(STATUS_PORT, port);
}

// --- what is missing, where the port stands ---

bool UPortState::HasMessage(const void* msg) const {
    if (!msg) ULOG(LOG_FAILED, "msg is null");
    return msg;
}

bool UPortState::HasNotifier() const {
    if (!m_notifier) ULOG(LOG_FAILED, "notifier is null");
    return m_notifier;
}

bool UPortState::HasAccessor() const {
    if (!m_dev_accessor) ULOG(LOG_FAILED, "dev_accessor is null");
    return m_dev_accessor;
}

void UPortState::LogState() const {
    ULOG(LOG_INFO, "port%d %s", m_port, kStateName[m_state]);
}

void UPortState::LogState(std::uint8_t message_port) const {
    ULOG(LOG_INFO, "port%d %d %s", m_port, message_port % 10, kStateName[m_state]);
}

void UPortState::LogNotSend() const {
    ULOG(LOG_REFUSED, "port%d %s, so not send", m_port, kStateName[m_state]);
}

// Where CarLife runs.
void UPortState::LogBusNumbers() const {
    int bus = 0;
    int device = 0;
    if (m_port == 1 || m_port == 2) {
        const char* const path = m_port == 1 ? kHostPort1Path : kHostPort2Path;
        bus = UString::GetInterfaceValue(path, "/busnum");
        device = UString::GetInterfaceValue(path, "/devnum");
    }
    ULOG(LOG_INFO, "busno:%d devno:%d port:%d interfaceId:%d", bus, device, m_port, kCarLifeInterface);
}

}  // namespace dcm::usb
