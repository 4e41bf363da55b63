// All port states: one per USB port that was ever seen. Owns them and leads each message to the one of its
// port.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <vector>

#include "access/UDevAccessor.h"
#include "misc/USingleton.h"
#include "record/FrameMessage.h"

namespace dcm::usb {

class UNotifier;
class UPortState;

// Command frame's thread only; the lock makes look-ups from elsewhere safe. States are made by the first
// device event, timer or engineering request of a port, and never deleted before the list. Messages come as
// whole records whose texts are terminated. Failures are logged; nobody is told.
class UListPortState : public USingleton<UListPortState> {
public:
    UListPortState();
    ~UListPortState() override;

    // The command frame's notifier, for the states. It outlives the list.
    void SetNotifier(UNotifier* notifier) { m_notifier = notifier; }

    // Where CarPlay was last started (units digit): a tty event belongs to that port, whatever it says
    // itself.
    void SetCarplayPort(std::uint8_t port);

    // The new state; null when the port or the notifier is missing, or memory.
    UPortState* InsertPortState(std::uint8_t port, UNotifier* notifier);

    // The first state with this port number or, by units digit, of this port of the unit.
    UPortState* FindPortState(std::uint8_t port, bool by_units_digit);

    UPortState* GetPortState(std::uint8_t port);                       // never makes one
    UPortState* GetPortState(std::uint8_t port, UNotifier* notifier);  // makes it when it is not there

    // The port of a request is that of its device path, whatever it says itself.
    bool ModulateMsg(UMsgChMode* msg);

    void ProcessMode(UMsgChMode* msg);
    void ProcessSearch(UMsgSearch* msg);
    void ProcessUsbDetection(UMsgNode* msg);
    void ProcessDeferredUsbDetection(UMsgNode* msg);
    void ProcessHidDetection(UMsgHidNode* msg);
    void ProcessTtyDetection(UMsgTtyNode* msg);
    void ProcessTimeout(UMsgTimeout* msg);
    void ProcessCarplayCapa(UMsgCarplayCapa* msg);
    void ProcessSignalQualityTest(std::uint8_t port, bool enable);
    void ProcessHubMode(std::uint8_t port, E_HUB_MODE mode);

    void DeleteAllPortStates();

private:
    struct Lock;

    // These say what is missing.
    bool HasNotifier() const;
    bool CanProcess(const void* msg) const;
    UPortState* StateOf(std::uint8_t port);  // makes it when it is not there

    std::uint8_t m_carplay_port = 0;
    UNotifier* m_notifier = nullptr;        // not owned
    std::vector<UPortState*> m_port_lists;  // in order of first sight
    pthread_mutex_t m_mutex;                // guards m_port_lists
};

}  // namespace dcm::usb
