// A HID function: its coming and going is told to the port logic, since phones have one.
#pragma once

#include "node/UNode.h"
#include "record/MessageId.h"

namespace dcm::usb {

// Event frame's thread; deleted with the list's lock held.
class UNodeHidraw : public UNode {
public:
    UNodeHidraw(E_SUBSYSTEM subsystem, const char* devpath, UNotifier* notifier);
    ~UNodeHidraw() override;  // tells that it went

    void ActionAdd(UEventData* event) override;

    void NotifyHidToUsb(dcm::E_MSGID id);
};

}  // namespace dcm::usb
