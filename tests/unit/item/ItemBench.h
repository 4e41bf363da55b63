// A list of items whose clock, memory and commands a test holds, and whose notifier speaks into a recording
// platform. Time stands still until the test moves it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Wraps.h"
#include "board/UPort.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "item/UItemVoltageSupply.h"
#include "item/UListItem.h"
#include "notify/UNotifier.h"
#include "setting/USetting.h"
#include "support/FailingMutex.h"
#include "support/Format.h"
#include "support/MemoryStore.h"
#include "support/RecordingPlatform.h"
#include "support/SysTree.h"

namespace test {

inline const std::string kHost = "/devices/soc/7600000.hsusb/7600000.dwc3/xhci-hcd.0.auto";

inline constexpr unsigned kUsb = dcm::DcmInterface::QUEUE_USB;
inline constexpr unsigned kMonitor = dcm::DcmInterface::QUEUE_MONITOR;

inline constexpr unsigned long kDiagnosis = 0x0800000000000000;
inline const Packet kOverCurrentPresent{kDiagnosis, Hex("01 60 22 24 7C FF")};
inline const Packet kOverCurrentCleared{kDiagnosis, Hex("01 60 22 24 7C 00")};

// A text in a field of a record: zeros behind it.
inline Bytes Field(const std::string& text, std::size_t size) {
    Bytes bytes(text.begin(), text.end());
    bytes.resize(size);
    return bytes;
}

inline Bytes Join(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

// A 12-byte message of an item: id and port.
inline Queued Told(unsigned id, unsigned port) {
    return {4096, Hex(Format("04 000000 %02X 000000 %02X 000000", id, port))};
}

class ItemBench : public ::testing::Test {
protected:
    void SetUp() override {
        outside = {};
        dcm::usb::UListItem::Release();
        ResetPlatform();
        ResetStore();
        ResetVoltage();
        dcm::usb::UPort::m_board_type = 4;  // the host controller is kHost
        m_notifier.emplace();
        dcm::usb::USetting::GetInstance()->SetUsbCoding(static_cast<dcm::usb::E_USB_CODING>(2));
        outside.clock_is_ours = true;
        outside.now = {1000, 0};
        List();
        ClearLogs();
    }

    void TearDown() override {
        outside.nothrow_new_fails = false;
        outside.new_fails_for = 0;
        dcm::usb::UListItem::Release();
        m_notifier.reset();
        ResetStore();
        ResetVoltage();
        dcm::usb::UPort::m_board_type = 0;
        outside = {};
        fail_mutex_init = fail_mutex_destroy = false;
    }

    static void ResetVoltage() {
        using Voltage = dcm::usb::UItemVoltageSupply;
        Voltage::m_step = Voltage::VOLTAGE_STEP_START;
        Voltage::m_try_temperature = 0;
        Voltage::m_last_ts = {};
        Voltage::m_voltage_section = dcm::usb::VOLTAGE_INITIAL;
        dcm::usb::UPort::m_max_current = 1;
    }

    static dcm::usb::UListItem& List() { return *dcm::usb::UListItem::GetInstance(); }
    dcm::usb::UNotifier* Notifier() { return &*m_notifier; }

    static void SetAdaption(unsigned char port, int adaption) {
        dcm::usb::USetting::GetInstance()->SetUsbAdaption(port,
                                                          static_cast<dcm::usb::E_USB_ADAPTION>(adaption));
        ClearLogs();
    }

    static void Pass() { List().ProcessItems(); }
    // Time goes by, then the next pass.
    static void PassAfter(long long milliseconds) {
        MoveClock(milliseconds);
        Pass();
    }
    static bool Has(dcm::usb::E_ITEM kind, std::uint8_t port) {
        return List().FindItem(kind, port, false) != nullptr;
    }

    // Any item, by its kind; what it carries does not matter.
    void Add(dcm::usb::E_ITEM kind, std::uint8_t port) {
        dcm::usb::UMsgNode node{};
        dcm::usb::st_storage_pkt packet{};
        switch (kind) {
            case dcm::usb::ITEM_MOUNT_ERROR:
                return List().AddMountErrorItem(Notifier(), port, &packet);
            case dcm::usb::ITEM_OVER_CURRENT:
                return List().AddOverCurrentItem(Notifier(), port, "/devices/x");
            case dcm::usb::ITEM_VOLTAGE_SUPPLY:
                return List().AddVoltageItem(Notifier(), port, false);
            case dcm::usb::ITEM_CUTTING:
                return List().AddCuttingItem(Notifier(), port, &node);
            case dcm::usb::ITEM_CH_TIMEOUT:
                return List().AddChTimeoutItem(Notifier(), port);
            case dcm::usb::ITEM_CARPLAY_TIMEOUT:
                return List().AddCarplayTimeoutItem(Notifier(), port);
            case dcm::usb::ITEM_CARPLAY_CAPA:
                return List().AddCarplayCapaItem(Notifier(), port);
        }
    }

    SysTree& Sys() { return m_sys; }

private:
    SysTree m_sys;
    std::optional<dcm::usb::UNotifier> m_notifier;
};

inline constexpr dcm::usb::E_ITEM kAllKinds[] = {
    dcm::usb::ITEM_MOUNT_ERROR, dcm::usb::ITEM_OVER_CURRENT, dcm::usb::ITEM_VOLTAGE_SUPPLY,
    dcm::usb::ITEM_CUTTING,     dcm::usb::ITEM_CH_TIMEOUT,   dcm::usb::ITEM_CARPLAY_TIMEOUT,
    dcm::usb::ITEM_CARPLAY_CAPA};

}  // namespace test
