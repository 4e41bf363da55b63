// The time that a port gives a phone to change its mode: tells the port's state machine when it is over.
#pragma once

#include "item/UItem.h"

namespace dcm::usb {

// Of the kind ITEM_CH_TIMEOUT or ITEM_CARPLAY_TIMEOUT. Fires once, then ends.
class UItemTimeout : public UItem {
public:
    UItemTimeout(E_ITEM kind, UNotifier* notifier, std::uint8_t port) : UItem(kind, notifier, port) {}

    int Process() override;
    void NotifyTimeout();

private:
    E_STEP m_step = STEP_NONE;
    timespec m_last_ts{};  // of the last step change
};

}  // namespace dcm::usb
