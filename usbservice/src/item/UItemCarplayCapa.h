// An iPhone that did not say yet whether it can do CarPlay is asked again: every five seconds, five times.
#pragma once

#include "item/UItem.h"

namespace dcm::usb {

class UItemCarplayCapa : public UItem {
public:
    UItemCarplayCapa(UNotifier* notifier, std::uint8_t port) : UItem(ITEM_CARPLAY_CAPA, notifier, port) {}

    int Process() override;
    void NotifyCarplayCapa();  // makes the port's state machine ask

private:
    E_STEP m_step = STEP_NONE;
    int m_retry = 0;
    timespec m_last_ts{};  // of the last step change
};

}  // namespace dcm::usb
