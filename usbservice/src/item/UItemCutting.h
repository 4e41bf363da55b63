// A phone that left may come back at once, as another device: only when it stays away for three seconds is
// its removal told to the command frame.
#pragma once

#include "item/UItemDeferred.h"
#include "record/FrameMessage.h"

namespace dcm::usb {

class UItemCutting : public UItemDeferred {
public:
    // `msg` is the removal; its texts need no terminator.
    UItemCutting(UNotifier* notifier, std::uint8_t port, const UMsgNode& msg);

    int CheckEjection();  // always -1

private:
    int Fire() override { return CheckEjection(); }

    UMsgNode m_message;  // what is posted
};

}  // namespace dcm::usb
