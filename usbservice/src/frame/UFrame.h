// The service's inbox: takes each message that is addressed to the service, from its own frames and from the
// other processes, and turns it into a call on whoever deals with it. A thread of its own; one message at a
// time.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/frame.h"
#include "record/FrameMessage.h"

namespace dcm::usb {

class UDevAccessor;
class UListNode;
class UListPortState;
class UNotifier;
class USetting;

class UFrame : public frame::Frame {
public:
    // Makes the singletons that all frames share: settings, port list, node list, accessor. Made before the
    // other frames run.
    UFrame(std::shared_ptr<kipc::Interface>& interface, frame::Message* message,
           const std::vector<frame::QueueInfo>& queues);
    ~UFrame() override;

    static const char* const kStringKaHubDiag;  // attribute of the hub's self-test, below the host controller

    void event_handler(unsigned long src, unsigned int len, char* buf) override;

    // One per sender. What a sender left out at the end of its message reads as zero; texts need no
    // terminator.
    void HandleDcm(unsigned int len, char* buf);
    void HandleMedia(unsigned int len, char* buf);
    void HandleGEM(unsigned int len, char* buf);
    void HandlePower(unsigned int len, char* buf);
    void HandleDiag(unsigned int len, char* buf);
    void HandleTestIface(unsigned int len, char* buf);

    // The hub's self-test, which takes a second: tells diagnosis of each socket and whether the test could
    // run.
    void RunDiagnosisTest();

    // Tells SDCM that the scan at start began (MSGID_SCAN_BEGIN) or ended (MSGID_SCAN_END).
    void NotifyScanToSdcm(E_MSGID id);

private:
    void Search(E_SEARCH_TRIGGER trigger);
    void UpdateSwitches();
    bool ControlDiagnosisTest(bool isOn);
    void ReportSockets(int result);
    void ChangeSignalTest(std::uint8_t port, std::uint32_t before, std::uint32_t now);
    void ChangeDeviceMode(std::uint8_t port, std::uint32_t before, std::uint32_t now);

    UNotifier* m_notifier = nullptr;  // owned
    UListPortState* m_list_port_state =
        nullptr;                             // singleton, released with this frame; null without notifier
    USetting* m_setting = nullptr;           // singleton
    UDevAccessor* m_dev_accessor = nullptr;  // singleton
    UListNode* m_lists = nullptr;            // singleton
};

}  // namespace dcm::usb
