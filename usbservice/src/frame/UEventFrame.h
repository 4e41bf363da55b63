// Brings devices into the service: opens the netlink socket, scans once for what was plugged in before the
// start, and then reads the kernel's device events for ever. A thread of its own, on which the list of nodes
// changes.
#pragma once

#include <memory>
#include <vector>

#include "platform/frame.h"
#include "record/MessageId.h"

namespace dcm::usb {

class UDev;
class UNetLink;
class UNotifier;

class UEventFrame : public frame::Frame {
public:
    UEventFrame(std::shared_ptr<kipc::Interface>& interface, frame::Message* message,
                const std::vector<frame::QueueInfo>& queues);
    ~UEventFrame() override;

    // One step; the platform calls it again and again. Messages are passed over.
    void event_handler(unsigned long src, unsigned int len, char* buf) override;

    void Init();                       // reports to diagnosis that nothing is wrong so far
    void NotifyScanToUsb(E_MSGID id);  // MSGID_USB_SCAN_BEGIN or MSGID_USB_SCAN_END, to the command frame
    void NotifyHubCommunication();     // reports to diagnosis when the scan found no two-port hub

private:
    enum E_STATE : unsigned int {
        STATE_INITIAL = 0,   // nothing reported yet
        STATE_OPENING = 1,   // no socket yet
        STATE_SCANNING = 2,  // the socket collects events, the scan comes next
        STATE_RUNNING = 3    // reading events, for good
    };

    UNotifier* m_notifier = nullptr;  // owned
    UNetLink* m_netlink = nullptr;    // owned
    UDev* m_dev = nullptr;            // owned
    unsigned int m_state = STATE_INITIAL;
};

}  // namespace dcm::usb
