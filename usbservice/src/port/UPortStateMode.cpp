// Requests of SDCM and media, timers, engineering menu.
#include "misc/ULog.h"
#include "notify/UNotifier.h"
#include "port/ModeRoad.h"
#include "port/UPortState.h"

namespace dcm::usb {
namespace {

// This phone needs MirrorLink's command twice.
constexpr std::uint16_t kTwiceVid = 0x0525;
constexpr std::uint16_t kTwicePid = 0xA4A0;

constexpr int kAccepted = 0;
constexpr int kRefused = 1;

// What starting a mode may give beside failures.
constexpr int kStarted = 0;
constexpr int kAlreadyRunning = 1;

}  // namespace

// --- requests for a mode ---

int UPortState::RefuseChange(E_MSGID id, UMsgChMode* msg) {
    ULOG(LOG_REFUSED, "port%d %s, so can't change", m_port, kStateName[m_state]);
    NotifyResultModeToSdcm(id, RESULT_FAILED, msg);
    return kRefused;
}

int UPortState::RefuseMissing(const char* phone, E_MSGID id, UMsgChMode* msg) {
    ULOG(LOG_REFUSED, "%s device doesn't exist", phone);
    NotifyResultModeToSdcm(id, RESULT_FAILED, msg);
    return kRefused;
}

void UPortState::ProcessAAMode(UMsgChMode* msg) {
    StartAccessory(msg, kAndroidAuto);
}

void UPortState::ProcessACLMode(UMsgChMode* msg) {
    StartAccessory(msg, kCarLife);
}

void UPortState::StartAccessory(UMsgChMode* msg, const ModeRoad& road) {
    if (!msg) {
        ULOG(LOG_FAILED, "msg is null ");  // Deliberate: the blank at the end, and no answer.
        return;
    }
    if (!HasAccessor() || !HasNotifier()) {
        NotifyResultModeToSdcm(road.result, RESULT_FAILED, msg);
        return;
    }
    LogState();
    if (m_state == road.running) {
        ULOG(LOG_INFO, "already aoap");
        NotifyResultModeToSdcm(road.result, RESULT_OK, msg);
        SetState(road.running);
    } else if (m_state != STATE_ATTACH) {
        RefuseChange(road.result, msg);
    } else if (!GetUsbNode(msg, road.node_type)) {
        RefuseMissing("android", road.result, msg);
    } else {
        FollowStart((m_dev_accessor->*road.start)(msg->vid, msg->pid, PhonePort()), msg, road);
    }
}

void UPortState::FollowStart(int started, UMsgChMode* msg, const ModeRoad& road) {
    switch (started) {
        case kStarted:
            m_notifier->PushChTimeout(true, msg->port);
            CopyText(m_devid, msg->devid, sizeof msg->devid);
            SetState(road.changing);
            break;
        case kAlreadyRunning:
            NotifyResultModeToSdcm(road.result, RESULT_OK, msg);
            SetState(road.running);
            break;
        default:
            NotifyResultModeToSdcm(road.result, RESULT_FAILED, msg);
    }
}

void UPortState::ProcessMLMode(UMsgChMode* msg) {
    const ModeRoad& road = kMirrorLink;
    if (!HasMessage(msg)) return;
    if (!m_lists) ULOG(LOG_FAILED, "lists is null ");  // Deliberate: the blank at the end.
    if (!m_lists || !HasAccessor() || !HasNotifier()) {
        NotifyResultModeToSdcm(road.result, RESULT_FAILED, msg);
        return;
    }
    LogState();
    if (m_state != STATE_ATTACH) {
        RefuseChange(road.result, msg);
        return;
    }
    if (!GetUsbNode(msg, road.node_type)) {
        RefuseMissing("android", road.result, msg);
        return;
    }
    if (m_lists->FindNetNode(m_port)) {
        ULOG(LOG_INFO, "port%d already is ncm mode", m_port);
        NotifyResultModeToSdcm(road.result, RESULT_OK, msg);
        SetState(road.running);
        return;
    }
    int started = m_dev_accessor->StartMirrorLink(msg->vid, msg->pid, PhonePort());
    if (msg->vid == kTwiceVid && msg->pid == kTwicePid) {
        // Deliberate: the second result counts.
        ULOG(LOG_INFO, "duplicate command");
        started = m_dev_accessor->StartMirrorLink(msg->vid, msg->pid, PhonePort());
    }
    FollowStart(started, msg, road);
}

// Without a transfer to the phone.
void UPortState::AcceptRequest(UMsgChMode* msg, E_MSGID id, E_CON_STATE changing) {
    UpdateNode(msg);
    SetState(changing);
    NotifyResultModeToSdcm(id, RESULT_OK, msg);
}

int UPortState::ProcessICLMode(UMsgChMode* msg) {
    if (!HasMessage(msg) || !HasNotifier()) {
        NotifyResultModeToSdcm(MSGID_RESULT_ICL_MODE, RESULT_FAILED, msg);
        return kRefused;
    }
    LogState();
    if (m_state != STATE_ATTACH && m_state != STATE_CP_SUPPORT)
        return RefuseChange(MSGID_RESULT_ICL_MODE, msg);
    if (!GetUsbNode(msg, DEV_TYPE_APPLE)) return RefuseMissing("apple", MSGID_RESULT_ICL_MODE, msg);
    LogBusNumbers();
    AcceptRequest(msg, MSGID_RESULT_ICL_MODE, STATE_CL_CHANGING);
    return kAccepted;
}

int UPortState::ProcessCPMode(UMsgChMode* msg) {
    if (!HasMessage(msg) || !HasNotifier()) {
        NotifyResultModeToSdcm(MSGID_RESULT_CP_MODE, RESULT_FAILED, msg);
        return kRefused;
    }
    LogState();
    if (m_state != STATE_CP_SUPPORT) return RefuseChange(MSGID_RESULT_CP_MODE, msg);
    if (!GetUsbNode(msg, DEV_TYPE_APPLE)) return RefuseMissing("apple", MSGID_RESULT_CP_MODE, msg);
    AcceptRequest(msg, MSGID_RESULT_CP_MODE, STATE_CP_CHANGING);
    return kAccepted;
}

// --- reset and search ---

void UPortState::ProcessResetMode(UMsgChMode* msg) {
    const E_MSGID id = MSGID_RESULT_RESET_MODE;
    if (!HasMessage(msg) || !HasAccessor() || !HasNotifier()) {
        NotifyResultModeToSdcm(id, RESULT_FAILED, msg);
        return;
    }
    LogState();
    switch (m_state) {
        case STATE_CP_CHANGING:
        case STATE_CP:
            ResetCarplay(msg);
            break;
        case STATE_AA:
            ResetAndroid(msg, kAndroidAuto);
            break;
        case STATE_ML:
            ResetAndroid(msg, kMirrorLink);
            break;
        case STATE_CL:
        case STATE_CL_CHANGING:
            if (IsApple())
                ResetAppleCarLife(msg);
            else if (m_state == STATE_CL && IsAndroid())
                ResetAndroid(msg, kCarLife);
            else
                NotifyResultModeToSdcm(id, RESULT_FAILED, msg);
            break;
        case STATE_DETACH:
        case STATE_ATTACH:
        case STATE_CP_SUPPORT:
        case STATE_AA_CHANGING:
        case STATE_ML_CHANGING:
        case STATE_RESETTING:
        case STATE_AA_RESETTING:
        case STATE_ML_RESETTING:
        case STATE_CP_RESETTING:
        case STATE_CL_RESETTING:
            ULOG(LOG_REFUSED, "port%d %s, so can't reset", m_port, kStateName[m_state]);
            NotifyResultModeToSdcm(id, RESULT_FAILED, msg);
    }
}

void UPortState::ResetCarplay(UMsgChMode* msg) {
    const bool is_reset = m_dev_accessor->StartCPPortReset(msg->vid, msg->pid, UnitPort()) == 0;
    if (is_reset) m_notifier->PushCarplayTimeout(true, m_port);
    EndReset(is_reset, msg, STATE_CP_RESETTING);
}

// Deliberate: the timer is armed although nothing waits for it.
void UPortState::ResetAppleCarLife(UMsgChMode* msg) {
    const bool is_reset = m_dev_accessor->StartCLPortReset(msg->vid, msg->pid, UnitPort()) == 0;
    if (is_reset) m_notifier->PushChTimeout(true, m_port);
    EndReset(is_reset, msg, STATE_CL_RESETTING);
}

// The kernel forgets the phone first; whether that worked shows in the reset.
void UPortState::ResetAndroid(UMsgChMode* msg, const ModeRoad& road) {
    const std::optional<FoundUsbNode> node = GetUsbNode(msg, road.node_type);
    if (!node) {
        RefuseMissing("android", MSGID_RESULT_RESET_MODE, msg);
        return;
    }
    m_dev_accessor->StartRemoveUsb(node->port);
    EndReset(road.reset(*m_dev_accessor, msg->vid, msg->pid, UnitPort()) == 0, msg, road.resetting);
}

void UPortState::EndReset(bool is_reset, UMsgChMode* msg, E_CON_STATE resetting) {
    NotifyResultModeToSdcm(MSGID_RESULT_RESET_MODE, is_reset ? RESULT_OK : RESULT_FAILED, msg);
    if (is_reset) SetState(resetting);
}

void UPortState::ProcessSearch(UMsgSearch* msg) {
    if (!HasMessage(msg) || !HasNotifier()) return;
    LogState();
    if (m_state != STATE_ATTACH && m_state != STATE_CP_SUPPORT) {
        LogNotSend();
        return;
    }
    if (msg->argument != SEARCH_FROM_MEDIA) {
        NotifyEventToSdcm(MSGID_DEVICE_ATTACHED);
        return;
    }
    // Deliberate: media hears of phones (9) when they come, and of the others when it asks.
    if (IsApple() || m_device.dev_type == DEV_TYPE_MTP)
        NotifyEventToMedia(CMD_ATTACH);
    else
        ULOG(LOG_REFUSED, "port%d dev_type:%d, so not send", m_port, m_device.dev_type);
}

// --- timers ---

void UPortState::ProcessChTimeoutMsg(UMsgTimeout* msg) {
    if (!HasMessage(msg) || !HasAccessor() || !HasNotifier()) return;
    LogState(msg->port);
    switch (m_state) {
        case STATE_AA_CHANGING:
            EndChange(kAndroidAuto);
            break;
        case STATE_ML_CHANGING:
            EndChange(kMirrorLink);
            break;
        case STATE_CL_CHANGING:
            EndChange(kCarLife);
            break;
        case STATE_DETACH:
        case STATE_ATTACH:
        case STATE_CP_SUPPORT:
        case STATE_CP_CHANGING:
        case STATE_RESETTING:
        case STATE_AA:
        case STATE_ML:
        case STATE_CP:
        case STATE_CL:
        case STATE_AA_RESETTING:
        case STATE_ML_RESETTING:
        case STATE_CP_RESETTING:
        case STATE_CL_RESETTING:
            LogNotSend();
    }
}

// The phone has neither left nor switched in time.
void UPortState::EndChange(const ModeRoad& road) {
    if (m_dev_accessor->DiscernPortStatus(UnitPort()) == E_HUB_PORT_STATUS_DISCONNECTED) {
        DetachStored();
        return;
    }
    NotifyResultModeToSdcm(road.result, RESULT_FAILED, nullptr);
    SetState(STATE_ATTACH);
}

void UPortState::ProcessCarplayTimeoutMsg(UMsgTimeout* msg) {
    if (!HasMessage(msg) || !HasAccessor() || !HasNotifier()) return;
    LogState(msg->port);
    if (m_state != STATE_CP_RESETTING) {
        LogNotSend();
        return;
    }
    if (m_dev_accessor->DiscernPortStatus(UnitPort()) == E_HUB_PORT_STATUS_DISCONNECTED) DetachStored();
}

void UPortState::ProcessCarplayCapaMsg(UMsgCarplayCapa* msg) {
    if (!HasMessage(msg) || !HasNotifier() || !HasAccessor()) return;
    if (!IsApple()) {
        ULOG(LOG_DETAIL, "ignore if not an apple device");
        return;
    }
    LogState(msg->port);
    if (m_state == STATE_ATTACH)
        FindCarplay();
    else
        LogNotSend();
}

// --- engineering menu ---

void UPortState::ProcessTestForceEnable(bool trigger) {
    if (!HasAccessor()) return;
    ULOG(LOG_INFO, "port%d %s trigger:%d", m_port, kStateName[m_state], trigger);
    m_dev_accessor->StartEyePattern(UnitPort(), trigger);
}

void UPortState::ProcessHubMode(E_HUB_MODE mode) {
    if (!HasAccessor()) return;
    if (m_state != STATE_CP) {
        ULOG(LOG_INFO, "port%d %s, so can't change", m_port, kStateName[m_state]);
        return;
    }
    ULOG(LOG_INFO, "port%d %s mode:%d", m_port, kStateName[m_state], mode);
    m_dev_accessor->StartHubMode(UnitPort(), mode);
}

}  // namespace dcm::usb
