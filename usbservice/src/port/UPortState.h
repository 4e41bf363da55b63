// The connection state machine of one USB port: which phone is there, what it can do, and in which projection
// mode it is. Takes what happened (devices, requests, timers), and tells SDCM, media and the monitor frame.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <initializer_list>
#include <optional>

#include "access/UDevAccessor.h"
#include "node/UListNode.h"
#include "platform/status.h"
#include "record/DeviceType.h"
#include "record/FrameMessage.h"
#include "record/MediaPacket.h"
#include "record/Projection.h"

namespace dcm::usb {

class UNotifier;

enum E_CON_STATE : std::uint32_t {
    STATE_DETACH = 0,
    STATE_ATTACH = 1,
    STATE_CP_SUPPORT = 2,  // an Apple phone that supports CarPlay
    STATE_AA_CHANGING = 3,
    STATE_ML_CHANGING = 4,
    STATE_CP_CHANGING = 5,
    STATE_CL_CHANGING = 6,
    STATE_RESETTING = 7,  // never entered
    STATE_AA = 8,
    STATE_ML = 9,
    STATE_CP = 10,
    STATE_CL = 11,
    STATE_AA_RESETTING = 12,
    STATE_ML_RESETTING = 13,
    STATE_CP_RESETTING = 14,
    STATE_CL_RESETTING = 15
};
inline constexpr std::uint32_t kStateCount = 16;

// Command frame's thread only. Made at the first word of a port and kept as long as the list: when the device
// goes the state is STATE_DETACH again, and what was known of it stays until the next one comes. Operations
// that reset a port or start a mode may take seconds: see UDevAccessor. Of the port number's two digits the
// unit's own port (units digit) is used for nodes, status, resets, hub mode and test mode, and the phone's
// libusb port (tens digit when there is one) for transfers to the phone.
class UPortState {
public:
    UPortState(std::uint8_t port, UNotifier* notifier);
    virtual ~UPortState();
    UPortState(const UPortState&) = delete;
    UPortState& operator=(const UPortState&) = delete;

    static const char* const kStateName[kStateCount];

    std::uint8_t GetPort() const { return m_port; }
    E_CON_STATE GetState() const { return m_state; }

    void SetState(E_CON_STATE state);

    // Takes over what is known of the device that came.
    void UpdateNode(UMsgNode* msg);
    // Takes over SDCM's name for the device; a request for another device than the one here is only logged.
    void UpdateNode(UMsgChMode* msg);

    // The phone that a request is for, if it is in the list of nodes with the ids of the request.
    std::optional<FoundUsbNode> GetUsbNode(UMsgChMode* msg, E_DEV_TYPE type);

    // --- what the phone can do ---

    void CheckCapability();
    int CheckAACapability(std::uint16_t vid, std::uint16_t pid, std::uint8_t port);
    int CheckCPCapability(std::uint16_t vid, std::uint16_t pid, std::uint8_t port);
    int CheckMLCapability(std::uint16_t vid, std::uint16_t pid, std::uint8_t port);  // asks, and is always 0
    int CheckCLCapability(std::uint16_t vid, std::uint16_t pid,
                          std::uint8_t port);  // not called by the service

    // --- reports ---

    void NotifyEventToSdcm(UMsgNode* msg);
    void NotifyEventToSdcm(E_MSGID id);
    void NotifyResultModeOkToSdcm(E_MSGID id, const char* devid, UMsgNode* msg);
    // Without a request: about the device that is here.
    void NotifyResultModeToSdcm(E_MSGID id, E_RESULT result, UMsgChMode* msg);
    void NotifyEventToMedia(E_CMD cmd);

    // --- devices that come and go ---

    void ProcessUsbAddMsg(UMsgNode* msg);
    void ProcessUsbRemoveMsg(UMsgNode* msg);
    void ProcessDeferredMsg(UMsgNode* msg);  // the device has not come back in time
    void ProcessHidAddMsg(UMsgHidNode* msg);
    void ProcessHidRemoveMsg();
    void ProcessTtyAddMsg();
    void ProcessTtyRemoveMsg();
    void ProcessTtyChangeMsg();

    // --- requests of SDCM and media; these two return 0 when the request was accepted, else 1 ---

    int ProcessCPMode(UMsgChMode* msg);
    int ProcessICLMode(UMsgChMode* msg);
    void ProcessAAMode(UMsgChMode* msg);
    void ProcessACLMode(UMsgChMode* msg);
    void ProcessMLMode(UMsgChMode* msg);
    void ProcessResetMode(UMsgChMode* msg);
    void ProcessSearch(UMsgSearch* msg);

