// A serial function: its coming, changing and going is told to the port logic, without a port.
#pragma once

#include "node/UNode.h"
#include "record/MessageId.h"

namespace dcm::usb {

// Event frame's thread; deleted with the list's lock held.
class UNodeTty : public UNode {
public:
    UNodeTty(E_SUBSYSTEM subsystem, const char* devpath, UNotifier* notifier);
    ~UNodeTty() override;  // tells that it went

    void ActionAdd(UEventData* event) override;
    void ActionChange(UEventData* event) override;

    void NotifyTtyToUsb(dcm::E_MSGID id);
};

}  // namespace dcm::usb
