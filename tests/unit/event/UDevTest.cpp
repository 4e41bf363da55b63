#include "event/UDev.h"

#include <cstdio>
#include <string>

#include "FakeUdev.h"
#include "ListSpy.h"
#include "gmock/gmock.h"
#include "node/UListNode.h"
#include "support/RecordingPlatform.h"

namespace {

using namespace dcm::usb;
using test::fake_udev;
using test::Line;
using test::list;
using test::Logs;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const char kStick[] = "/devices/c/usb1/1-1/1-1.1";
const char kInterface[] = "/devices/c/usb1/1-1/1-1.1/1-1.1:1.0";
const char kDisk[] = "/devices/c/usb1/1-1/1-1.1/1-1.1:1.0/host0/target0:0:0/0:0:0:0/block/sda";

class UDevTest : public ::testing::Test {
protected:
    char somebody = 0;
    UNotifier* notifier = reinterpret_cast<UNotifier*>(&somebody);  // handed on, never used
    test::SpyNode node{"/devices/x"};
    UDev scanner{notifier};

    UDevTest() {
        test::ResetPlatform();
        fake_udev = {};
        list = {};
        list.active = true;
    }
    ~UDevTest() override {
        EXPECT_EQ(fake_udev.references, 0) << "a context or an enumerator was not given back";
        for (const auto& [syspath, device] : fake_udev.devices)
            EXPECT_EQ(device.references, 0) << syspath << " was not given back";
        fake_udev = {};
        list = {};
    }

    static void PlugStick() {
        fake_udev.Plug(kStick, "usb", "usb_device", "DEVTYPE=usb_device\nPRODUCT=781/5567/100\n");
        fake_udev.Plug(kInterface, "usb", "usb_interface", "DEVTYPE=usb_interface\nPRODUCT=781/5567/100\n");
        fake_udev.Plug(kDisk, "block", "disk", "MAJOR=8\nMINOR=0\nDEVNAME=sda\nDEVTYPE=disk\n");
    }
};

TEST_F(UDevTest, AddsEveryUsbAndBlockDeviceInTheOrderOfTheList) {
    PlugStick();
    fake_udev.Plug("/devices/c/usb1/1-1/1-1.1/1-1.1:1.0/host0", "scsi", "scsi_host", "");
    list.inserted = &node;
    scanner.ScanDevices();
    EXPECT_THAT(list.calls,
                ElementsAre(std::string("insert 2 ") + kStick, "add", std::string("insert 2 ") + kInterface,
                            "add", std::string("insert 3 ") + kDisk, "add"));
    EXPECT_THAT(list.notifiers, ElementsAre(notifier, notifier, notifier));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, std::string("usb-usb_device DEVPATH=") + kStick),
                                    Line(128, std::string("usb-usb_interface DEVPATH=") + kInterface),
                                    Line(128, std::string("block-disk DEVPATH=") + kDisk)));
}

TEST_F(UDevTest, ANodeCanAskTheDeviceWhileItIsAdded) {
    PlugStick();
    list.inserted = &node;
    unsigned short vendor = 0;
    struct Asking : test::SpyNode {
        using SpyNode::SpyNode;
        unsigned short* vendor = nullptr;
        void ActionAdd(UEventData* event) override { event->GetProduct(vendor, nullptr); }
    } asking("/devices/y");
    asking.vendor = &vendor;
    list.inserted = &asking;
    fake_udev.devices.erase(std::string("/sys") + kDisk);
    scanner.ScanDevices();
    EXPECT_EQ(vendor, 0x781);
}

TEST_F(UDevTest, PassesOverABlockDeviceThatIsNotOnUsb) {
    fake_udev.Plug("/devices/soc/7824900.sdhci/mmc_host/mmc0/mmc0:0001/block/mmcblk0", "block", "disk", "");
    list.inserted = &node;
    scanner.ScanDevices();
    EXPECT_THAT(list.calls, IsEmpty());
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UDevTest, SaysNothingWhenTheListRefusesADevice) {
    PlugStick();
    scanner.ScanDevices();
    EXPECT_EQ(list.calls.size(), 3U);
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UDevTest, PassesOverADeviceThatIsGone) {
    PlugStick();
    fake_udev.devices[std::string("/sys") + kStick].leaves = true;
    scanner.ScanDevices();
    EXPECT_THAT(list.calls,
                ElementsAre(std::string("insert 2 ") + kInterface, std::string("insert 3 ") + kDisk));
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "dev is null")));
}

TEST_F(UDevTest, PassesOverAnEntryWithoutAName) {
    PlugStick();
    fake_udev.lists_a_nameless_device = true;
    scanner.ScanDevices();
    EXPECT_EQ(list.calls.size(), 3U);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "name is null")));
}

TEST_F(UDevTest, AScanOfNothingAddsNothing) {
    scanner.ScanDevices();
    EXPECT_THAT(list.calls, IsEmpty());
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UDevTest, StopsWithoutAContext) {
    PlugStick();
    fake_udev.new_fails = true;
    scanner.ScanDevices();
    EXPECT_THAT(list.calls, IsEmpty());
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "can't create udev")));
}

TEST_F(UDevTest, StopsWithoutAnEnumerator) {
    PlugStick();
    fake_udev.enumerate_fails = true;
    scanner.ScanDevices();
    EXPECT_THAT(list.calls, IsEmpty());
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "failed to udev_enumerate_new")));
}

TEST_F(UDevTest, DoesNotScanWhenASubsystemCannotBeAskedFor) {
    PlugStick();
    fake_udev.match_fails = "usb";
    scanner.ScanDevices();
    fake_udev.match_fails = "block";
    scanner.ScanDevices();
    EXPECT_THAT(list.calls, IsEmpty());
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "failed to udev_enumerate_add_match_subsystem(usb)"),
                                    Line(192, "failed to udev_enumerate_add_match_subsystem(block)")));
}

TEST_F(UDevTest, TakesWhatAFailedScanHasFound) {
    PlugStick();
    fake_udev.scan_result = -5;
    scanner.ScanDevices();
    EXPECT_EQ(list.calls.size(), 3U);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "failed to udev_enumerate_scan_devices")));
}

TEST_F(UDevTest, AddsNothingWithoutANotifier) {
    PlugStick();
    fake_udev.devices.erase(std::string("/sys") + kInterface);
    fake_udev.devices.erase(std::string("/sys") + kDisk);
    UDev deaf(nullptr);
    deaf.ScanDevices();
    char text[100];
    std::snprintf(text, sizeof text, "lists(%p) notifier(%p) is null",
                  static_cast<void*>(USingleton<UListNode>::m_pInstance), static_cast<void*>(nullptr));
    EXPECT_THAT(list.calls, IsEmpty());
    EXPECT_THAT(Logs(), ElementsAre(Line(192, text)));
}

TEST_F(UDevTest, NoDeviceIsNotOnUsb) {
    EXPECT_FALSE(scanner.IsUsbBased());
    scanner.ProcessDevData();
    EXPECT_THAT(list.calls, IsEmpty());
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "m_device is null"), Line(192, "m_device is null")));
}

}  // namespace
