// Devices that come and go.
#include <unistd.h>

#include <cstring>

#include "misc/ULog.h"
#include "notify/UNotifier.h"
#include "port/ModeRoad.h"
#include "port/UPortState.h"

namespace dcm::usb {
namespace {

constexpr unsigned kPauseSeconds = 1;     // before a phone or its port is tried again
constexpr int kStartsWhatever = 5;        // repeated accessory starts whose result does not count
constexpr int kResetsOfAnAccessory = 10;  // before an accessory that keeps coming back is taken as it is

}  // namespace

// --- USB device added ---

void UPortState::ProcessUsbAddMsg(UMsgNode* msg) {
    LogState();
    if (!HasMessage(msg) || !HasAccessor() || !HasNotifier()) return;
    switch (m_state) {
        case STATE_DETACH:
            Attach(msg);
            break;
        case STATE_AA_CHANGING:
            ReturnAccessory(msg, kAndroidAuto);
            break;
        case STATE_ML_CHANGING:
            ReturnSwitched(msg, kMirrorLink.result, kMirrorLink.running);
            break;
        case STATE_CL_CHANGING:
            AddInCLChanging(msg);
            break;
        case STATE_CP:
            ULOG(LOG_REFUSED, "defense code for healing, please check!!");
            SetAttachTargetApple();
            break;
        case STATE_AA_RESETTING:
            ReturnFromReset(msg, kAndroidAuto);
            break;
        case STATE_ML_RESETTING:
            m_notifier->PushCutting(false, msg);
            if (IsOther(*msg))
                AttachOther(msg);
            else
                AttachAgain(msg);
            break;
        case STATE_CP_RESETTING:
            m_notifier->PushCarplayTimeout(false, m_port);
            NotifyEventToSdcm(msg);
            SetAttachTargetApple();
            break;
        case STATE_CL_RESETTING:
            AddInCLResetting(msg);
            break;
        case STATE_ATTACH:
        case STATE_CP_SUPPORT:
        case STATE_CP_CHANGING:
        case STATE_RESETTING:
        case STATE_AA:
        case STATE_ML:
        case STATE_CL:
            LogNotSend();
    }
}

void UPortState::Attach(UMsgNode* msg) {
    UpdateNode(msg);
    CheckCapability();
    NotifyEventToSdcm(msg);
    if (m_device.dev_type == DEV_TYPE_PHONE) NotifyEventToMedia(CMD_ATTACH);
    SetAttachTarget();
}

void UPortState::SetAttachTarget() {
    if (m_aa_capa == CAPA_ACCESSORY)
        SetState(STATE_AA);
    else if (m_cl_capa == CAPA_ACCESSORY)
        SetState(STATE_CL);
    else
        SetAttachTargetApple();
}

void UPortState::SetAttachTargetApple() {
    SetState(m_cp_capa == CAPA_SUPPORTED ? STATE_CP_SUPPORT : STATE_ATTACH);
}

// The phone is back in its new mode.
void UPortState::ReturnSwitched(UMsgNode* msg, E_MSGID id, E_CON_STATE running) {
    m_notifier->PushCutting(false, msg);
    NotifyResultModeOkToSdcm(id, m_devid, msg);
    SetState(running);
}

// The phone is back, as an accessory or not.
// Deliberate: the accessory is not taken over with UpdateNode and not announced: SDCM learns of it by the
// result.
void UPortState::ReturnAccessory(UMsgNode* msg, const ModeRoad& road) {
    m_notifier->PushCutting(false, msg);
    if (!IsAccessory(msg->vid, msg->pid)) {
        RestartAccessory(*msg, road);
        return;
    }
    if (road.running == STATE_CL) LogBusNumbers();
    NotifyResultModeOkToSdcm(road.result, m_devid, msg);
    m_aoap_retry = 0;
    SetState(road.running);
}

void UPortState::RestartAccessory(const UMsgNode& msg, const ModeRoad& road) {
    sleep(kPauseSeconds);
    ++m_aoap_retry;
    ULOG(LOG_REFUSED, "port%d aoap_retry:%d vid:%x pid:%x", m_port, m_aoap_retry, msg.vid, msg.pid);
    const int started = (m_dev_accessor->*road.start)(msg.vid, msg.pid, PhonePort());
    if (started == 0 || m_aoap_retry <= kStartsWhatever) {
        m_notifier->PushChTimeout(true, m_port);
        return;
    }
    NotifyResultModeToSdcm(road.result, RESULT_FAILED, nullptr);
    SetState(STATE_ATTACH);
}

void UPortState::AddInCLChanging(UMsgNode* msg) {
    if (IsApple())
        ReturnSwitched(msg, MSGID_RESULT_ICL_MODE, STATE_CL);
    else if (IsAndroid())
        ReturnAccessory(msg, kCarLife);
}

bool UPortState::IsOther(const UMsgNode& msg) const {
    return std::strncmp(msg.serial, m_device.serial, sizeof m_device.serial) != 0;
}

// Another phone than the one whose port was reset.
void UPortState::AttachOther(UMsgNode* msg) {
    ULOG(LOG_REFUSED, "port%d serial %s > %s, so another device", m_port, msg->serial, m_device.serial);
    DetachStored();
    UpdateNode(msg);
    CheckCapability();
    NotifyEventToSdcm(msg);
    SetAttachTarget();
}

// The same phone as before the reset.
void UPortState::AttachAgain(UMsgNode* msg) {
    UpdateNode(msg);
    NotifyEventToSdcm(msg);
    SetState(STATE_ATTACH);
}

void UPortState::ReturnFromReset(UMsgNode* msg, const ModeRoad& road) {
    m_notifier->PushCutting(false, msg);
    if (IsOther(*msg)) {
        AttachOther(msg);
    } else if (IsAccessory(msg->vid, msg->pid) && m_reset_retry < kResetsOfAnAccessory) {
        sleep(kPauseSeconds);
        ++m_reset_retry;
        ULOG(LOG_REFUSED, "port%d reset_retry:%d", m_port, m_reset_retry);
        road.reset(*m_dev_accessor, msg->vid, msg->pid, UnitPort());
    } else {
        m_reset_retry = 0;
        AttachAgain(msg);
    }
}

void UPortState::AddInCLResetting(UMsgNode* msg) {
    if (IsAndroid()) {
        ReturnFromReset(msg, kCarLife);
    } else if (IsApple()) {
        m_notifier->PushChTimeout(false, m_port);
        NotifyEventToSdcm(msg);
        SetAttachTargetApple();
    }
}

// --- USB device removed ---

void UPortState::ProcessUsbRemoveMsg(UMsgNode* msg) {
    LogState();
    if (!msg) {
        ULOG(LOG_FAILED, "msg is null ");  // Deliberate: the blank at the end.
        return;
    }
    if (!HasNotifier()) return;
    switch (m_state) {
        case STATE_ATTACH:
            m_notifier->PushCarplayCapa(false, m_port);
            NotifyEventToSdcm(msg);
            if (m_device.dev_type == DEV_TYPE_PHONE) NotifyEventToMedia(CMD_DETACH);
            SetState(STATE_DETACH);
            break;
        case STATE_CP_SUPPORT:
        case STATE_AA:
        case STATE_ML:
            Detach(msg);
            break;
        case STATE_AA_CHANGING:
        case STATE_ML_CHANGING:
            AwaitReturn(msg);
            break;
        case STATE_CL_CHANGING:
            if (IsApple() || IsAndroid()) AwaitReturn(msg);
            break;
        case STATE_CP_CHANGING:
            if (!m_tty_attached) DetachStored();
            break;
        case STATE_CP:
            break;
        case STATE_CL:
            if (IsAndroid()) Detach(msg);
            break;
        case STATE_AA_RESETTING:
        case STATE_ML_RESETTING:
        case STATE_CL_RESETTING:
            m_notifier->PushCutting(true, msg);
            break;
        case STATE_DETACH:
        case STATE_RESETTING:
        case STATE_CP_RESETTING:
            LogNotSend();
    }
}

void UPortState::Detach(UMsgNode* msg) {
    NotifyEventToSdcm(msg);
    SetState(STATE_DETACH);
}

void UPortState::DetachStored() {
    NotifyEventToSdcm(MSGID_DEVICE_DETACHED);
    SetState(STATE_DETACH);
}

// The phone left to come back in its new mode.
void UPortState::AwaitReturn(UMsgNode* msg) {
    m_notifier->PushChTimeout(false, m_port);
    m_notifier->PushCutting(true, msg);
}

void UPortState::ProcessDeferredMsg(UMsgNode* msg) {
    if (!HasMessage(msg) || !HasAccessor() || !HasNotifier()) return;
    LogState(msg->port);
    const bool is_gone = m_dev_accessor->DiscernPortStatus(UnitPort()) == E_HUB_PORT_STATUS_DISCONNECTED;
    switch (m_state) {
        case STATE_ATTACH:
        case STATE_AA_CHANGING:
        case STATE_ML_CHANGING:
        case STATE_CL_CHANGING:
        case STATE_AA:
        case STATE_ML:
        case STATE_CL:
            if (is_gone) Detach(msg);
            break;
        case STATE_AA_RESETTING:
        case STATE_ML_RESETTING:
        case STATE_CL_RESETTING:
            if (is_gone) {
                Detach(msg);
            } else {
                NotifyEventToSdcm(MSGID_DEVICE_ATTACHED);
                SetState(STATE_ATTACH);
            }
            break;
        case STATE_DETACH:
        case STATE_CP_SUPPORT:
        case STATE_CP_CHANGING:
        case STATE_RESETTING:
        case STATE_CP:
        case STATE_CP_RESETTING:
            LogNotSend();
    }
}

// --- hidraw and tty nodes: CarPlay's control path ---

// Asks an attached Apple phone again; true when it has become ready for CarPlay.
bool UPortState::FindCarplay() {
    CheckCapability();
    if (m_cp_capa != CAPA_SUPPORTED) return false;
    NotifyEventToSdcm(MSGID_DEVICE_ATTACHED);
    m_notifier->PushCarplayCapa(false, m_port);
    SetState(STATE_CP_SUPPORT);
    return true;
}

void UPortState::ProcessHidAddMsg(UMsgHidNode* msg) {
    if (!HasMessage(msg) || !HasNotifier()) return;
    if (!IsApple()) {
        ULOG(LOG_DETAIL, "ignore if not an apple device");
        return;
    }
    switch (m_state) {
        case STATE_ATTACH:
            if (!FindCarplay()) m_notifier->PushCarplayCapa(true, m_port);
            break;
        case STATE_CP_SUPPORT:
        case STATE_CP_CHANGING:
        case STATE_CP_RESETTING:
            break;
        case STATE_DETACH:
        case STATE_AA_CHANGING:
        case STATE_ML_CHANGING:
        case STATE_CL_CHANGING:
        case STATE_RESETTING:
        case STATE_AA:
        case STATE_ML:
        case STATE_CP:
        case STATE_CL:
        case STATE_AA_RESETTING:
        case STATE_ML_RESETTING:
        case STATE_CL_RESETTING:
            LogNotSend();
    }
}

void UPortState::ProcessHidRemoveMsg() {
    LogState();
}

void UPortState::ProcessTtyAddMsg() {
    if (m_state == STATE_CP_CHANGING)
        SetState(STATE_CP);
    else
        LogNotSend();
    m_tty_attached = true;
}

void UPortState::ProcessTtyRemoveMsg() {
    LogState();
    if (m_state != STATE_DETACH && m_state != STATE_CP) LogNotSend();
    m_tty_attached = false;
}

void UPortState::ProcessTtyChangeMsg() {
    if (!HasAccessor() || !HasNotifier()) return;
    switch (m_state) {
        case STATE_CP_CHANGING:
        case STATE_CP:
        case STATE_CP_RESETTING:
            m_dev_accessor->StartCPPortReset(m_device.vid, m_device.pid, UnitPort());
            DetachStored();
            break;
        case STATE_DETACH:
        case STATE_ATTACH:
        case STATE_CP_SUPPORT:
        case STATE_AA_CHANGING:
        case STATE_ML_CHANGING:
        case STATE_CL_CHANGING:
        case STATE_RESETTING:
        case STATE_AA:
        case STATE_ML:
        case STATE_CL:
        case STATE_AA_RESETTING:
        case STATE_ML_RESETTING:
        case STATE_CL_RESETTING:
            LogNotSend();
    }
}

}  // namespace dcm::usb
