// Takes requests for timed supervision and keeps time for it, ten times a second. A thread of its own.
#pragma once

#include <memory>

#include "platform/frame.h"

namespace dcm::usb {

class UListItem;
class UNotifier;

class UMonitorFrame : public frame::Frame {
public:
    UMonitorFrame(std::shared_ptr<kipc::Interface>& interface, frame::Message* message);
    ~UMonitorFrame() override;

    // At most one message a call, then a tenth of a second's sleep; the platform calls again and again.
    void event_handler(unsigned long src, unsigned int len, char* buf) override;

    void Init();  // on the frame's own thread, at the first call
    // What the sender left out at the end of its message reads as zero; texts need no terminator.
    void ParseMsg(unsigned int len, char* msg);
    void Process();  // one pass over the items

private:
    enum E_STATE : unsigned int { E_STATE_INIT = 0, E_STATE_RUNNING = 1 };

    unsigned int m_state = E_STATE_INIT;
    UNotifier* m_notifier = nullptr;   // owned; made by Init
    UListItem* m_list_item = nullptr;  // singleton, made by Init, released with this frame
};

}  // namespace dcm::usb
