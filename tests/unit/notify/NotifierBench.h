// A notifier between a recording platform and settings that a test chooses.
#pragma once

#include <optional>
#include <string>

#include "gtest/gtest.h"
#include "notify/UNotifier.h"
#include "setting/USetting.h"
#include "support/Format.h"
#include "support/MemoryStore.h"
#include "support/RecordingPlatform.h"

namespace test {

inline constexpr unsigned kUsb = dcm::DcmInterface::QUEUE_USB;
inline constexpr unsigned kSdcm = dcm::DcmInterface::QUEUE_SDCM;
inline constexpr unsigned kMonitor = dcm::DcmInterface::QUEUE_MONITOR;

class NotifierBench : public ::testing::Test {
protected:
    void SetUp() override {
        ResetPlatform();
        ResetStore();
        Renew();
    }

    void TearDown() override {
        m_notifier.reset();
        ResetStore();
    }

    void Renew() {
        m_notifier.reset();
        m_notifier.emplace();
        ClearLogs();
    }

    dcm::usb::UNotifier& Notifier() { return *m_notifier; }

    static void SetCoding(int coding) {
        dcm::usb::USetting::GetInstance()->SetUsbCoding(static_cast<dcm::usb::E_USB_CODING>(coding));
        ClearLogs();
    }

    static void SetAdaption(unsigned char port, int adaption) {
        dcm::usb::USetting::GetInstance()->SetUsbAdaption(port,
                                                          static_cast<dcm::usb::E_USB_ADAPTION>(adaption));
        ClearLogs();
    }

    static const void* Setting() { return dcm::usb::USetting::GetInstance(); }
    static const void* Queue(unsigned position) {
        return dcm::DcmInterface::m_pInstance->GetMessageQueue(position);
    }
    static const void* Kipc() { return dcm::DcmInterface::m_pInstance->GetKipcSP().get(); }

private:
    std::optional<dcm::usb::UNotifier> m_notifier;
};

}  // namespace test
