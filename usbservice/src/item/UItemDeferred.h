// A report that is held back for a while, so that a short glitch does not reach the rest of the head unit.
#pragma once

#include "item/UItem.h"

namespace dcm::usb {

// Who deletes the item before the wait is over cancels the report.
class UItemDeferred : public UItem {
public:
    UItemDeferred(E_ITEM kind, UNotifier* notifier, std::uint8_t port, int wait_ms)
        : UItem(kind, notifier, port), m_wait_ms(wait_ms) {}

    int Process() override;

protected:
    // Makes the report. 0 would start the wait anew; anything else ends the item.
    virtual int Fire() = 0;

private:
    const int m_wait_ms;
    E_STEP m_step = STEP_NONE;
    timespec m_last_ts{};  // of the last step change
};

}  // namespace dcm::usb
