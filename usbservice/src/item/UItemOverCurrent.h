// A port that drew too much current: diagnosis is told, and the port's power is switched on again until the
// hub says that all is well.
#pragma once

#include <string>

#include "item/UItem.h"

namespace dcm::usb {

// Diagnosis hears of the over-current as long as the item lives.
class UItemOverCurrent : public UItem {
public:
    UItemOverCurrent(E_ITEM kind, UNotifier* notifier, std::uint8_t port, const char* devpath);
    ~UItemOverCurrent() override;

    int Process() override;

    // The attribute that tells of the over-current, and switches the power on when it is written.
    void MakeOCPath(std::uint8_t port);
    int GetOverCurrent();
    void RecoverySwitchOn();

    const std::string& GetDevPath() const { return m_devpath; }

private:
    // Switched off, then one switch-on after the other.
    enum E_OC_STEP : std::uint32_t {
        OC_STEP_NONE = 0,
        OC_STEP_OFF = 1,
        OC_STEP_SWITCHED_ON = 2,
        OC_STEP_STILL_THERE = 3
    };

    E_OC_STEP m_step = OC_STEP_NONE;
    int m_overcurrent = 0;  // last value read
    std::string m_oc_path;  // below the host controller
    const std::string m_devpath;
    timespec m_last_ts{};  // of the last step change
};

}  // namespace dcm::usb