    // --- timers of the monitor frame ---

    void ProcessChTimeoutMsg(UMsgTimeout* msg);
    void ProcessCarplayTimeoutMsg(UMsgTimeout* msg);
    void ProcessCarplayCapaMsg(UMsgCarplayCapa* msg);

    // --- engineering menu ---

    void ProcessTestForceEnable(bool trigger);
    void ProcessHubMode(E_HUB_MODE mode);

private:
    struct ModeRoad;
    static const ModeRoad kAndroidAuto;
    static const ModeRoad kCarLife;
    static const ModeRoad kMirrorLink;

    static bool IsAccessory(std::uint16_t vid, std::uint16_t pid);
    bool IsApple() const;
    bool IsAndroid() const;
    std::uint8_t UnitPort() const { return m_port % 10; }
    std::uint8_t PhonePort() const { return m_port > 9 ? m_port / 10 : m_port; }

    // These say what is missing, or where the port stands.
    bool HasMessage(const void* msg) const;
    bool HasNotifier() const;
    bool HasAccessor() const;
    void ShowStatus();
    void LogState() const;
    void LogState(std::uint8_t message_port) const;
    void LogNotSend() const;
    void LogBusNumbers() const;

    bool FindNode(std::initializer_list<E_DEV_TYPE> types, FoundUsbNode& found);
    void UpdateCapability(int aa, int ml, int cp);
    UMsgChMode StoredRequest() const;
    void SendEvent(E_MSGID id, const UMsgNode& about);
    void SendResult(E_MSGID id, E_RESULT result, const char* devid, const UMsgChMode& about);

    void Attach(UMsgNode* msg);
    void AttachOther(UMsgNode* msg);
    void AttachAgain(UMsgNode* msg);
    bool IsOther(const UMsgNode& msg) const;
    void SetAttachTarget();
    void SetAttachTargetApple();
    void ReturnAccessory(UMsgNode* msg, const ModeRoad& road);
    void RestartAccessory(const UMsgNode& msg, const ModeRoad& road);
    void ReturnSwitched(UMsgNode* msg, E_MSGID id, E_CON_STATE running);
    void ReturnFromReset(UMsgNode* msg, const ModeRoad& road);
    void AddInCLChanging(UMsgNode* msg);
    void AddInCLResetting(UMsgNode* msg);
    void Detach(UMsgNode* msg);
    void DetachStored();
    void AwaitReturn(UMsgNode* msg);
    bool FindCarplay();

    void StartAccessory(UMsgChMode* msg, const ModeRoad& road);
    void FollowStart(int started, UMsgChMode* msg, const ModeRoad& road);
    void AcceptRequest(UMsgChMode* msg, E_MSGID id, E_CON_STATE changing);
    int RefuseChange(E_MSGID id, UMsgChMode* msg);
    int RefuseMissing(const char* phone, E_MSGID id, UMsgChMode* msg);
    void ResetCarplay(UMsgChMode* msg);
    void ResetAppleCarLife(UMsgChMode* msg);
    void ResetAndroid(UMsgChMode* msg, const ModeRoad& road);
    void EndReset(bool is_reset, UMsgChMode* msg, E_CON_STATE resetting);
    void EndChange(const ModeRoad& road);

    const std::uint8_t m_port;
    UNotifier* const m_notifier;  // not owned, may be null
    E_CON_STATE m_state = STATE_DETACH;
    int m_reset_retry = 0;  // port resets made because an accessory kept coming back
    int m_aoap_retry = 0;   // accessory starts made because a phone came back unswitched
    UMsgNode m_device{};    // the last one that was taken over; its port is this one's
    std::uint32_t m_aa_capa = CAPA_UNKNOWN;
    std::uint32_t m_ml_capa = CAPA_UNKNOWN;
    std::uint32_t m_cp_capa = CAPA_UNKNOWN;
    std::uint32_t m_cl_capa = CAPA_UNKNOWN;
    bool m_tty_attached = false;
    char m_devid[32] = {};  // of the last accepted request
    UListNode* const m_lists;
    UDevAccessor* const m_dev_accessor;
    pthread_mutex_t m_mutex;                     // guards the write of m_state
    std::uint64_t m_since_ns = status::NowNs();  // when the port came into its state
    status::Row m_status;
};

}  // namespace dcm::usb
