// A network function: known so that it can be found by its port; nobody is told.
#pragma once

#include "node/UNode.h"

namespace dcm::usb {

// Event frame's thread.
class UNodeNet : public UNode {
public:
    UNodeNet(E_SUBSYSTEM subsystem, const char* devpath, UNotifier* notifier);

    void ActionAdd(UEventData* event) override;
};

}  // namespace dcm::usb
