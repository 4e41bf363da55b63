#include "item/UItemVoltageSupply.h"

#include "board/UPort.h"
#include "misc/ULog.h"
#include "misc/UMisc.h"
#include "notify/UNotifier.h"

namespace dcm::usb {

namespace {

constexpr int kCheckMs = 1000;
constexpr int kLowReadings = 3;             // that pass before the next one counts
constexpr int kHighReadings = 10;           // likewise
constexpr std::uint32_t kSmallCurrent = 1;  // current class of an ordinary port

}  // namespace

UItemVoltageSupply::E_VOLTAGE_STEP UItemVoltageSupply::m_step = VOLTAGE_STEP_START;
int UItemVoltageSupply::m_try_temperature = 0;
timespec UItemVoltageSupply::m_last_ts{};
E_VOLTAGE_SECTION UItemVoltageSupply::m_voltage_section = VOLTAGE_INITIAL;
const char* const UItemVoltageSupply::kStringHubTemperaturePath = "/ka_hub_temperature";

UItemVoltageSupply::UItemVoltageSupply(UNotifier* notifier, std::uint8_t port, bool isHubDetect)
    : UItem(ITEM_VOLTAGE_SUPPLY, notifier, port), m_is_hub_detect(isHubDetect) {
    if (m_is_hub_detect) NotifyVoltageSection(m_voltage_section);
}

int UItemVoltageSupply::GetTemperature() {
    return UString::GetInterfaceValue(UPort::GetBoardHostPath(), kStringHubTemperaturePath);
}

void UItemVoltageSupply::NotifyVoltageSection(E_VOLTAGE_SECTION section) {
    if (!m_notifier) {
        ULOG(LOG_FAILED, "notifier is null");
        return;
    }
    m_notifier->Send(static_cast<std::uint8_t>(m_port), section);
    ULOG(LOG_INFO, "port:%d volt_section:%d", m_port, section);
}

int UItemVoltageSupply::Process() {
    const int result = ProcessInternal();
    if (m_is_hub_detect) {
        ULOG(LOG_INFO, "skip by hub detect");
        return -1;
    }
    Report(result);
    return 0;
}

void UItemVoltageSupply::Report(int result) {
    if (result == VOLTAGE_RESULT_NONE) return;
    E_VOLTAGE_SECTION section = VOLTAGE_CRITICAL;
    if (result == VOLTAGE_RESULT_NON_CRITICAL)
        section = UPort::m_max_current == kSmallCurrent ? VOLTAGE_NON_CRITICAL : VOLTAGE_NON_CRITICAL_2_1A;
    if (section != m_voltage_section) {
        NotifyVoltageSection(section);
        m_voltage_section = section;
    } else if (section == VOLTAGE_CRITICAL) {
        ULOG(LOG_DETAIL, "already critical");
    } else if (section == VOLTAGE_NON_CRITICAL) {
        ULOG(LOG_DETAIL, "already non_critical");
    } else {
        ULOG(LOG_DETAIL, "already non_critical_2.1");
    }
}

int UItemVoltageSupply::ProcessInternal() {
    timespec now;
    if (!GetTime(now)) return VOLTAGE_RESULT_NONE;
    if (m_step == VOLTAGE_STEP_START) {
        m_try_temperature = 0;
        m_step = VOLTAGE_STEP_NEUTRAL;
        m_last_ts = now;
        return VOLTAGE_RESULT_NONE;
    }
    if (DiffMs(m_last_ts, now) < kCheckMs) return VOLTAGE_RESULT_NONE;
    m_last_ts = now;
    return Check(GetTemperature() == 0);
}

int UItemVoltageSupply::Check(bool isLow) {
    const int before = m_try_temperature;
    switch (m_step) {
        case VOLTAGE_STEP_START:
            return VOLTAGE_RESULT_NONE;
        case VOLTAGE_STEP_NEUTRAL: {
            const E_COUNT count = isLow ? CountLow() : CountHigh();
            if (count == COUNT_GOES_ON && isLow) ULOG(LOG_INFO, "step:neutral is low(%d)", before);
            if (count == COUNT_GOES_ON && !isLow) ULOG(LOG_INFO, "step:neutral is high(%d)", before);
            if (count != COUNT_ENOUGH) return VOLTAGE_RESULT_NONE;
            m_step = isLow ? VOLTAGE_STEP_CRITICAL : VOLTAGE_STEP_NON_CRITICAL;
            // Deliberate: the first report is never critical, not even when the supply was low from the
            // start.
            return VOLTAGE_RESULT_NON_CRITICAL;
        }
        case VOLTAGE_STEP_NON_CRITICAL: {
            const E_COUNT count = isLow ? CountLow() : Restart();
            if (count == COUNT_GOES_ON) ULOG(LOG_INFO, "step:non_critical is low(%d)", before);
            if (count != COUNT_ENOUGH) return VOLTAGE_RESULT_NONE;
            m_step = VOLTAGE_STEP_CRITICAL;
            return VOLTAGE_RESULT_CRITICAL;
        }
        case VOLTAGE_STEP_CRITICAL: {
            const E_COUNT count = isLow ? Restart() : CountHigh();
            if (count == COUNT_GOES_ON) ULOG(LOG_INFO, "step:critical is high(%d)", before);
            if (count != COUNT_ENOUGH) return VOLTAGE_RESULT_NONE;
            m_step = VOLTAGE_STEP_NON_CRITICAL;
            return VOLTAGE_RESULT_NON_CRITICAL;
        }
    }
    return VOLTAGE_RESULT_NONE;
}

UItemVoltageSupply::E_COUNT UItemVoltageSupply::CountLow() {
    if (m_try_temperature > 0) return Restart();
    if (m_try_temperature > -kLowReadings) {
        --m_try_temperature;
        return COUNT_GOES_ON;
    }
    m_try_temperature = 0;
    return COUNT_ENOUGH;
}

UItemVoltageSupply::E_COUNT UItemVoltageSupply::CountHigh() {
    if (m_try_temperature < 0) return Restart();
    if (m_try_temperature < kHighReadings) {
        ++m_try_temperature;
        return COUNT_GOES_ON;
    }
    m_try_temperature = 0;
    return COUNT_ENOUGH;
}

UItemVoltageSupply::E_COUNT UItemVoltageSupply::Restart() {
    m_try_temperature = 0;
    return COUNT_BROKEN;
}

}  // namespace dcm::usb
