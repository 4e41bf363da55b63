// Watches whether the hub's supply can carry what is plugged in, and tells media and the voltage listener.
#pragma once

#include "item/UItem.h"
#include "record/MediaPacket.h"

namespace dcm::usb {

// The state machine is the process's, not the item's: a new item goes on where the last one stood. Monitor
// frame's thread only.
class UItemVoltageSupply : public UItem {
public:
    // `isHubDetect`: reports the section as it is now, and ends with the first pass.
    UItemVoltageSupply(UNotifier* notifier, std::uint8_t port, bool isHubDetect);

    int Process() override;

    enum E_VOLTAGE_STEP : std::uint32_t {
        VOLTAGE_STEP_START = 0,
        VOLTAGE_STEP_NEUTRAL = 1,
        VOLTAGE_STEP_NON_CRITICAL = 2,
        VOLTAGE_STEP_CRITICAL = 3
    };
    enum E_VOLTAGE_RESULT : int {
        VOLTAGE_RESULT_NONE = 0,
        VOLTAGE_RESULT_NON_CRITICAL = 2,
        VOLTAGE_RESULT_CRITICAL = 3
    };

    // High when not 0; also high (-1) when the hub does not tell.
    static int GetTemperature();

    // One check a second; calls in between do nothing.
    static int ProcessInternal();

    void NotifyVoltageSection(E_VOLTAGE_SECTION section);

    static E_VOLTAGE_STEP m_step;
    static int m_try_temperature;                // readings in a row: above 0 high ones, below 0 low ones
    static timespec m_last_ts;                   // of the last check
    static E_VOLTAGE_SECTION m_voltage_section;  // last reported
    static const char* const kStringHubTemperaturePath;

private:
    enum E_COUNT { COUNT_GOES_ON, COUNT_BROKEN, COUNT_ENOUGH };

    static int Check(bool isLow);
    static E_COUNT CountLow();
    static E_COUNT CountHigh();
    static E_COUNT Restart();
    void Report(int result);

    const bool m_is_hub_detect;
};

}  // namespace dcm::usb
