#include "frame/UFrame.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "access/UDevAccessor.h"
#include "board/UPort.h"
#include "misc/ULog.h"
#include "misc/UMisc.h"
#include "node/UListNode.h"
#include "notify/UNotifier.h"
#include "port/UListPortState.h"
#include "record/FrameMessage.h"
#include "record/Incoming.h"
#include "record/SdcmRecord.h"
#include "setting/USetting.h"

namespace dcm::usb {

namespace {

// Shortest message of each sender.
constexpr unsigned int kMinDcm = 1;
constexpr unsigned int kMinGem = 1;
constexpr unsigned int kMinPower = 3;
constexpr unsigned int kMinTest = 3;
constexpr unsigned int kMinDiag = 5;
constexpr unsigned int kMinMedia = sizeof(MediaCommand);

constexpr std::uint8_t kTestMountCheck = 8;
constexpr std::uint8_t kRoutineStart = 3;  // data of diagnosis' request for the hub's self-test

// What the hub's self-test reads.
constexpr int kDiagNotRun = 255;
constexpr unsigned kDiagSeconds = 1;
struct SocketBits {
    unsigned char socket;
    int in_order;  // clear: open circuit
    int short_circuit;
};
constexpr SocketBits kSocketBits[] = {{1, 0x80, 0x08}, {2, 0x40, 0x04}, {3, 0x20, 0x02}, {4, 0x10, 0x01}};

// The message as a whole record: what is missing at its end is zero, what is too much is left out.
template <typename Record>
Record Receive(unsigned int len, const char* buf) {
    Record record{};
    std::memcpy(&record, buf, std::min<std::size_t>(len, sizeof record));
    return record;
}

bool IsTooShort(unsigned int len, const char* buf, unsigned int least) {
    if (len >= least && buf) return false;
    ULOG(LOG_FAILED, "wrong size(%d) or no str(%p)", len, static_cast<const void*>(buf));
    return true;
}

// A text of another process needs no terminator; ours has one.
template <std::size_t size>
void Terminate(char (&field)[size]) {
    field[size - 1] = '\0';
}

UMsgNode ReceiveNode(unsigned int len, const char* buf) {
    auto message = Receive<UMsgNode>(len, buf);
    Terminate(message.serial);
    Terminate(message.product);
    Terminate(message.manufacturer);
    Terminate(message.devpath);
    return message;
}

UMsgChMode ReceiveMode(unsigned int len, const char* buf) {
    auto message = Receive<UMsgChMode>(len, buf);
    Terminate(message.serial);
    Terminate(message.devpath);
    Terminate(message.devid);
    return message;
}

// Only a change between off and on counts; any other value is left alone.
bool IsSwitchedOn(std::uint32_t before, std::uint32_t now) {
    return before == 0 && now == 1;
}

bool IsSwitchedOff(std::uint32_t before, std::uint32_t now) {
    return before == 1 && now == 0;
}

}  // namespace

UFrame::UFrame(std::shared_ptr<kipc::Interface>& interface, frame::Message* message,
               const std::vector<frame::QueueInfo>& queues)
    : frame::Frame(interface, frame::BLOCK_WAIT, message, queues, nullptr) {
    ULOG(LOG_TRACE, "constructor ptr:%p", static_cast<void*>(this));
    m_notifier = new (std::nothrow) UNotifier;
    if (m_notifier) {
        m_list_port_state = UListPortState::GetInstance();
        m_list_port_state->SetNotifier(m_notifier);
    } else {
        ULOG(LOG_FAILED, "failed to new notifier instance");
    }
    m_lists = UListNode::GetInstance();
    m_setting = USetting::GetInstance();
    m_dev_accessor = UDevAccessor::GetInstance();
}

UFrame::~UFrame() {
    ULOG(LOG_TRACE, "destructor ptr:%p", static_cast<void*>(this));
    if (m_list_port_state) UListPortState::Release();
    delete m_notifier;
}

void UFrame::event_handler(unsigned long src, unsigned int len, char* buf) {
    ULOG(LOG_TRACE, "src:%lx len:%d", src, len);
    if (len == 0 || !buf) return;
    switch (src) {
        case kSourceSettings:
            return HandleGEM(len, buf);
        case kSourceUsb:
            return HandleDcm(len, buf);
        case kDestMedia:
            return HandleMedia(len, buf);
        case kDestTestInterface:
            return HandleTestIface(len, buf);
        case kDestDiagnosis:
            return HandleDiag(len, buf);
        case kDestPower:
            return HandlePower(len, buf);
    }
    ULOG(LOG_REFUSED, "unknown message src:%lx len:%d", src, len);
}

void UFrame::HandleDcm(unsigned int len, char* buf) {
    if (IsTooShort(len, buf, kMinDcm)) return;
    if (!m_list_port_state) {
        ULOG(LOG_FAILED, "list_port_state is null");
        return;
    }
    if (!m_dev_accessor) {
        ULOG(LOG_FAILED, "dev_accessor is null");
        return;
    }
    auto head = Receive<UMsgHeader>(len, buf);
    switch (head.id) {
        case MSGID_REQ_AA_MODE:
        case MSGID_REQ_ML_MODE:
        case MSGID_REQ_CP_MODE:
        case MSGID_REQ_ACL_MODE:
        case MSGID_REQ_ICL_MODE:
        case MSGID_REQ_RESET_MODE: {
            UMsgChMode request = ReceiveMode(len, buf);
            return m_list_port_state->ProcessMode(&request);
        }
        case MSGID_SEARCH:
            return Search(SEARCH_FROM_SDCM);
        case MSGID_USB_ADD:
        case MSGID_USB_REMOVE: {
            UMsgNode device = ReceiveNode(len, buf);
            if (device.sender == SENDER_ITEM) return m_list_port_state->ProcessDeferredUsbDetection(&device);
            return m_list_port_state->ProcessUsbDetection(&device);
        }
        case MSGID_HID_ADD:
        case MSGID_HID_REMOVE:
            return m_list_port_state->ProcessHidDetection(&head);
        case MSGID_TTY_ADD:
        case MSGID_TTY_REMOVE:
        case MSGID_TTY_CHANGE:
            return m_list_port_state->ProcessTtyDetection(&head);
        case MSGID_USB_SCAN_BEGIN:
            return NotifyScanToSdcm(MSGID_SCAN_BEGIN);
        case MSGID_USB_SCAN_END:
            return NotifyScanToSdcm(MSGID_SCAN_END);
        case MSGID_REMOVE_USB:
            m_dev_accessor->StartRemoveUsb(head.port);
            return;
        case MSGID_RESET_HUB:
            return m_dev_accessor->ResetHubPower();
        case MSGID_CH_TIMEOUT:
        case MSGID_CARPLAY_TIMEOUT:
            return m_list_port_state->ProcessTimeout(&head);
        case MSGID_CARPLAY_CAPA:
            return m_list_port_state->ProcessCarplayCapa(&head);
    }
    ULOG(LOG_REFUSED, "unknown msgID:%d", head.id);
}

// For phones on both ports of the unit, whatever was asked for.
void UFrame::Search(E_SEARCH_TRIGGER trigger) {
    for (std::uint8_t port = 1; port <= 2; ++port) {
        UMsgSearch search{};
        search.sender = SENDER_SEARCH;
        search.id = MSGID_SEARCH;
        search.port = port;
        search.argument = trigger;
        m_list_port_state->ProcessSearch(&search);
    }
}

void UFrame::HandleMedia(unsigned int len, char* buf) {
    if (IsTooShort(len, buf, kMinMedia)) return;
    if (!m_list_port_state) {
        ULOG(LOG_FAILED, "list_port_state is null");
        return;
    }
    const auto command = Receive<MediaCommand>(len, buf);
    if (command.cmd != CMD_SEARCH_PHONE) {
        ULOG(LOG_INFO, "unknown cmd:%d", static_cast<std::uint8_t>(command.cmd));
        return;
    }
    ULOG(LOG_INFO, "SEARCH_PHONE dev_type:%d port:%d", command.dev_type, command.port);
    Search(SEARCH_FROM_MEDIA);
}

void UFrame::HandleGEM(unsigned int len, char* buf) {
    if (IsTooShort(len, buf, kMinGem)) return;
    if (!m_list_port_state) {
        ULOG(LOG_FAILED, "list_port_state is null");
        return;
    }
    if (!m_setting) {
        ULOG(LOG_FAILED, "setting is null");
        return;
    }
    const std::string text(buf, strnlen(buf, len));
    if (text.find("shm_usb_cert_persist") != std::string::npos) {  // first: it contains the other name
        m_setting->UpdateUsbCertPersist();
    } else if (text.find("shm_usb_cert") != std::string::npos) {
        UpdateSwitches();
    } else {
        ULOG(LOG_REFUSED, "unknown str:%s", text.c_str());
    }
}

void UFrame::UpdateSwitches() {
    const StShmUsbCert before = m_setting->GetUsbCert();
    m_setting->UpdateUsbCert();
    const StShmUsbCert now = m_setting->GetUsbCert();
    ULOG(LOG_INFO, "test_force_enable1:%d>%d test_force_enable2:%d>%d device_mode1:%d>%d device_mode2:%d>%d",
         before.test_force_enable1, now.test_force_enable1, before.test_force_enable2, now.test_force_enable2,
         before.device_mode1, now.device_mode1, before.device_mode2, now.device_mode2);
    ChangeSignalTest(1, before.test_force_enable1, now.test_force_enable1);
    ChangeSignalTest(2, before.test_force_enable2, now.test_force_enable2);
    ChangeDeviceMode(1, before.device_mode1, now.device_mode1);
    ChangeDeviceMode(2, before.device_mode2, now.device_mode2);
}

void UFrame::ChangeSignalTest(std::uint8_t port, std::uint32_t before, std::uint32_t now) {
    if (IsSwitchedOn(before, now)) m_list_port_state->ProcessSignalQualityTest(port, true);
    if (IsSwitchedOff(before, now)) m_list_port_state->ProcessSignalQualityTest(port, false);
}

void UFrame::ChangeDeviceMode(std::uint8_t port, std::uint32_t before, std::uint32_t now) {
    if (IsSwitchedOn(before, now)) m_list_port_state->ProcessHubMode(port, HUB_DEVICE);
    if (IsSwitchedOff(before, now)) m_list_port_state->ProcessHubMode(port, HUB_HOST);
}

void UFrame::HandlePower(unsigned int len, char* buf) {
    if (IsTooShort(len, buf, kMinPower)) return;
    if (!m_list_port_state) {
        ULOG(LOG_FAILED, "list_port_state is null");
        return;
    }
    const auto power = Receive<PowerNotification>(len, buf);
    const bool isPower = power.command == 0x83 && power.sub_command == 0x91;
    if (isPower && power.kind == 1) {
        ULOG(LOG_INFO, "hmi_power_state:%d hmi_power_event:%d mmi_power_state:%d mmi_power_event:%d",
             power.value[0], power.value[1], power.value[2], power.value[3]);
    } else if (isPower && power.kind == 3) {
        ULOG(LOG_INFO, "clamp 15:%d 50:%d S:%d X:%d", power.value[0], power.value[1], power.value[2],
             power.value[3]);
    } else {
        ULOG(LOG_REFUSED, "unknown packet cmd:%x subcmd:%x,%x", power.command, power.sub_command, power.kind);
    }
}

void UFrame::HandleDiag(unsigned int len, char* buf) {
    if (IsTooShort(len, buf, kMinDiag)) return;
    if (!m_setting) {
        ULOG(LOG_FAILED, "setting is null");
        return;
    }
    const auto request = Receive<DiagRequest>(len, buf);
    const bool isForUs = request.command == 0x83 && request.sub_command == 0x60;
    const bool isData = isForUs && request.service == kDiagService;
    const bool isRoutine = isForUs && request.service == kDiagRoutine;
    if (isData && request.rdid[0] == 0x09 && request.rdid[1] == 0x81) {
        int active[4];
        for (int i = 0; i < 4; ++i)
            active[i] = request.data[i] >> 7;
        // Deliberate: the spelling, which readers of the log look for.
        ULOG(LOG_INFO, "activiation for hub interface_1:%d interface_2:%d interface_3:%d interface_4:%d",
             active[0], active[1], active[2], active[3]);
        for (unsigned char i = 0; i < 4; ++i)
            m_setting->SetUsbAdaption(i + 1, active[i] ? USB_ADAPTION_ACTIVE : USB_ADAPTION_INACTIVE);
    } else if (isData && request.rdid[0] == 0x05 && request.rdid[1] == 0x57) {
        const int coding = request.data[1] >> 6;
        ULOG(LOG_INFO, "media usb configuration: %d", coding);
        m_setting->SetUsbCoding(static_cast<E_USB_CODING>(coding));
    } else if (isRoutine && request.rdid[0] == 0x80 && request.rdid[1] == 0xAA &&
               request.data[0] == kRoutineStart) {
        RunDiagnosisTest();
    } else {
        ULOG(LOG_INFO, "unknown diag packet cmd:%x subcmd:%x,%x rdid:%x,%x", request.command,
             request.sub_command, request.service, request.rdid[0], request.rdid[1]);
    }
}

const char* const UFrame::kStringKaHubDiag = "/ka_hub_diag";

void UFrame::RunDiagnosisTest() {
    if (!m_notifier) {
        ULOG(LOG_FAILED, "notifier is null");
        return;
    }
    if (UPort::m_hub_max_port != 2) {
        ULOG(LOG_FAILED, "the ka hub doesn't exist.");
        m_notifier->SendDiagnosisTestResult(false);
        return;
    }
    if (ControlDiagnosisTest(true)) {
        sleep(kDiagSeconds);
        const int result = UString::GetInterfaceString2Value(UPort::GetBoardHostPath(), kStringKaHubDiag);
        ULOG(LOG_INFO, "result is 0x%x", result);
        if (result != kDiagNotRun) ReportSockets(result);
        m_notifier->SendDiagnosisTestResult(result != kDiagNotRun);
    } else {
        ULOG(LOG_FAILED, "error in diag start %s", std::strerror(errno));
        m_notifier->SendDiagnosisTestResult(false);
    }
    if (!ControlDiagnosisTest(false)) ULOG(LOG_FAILED, "error in diag stop %s", std::strerror(errno));
}

bool UFrame::ControlDiagnosisTest(bool isOn) {
    char command[256] = {};
    std::snprintf(command, sizeof command, "echo %d > /sys%s%s", isOn, UPort::GetBoardHostPath(),
                  kStringKaHubDiag);
    return USpawn::RunCmd(command) == 0;
}

void UFrame::ReportSockets(int result) {
    for (const SocketBits& bits : kSocketBits) {
        m_notifier->SendSocketOpenCircuit(bits.socket, !(result & bits.in_order));
        m_notifier->SendSocketShortCircuit(bits.socket, result & bits.short_circuit);
    }
}

void UFrame::HandleTestIface(unsigned int len, char* buf) {
    if (IsTooShort(len, buf, kMinTest)) return;
    if (!m_notifier) {
        ULOG(LOG_FAILED, "notifier is null");
        return;
    }
    if (!m_lists) {
        ULOG(LOG_FAILED, "lists is null ");  // Deliberate: the trailing blank.
        return;
    }
    const auto command = Receive<TestCommand>(len, buf);
    if (command.head[0] != 0x02 || command.head[1] != 0x31 || command.head[2] != 0x02) {
        ULOG(LOG_REFUSED, "unknown cmd");
        return;
    }
    if (command.extra_command != kTestMountCheck || command.port > 1) {
        ULOG(LOG_REFUSED, "unknown extra_cmd:%d port:%d", command.extra_command, command.port);
        return;
    }
    const std::uint8_t port = command.port + 1;
    char mount_path[sizeof MountCheckResult::mount_path] = {};
    // Only told apart from null: the event frame may delete the node at any moment.
    const UNode* node = m_lists->FindTestMountedBlockNode(port, mount_path, sizeof mount_path);
    if (port == 1)
        ULOG(LOG_INFO, "usb1 mount check node:%p", static_cast<const void*>(node));
    else
        ULOG(LOG_INFO, "usb2 mount check node:%p", static_cast<const void*>(node));
    m_notifier->SendMountCheckResult(node != nullptr, node ? mount_path : nullptr);
}

void UFrame::NotifyScanToSdcm(E_MSGID id) {
    if (!m_notifier) {
        ULOG(LOG_FAILED, "notifier is null");
        return;
    }
    ScanRecord record{SENDER_COMMAND, id, 0};
    ULOG(LOG_INFO, "msgID:%d", id);
    m_notifier->Push2SDCM(kSourceUsb, sizeof record, reinterpret_cast<char*>(&record));
}

}  // namespace dcm::usb
