#include "port/UListPortState.h"

#include <unistd.h>

#include <new>

#include "board/UPort.h"
#include "misc/ULog.h"
#include "port/UPortState.h"

namespace dcm::usb {
namespace {

constexpr int kAccepted = 0;
constexpr unsigned kAppleCarLifeSeconds = 1;  // how long an iPhone takes to change to CarLife

bool IsPort0(std::uint8_t port) {
    if (port == 0) ULOG(LOG_FAILED, "port0 is invalid");
    return port == 0;
}

}  // namespace

struct UListPortState::Lock {
    explicit Lock(UListPortState& list) : m_mutex(list.m_mutex) { pthread_mutex_lock(&m_mutex); }
    ~Lock() { pthread_mutex_unlock(&m_mutex); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    pthread_mutex_t& m_mutex;
};

UListPortState::UListPortState() {
    if (pthread_mutex_init(&m_mutex, nullptr) != 0) ULOG(LOG_FAILED, "failed to init mutex");
}

UListPortState::~UListPortState() {
    DeleteAllPortStates();
    if (pthread_mutex_destroy(&m_mutex) != 0) ULOG(LOG_FAILED, "failed to destroy mutex");
}

void UListPortState::SetCarplayPort(std::uint8_t port) {
    m_carplay_port = port;
    ULOG(LOG_INFO, "carplay port set %d", port);
}

UPortState* UListPortState::InsertPortState(std::uint8_t port, UNotifier* notifier) {
    if (!notifier) {
        ULOG(LOG_FAILED, "parameter notifier is null");
        return nullptr;
    }
    if (IsPort0(port)) return nullptr;
    const Lock lock(*this);
    UPortState* const state = new (std::nothrow) UPortState(port, notifier);
    if (!state) {
        ULOG(LOG_FAILED, "failed to new portstate instance");
        return nullptr;
    }
    m_port_lists.push_back(state);
    ULOG(LOG_INFO, "port:%d port_lists_size:%d", port, static_cast<int>(m_port_lists.size()));
    return state;
}

UPortState* UListPortState::FindPortState(std::uint8_t port, bool by_units_digit) {
    const Lock lock(*this);
    for (UPortState* state : m_port_lists) {
        if (!state) {
            ULOG(LOG_FAILED, "cur_item is null");
            return nullptr;
        }
        const int number = by_units_digit ? state->GetPort() % 10 : state->GetPort();
        if (number == port) return state;
    }
    return nullptr;
}

UPortState* UListPortState::GetPortState(std::uint8_t port) {
    return IsPort0(port) ? nullptr : FindPortState(port, false);
}

UPortState* UListPortState::GetPortState(std::uint8_t port, UNotifier* notifier) {
    if (IsPort0(port)) return nullptr;
    UPortState* const state = FindPortState(port, false);
    return state ? state : InsertPortState(port, notifier);
}

void UListPortState::DeleteAllPortStates() {
    const Lock lock(*this);
    while (!m_port_lists.empty()) {
        delete m_port_lists.back();
        m_port_lists.pop_back();
    }
}

bool UListPortState::HasNotifier() const {
    if (!m_notifier) ULOG(LOG_FAILED, "notifier is null");
    return m_notifier;
}

bool UListPortState::CanProcess(const void* msg) const {
    if (!HasNotifier()) return false;
    if (!msg) ULOG(LOG_FAILED, "msg is null");
    return msg;
}

UPortState* UListPortState::StateOf(std::uint8_t port) {
    UPortState* const state = GetPortState(port, m_notifier);
    if (!state) ULOG(LOG_FAILED, "port_state is null");
    return state;
}

bool UListPortState::ModulateMsg(UMsgChMode* msg) {
    if (!msg) {
        ULOG(LOG_FAILED, "msg is null");
        return false;
    }
    UPort port;
    port.UpdatePort(msg->devpath);
    ULOG(LOG_INFO, "port %d > %d", msg->port, port.GetPort());
    msg->port = port.GetPort();
    return true;
}

void UListPortState::ProcessMode(UMsgChMode* msg) {
    if (!CanProcess(msg)) return;
    if (!ModulateMsg(msg)) {
        ULOG(LOG_FAILED, "ModulateMsg is failed");
        return;
    }
    UPortState* const state = GetPortState(msg->port);
    if (!state) {
        ULOG(LOG_FAILED, "port_state is null");
        return;
    }
    switch (msg->id) {
        case MSGID_REQ_AA_MODE:
            state->ProcessAAMode(msg);
            break;
        case MSGID_REQ_ML_MODE:
            state->ProcessMLMode(msg);
            break;
        case MSGID_REQ_CP_MODE:
            if (state->ProcessCPMode(msg) == kAccepted) SetCarplayPort(msg->port % 10);
            break;
        case MSGID_REQ_ACL_MODE:
            state->ProcessACLMode(msg);
            break;
        case MSGID_REQ_ICL_MODE:
            if (state->ProcessICLMode(msg) != kAccepted) break;
            sleep(kAppleCarLifeSeconds);
            state->SetState(STATE_CL);
            break;
        case MSGID_REQ_RESET_MODE:
            state->ProcessResetMode(msg);
            break;
        default:
            ULOG(LOG_REFUSED, "unknown msgID:%d", msg->id);
    }
}

void UListPortState::ProcessSearch(UMsgSearch* msg) {
    if (!CanProcess(msg)) return;
    UPortState* const state = GetPortState(msg->port);
    if (!state) {
        ULOG(LOG_REFUSED, "port_state is null");
        return;
    }
    state->ProcessSearch(msg);
}

void UListPortState::ProcessUsbDetection(UMsgNode* msg) {
    if (!CanProcess(msg)) return;
    UPortState* const state = StateOf(msg->port);
    if (!state) return;
    switch (msg->id) {
        case MSGID_USB_ADD:
            state->ProcessUsbAddMsg(msg);
            break;
        case MSGID_USB_REMOVE:
            state->ProcessUsbRemoveMsg(msg);
            break;
        default:
            ULOG(LOG_REFUSED, "unknown msgID:%d", msg->id);
    }
}

void UListPortState::ProcessDeferredUsbDetection(UMsgNode* msg) {
    if (!CanProcess(msg)) return;
    if (UPortState* const state = StateOf(msg->port)) state->ProcessDeferredMsg(msg);
}

void UListPortState::ProcessHidDetection(UMsgHidNode* msg) {
    if (!CanProcess(msg)) return;
    UPortState* const state = StateOf(msg->port);
    if (!state) return;
    switch (msg->id) {
        case MSGID_HID_ADD:
            state->ProcessHidAddMsg(msg);
            break;
        case MSGID_HID_REMOVE:
            state->ProcessHidRemoveMsg();
            break;
        default:
            ULOG(LOG_REFUSED, "unknown msgID:%d", msg->id);
    }
}

// Deliberate: the message's own port is ignored.
void UListPortState::ProcessTtyDetection(UMsgTtyNode* msg) {
    if (!CanProcess(msg)) return;
    UPortState* const state = GetPortState(m_carplay_port);
    if (!state) {
        ULOG(LOG_FAILED, "port_state is null");
        return;
    }
    switch (msg->id) {
        case MSGID_TTY_ADD:
            state->ProcessTtyAddMsg();
            break;
        case MSGID_TTY_REMOVE:
            state->ProcessTtyRemoveMsg();
            break;
        case MSGID_TTY_CHANGE:
            state->ProcessTtyChangeMsg();
            break;
        default:
            ULOG(LOG_REFUSED, "unknown msgID:%d", msg->id);
    }
}

void UListPortState::ProcessTimeout(UMsgTimeout* msg) {
    if (!CanProcess(msg)) return;
    UPortState* const state = StateOf(msg->port);
    if (!state) return;
    switch (msg->id) {
        case MSGID_CH_TIMEOUT:
            state->ProcessChTimeoutMsg(msg);
            break;
        case MSGID_CARPLAY_TIMEOUT:
            state->ProcessCarplayTimeoutMsg(msg);
            break;
        default:
            ULOG(LOG_REFUSED, "unknown command:%d", msg->id);
    }
}

void UListPortState::ProcessCarplayCapa(UMsgCarplayCapa* msg) {
    if (!CanProcess(msg)) return;
    if (UPortState* const state = StateOf(msg->port)) state->ProcessCarplayCapaMsg(msg);
}

void UListPortState::ProcessSignalQualityTest(std::uint8_t port, bool enable) {
    if (!HasNotifier()) return;
    if (UPortState* const state = StateOf(port)) state->ProcessTestForceEnable(enable);
}

void UListPortState::ProcessHubMode(std::uint8_t port, E_HUB_MODE mode) {
    if (!HasNotifier()) return;
    if (UPortState* const state = StateOf(port)) state->ProcessHubMode(mode);
}

}  // namespace dcm::usb
