#include "event/UDevData.h"

#include <string>

#include "FakeUdev.h"
#include "board/UPort.h"
#include "gmock/gmock.h"
#include "support/RecordingPlatform.h"

namespace {

using namespace dcm::usb;
using test::Line;
using test::Logs;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class UDevDataTest : public ::testing::Test {
protected:
    udev_device device;
    UDevData data;

    UDevDataTest() {
        test::ResetPlatform();
        device.devpath = "/devices/x/usb1/1-1";
        device.subsystem = "usb";
        device.devtype = "usb_device";
        device.sysname = "1-1";
    }

    void Parse(const std::string& uevent) {
        device.uevent = uevent;
        data.ParseDevice(&device);
    }
};

TEST_F(UDevDataTest, ReadsADevice) {
    Parse(
        "MAJOR=189\nMINOR=0\nDEVNAME=bus/usb/001/002\nDEVTYPE=usb_device\nPRODUCT=5ac/12a8/1001\nTYPE=0/0/"
        "0\n");
    EXPECT_EQ(data.GetAction(), ACTION_NONE);
    EXPECT_EQ(data.GetSubSystem(), SUBSYSTEM_USB);
    EXPECT_STREQ(data.GetDevPath(), "/devices/x/usb1/1-1");
    EXPECT_STREQ(data.GetDevName(), "1-1");
    EXPECT_EQ(data.GetUsbDevType(), USB_DEVTYPE_DEVICE);
    unsigned short vendor = 0;
    unsigned short product = 0;
    data.GetProduct(&vendor, &product);
    EXPECT_EQ(vendor, 0x5ac);
    EXPECT_EQ(product, 0x12a8);
    EXPECT_THAT(Logs(), ElementsAre(Line(64, "product 5ac/12a8/1001")));
}

TEST_F(UDevDataTest, KnowsNothingBeforeTheFirstDevice) {
    EXPECT_EQ(data.GetSubSystem(), SUBSYSTEM_NONE);
    EXPECT_EQ(data.GetDevPath(), nullptr);
    EXPECT_EQ(data.GetDevName(), nullptr);
    EXPECT_EQ(data.GetUsbDevType(), 0);
    EXPECT_EQ(data.GetBlockDevType(), 0);
    data.PrintData(true);
    data.PrintData(false);
    EXPECT_THAT(Logs(),
                ::testing::AllOf(::testing::SizeIs(7), ::testing::Each(Line(192, "m_device is null"))));
}

TEST_F(UDevDataTest, RefusesNoDeviceAndKeepsTheOneBefore) {
    Parse("PORT_NUM=3\n");
    data.ParseDevice(nullptr);
    EXPECT_STREQ(data.GetDevPath(), "/devices/x/usb1/1-1");
    EXPECT_EQ(data.GetCustomEventPort(), 3);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "device is null")));
}

TEST_F(UDevDataTest, ADeviceWithoutTheAttributeHasNoKeys) {
    Parse("PRODUCT=1/2/3\nEVENT=overcurrent\nPORT_NUM=1\nENUMERATE=FAIL");
    device.uevent.reset();
    data.ParseDevice(&device);
    unsigned short vendor = 7;
    data.GetProduct(&vendor, nullptr);
    EXPECT_EQ(vendor, 7);
    EXPECT_EQ(data.GetCustomEvent(), 0);
    EXPECT_EQ(data.GetCustomEventPort(), 0);
    EXPECT_EQ(data.GetEnumerate(), 0);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "there is no product"), Line(128, "there is no event"),
                                    Line(128, "there is no event port"), Line(128, "there is no enumerate")));
}

TEST_F(UDevDataTest, NamesASubsystemItDoesNotKnow) {
    device.subsystem = "platform";
    Parse("");
    EXPECT_EQ(data.GetSubSystem(), SUBSYSTEM_NONE);
    device.subsystem.reset();
    EXPECT_EQ(data.GetSubSystem(), SUBSYSTEM_NONE);
    device.subsystem = "none";
    EXPECT_EQ(data.GetSubSystem(), SUBSYSTEM_NONE);
    EXPECT_THAT(Logs(),
                ElementsAre(Line(128, "unknown subsystem(platform)"), Line(128, "there is no subsystem")));
}

TEST_F(UDevDataTest, ReadsTheDeviceTypeOfTheSubsystemThatIsAskedFor) {
    Parse("");
    device.devtype = "usb_interface";
    EXPECT_EQ(data.GetUsbDevType(), USB_DEVTYPE_INTERFACE);
    device.devtype = "disk";
    EXPECT_EQ(data.GetBlockDevType(), BLOCK_DEVTYPE_DISK);
    device.devtype = "partition";
    EXPECT_EQ(data.GetBlockDevType(), BLOCK_DEVTYPE_PARTITION);
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UDevDataTest, ADeviceTypeThatIsNoneIsKnownHere) {
    Parse("");
    device.devtype = "none";
    EXPECT_EQ(data.GetUsbDevType(), 0);
    EXPECT_EQ(data.GetBlockDevType(), 0);
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UDevDataTest, AMissingOrForeignDeviceTypeIsLogged) {
    Parse("");
    device.devtype = "partition";
    EXPECT_EQ(data.GetUsbDevType(), 0);
    device.devtype = "usb_device";
    EXPECT_EQ(data.GetBlockDevType(), 0);
    device.devtype.reset();
    EXPECT_EQ(data.GetUsbDevType(), 0);
    EXPECT_EQ(data.GetBlockDevType(), 0);
    EXPECT_THAT(Logs(),
                ElementsAre(Line(128, "unknown usb devtype(partition)"),
                            Line(128, "unknown block devtype(usb_device)"),
                            Line(128, "there is no usb devtype"), Line(128, "there is no block devtype")));
}

TEST_F(UDevDataTest, AValueEndsAtABlankOrALineEnd) {
    unsigned short vendor = 0;
    unsigned short product = 0;
    for (const char* end : {"\n", "\r\n", " ", " x/y", "\r", ""}) {
        Parse(std::string("PRODUCT=1d6b/2/404") + end);
        data.GetProduct(&vendor, &product);
        EXPECT_EQ(vendor, 0x1d6b);
        EXPECT_EQ(product, 2);
    }
    EXPECT_THAT(Logs(), ::testing::Each(Line(64, "product 1d6b/2/404")));
}

TEST_F(UDevDataTest, AKeyWithNothingBehindItAtTheVeryEndIsAbsent) {
    Parse("DEVNAME=n\nPRODUCT=");
    unsigned short vendor = 7;
    data.GetProduct(&vendor, nullptr);
    EXPECT_EQ(vendor, 7);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "there is no product")));
}

TEST_F(UDevDataTest, AnEmptyValueInTheMiddleIsAValueOfNothing) {
    Parse("PRODUCT=\nEVENT=\nPORT_NUM=\nDEVTYPE=usb_device\n");
    unsigned short vendor = 7;
    data.GetProduct(&vendor, nullptr);
    EXPECT_EQ(vendor, 0);
    EXPECT_EQ(data.GetCustomEvent(), 0);
    EXPECT_EQ(data.GetCustomEventPort(), 0);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "inbuf is null"), Line(64, "product 0/0/0"),
                                    Line(128, "unknown event((null))"), Line(192, "parameter str is null")));
}

TEST_F(UDevDataTest, TakesTheLastOfSeveralEqualKeys) {
    Parse("PORT_NUM=1\nPORT_NUM=2\n");
    EXPECT_EQ(data.GetCustomEventPort(), 2);
    Parse("PORT_NUM=1\nXPORT_NUM=3\n");
    EXPECT_EQ(data.GetCustomEventPort(), 3);
    Parse("PORT_NUM=1\nPORT_NUM=");
    EXPECT_EQ(data.GetCustomEventPort(), 1);
}

TEST_F(UDevDataTest, AKeyInsideAValueIsPartOfTheValue) {
    Parse("DEVNAME=PORT_NUM=4\nPORT_NUM=1\n");
    EXPECT_EQ(data.GetCustomEventPort(), 1);
    Parse("DEVNAME=PORT_NUM=4\n");
    EXPECT_EQ(data.GetCustomEventPort(), 0);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "there is no event port")));
}

TEST_F(UDevDataTest, CutsTheAttributeAt2047Characters) {
    const std::string filler = "X=" + std::string(2020, 'x') + "\n";
    Parse(filler + "PORT_NUM=2\n" + std::string(2047, 'y') + "\nEVENT=overcurrent\n");
    EXPECT_EQ(data.GetCustomEventPort(), 2);
    EXPECT_EQ(data.GetCustomEvent(), 0);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "there is no event")));
    // The last character that is kept, and the first that is not.
    Parse(std::string(2047 - 10, 'x') + "PORT_NUM=23");
    EXPECT_EQ(data.GetCustomEventPort(), 2);
    Parse(std::string(2047 - 8, 'x') + "PORT_NUM=2");
    EXPECT_EQ(data.GetCustomEventPort(), 0);
}

TEST_F(UDevDataTest, KnowsAnEventByItsBeginning) {
    Parse("EVENT=overcurrent\n");
    EXPECT_EQ(data.GetCustomEvent(), 1);
    Parse("EVENT=overcurrent2\n");
    EXPECT_EQ(data.GetCustomEvent(), 1);
    Parse("EVENT=nonesuch\n");
    EXPECT_EQ(data.GetCustomEvent(), 0);
    EXPECT_THAT(Logs(), IsEmpty());
    Parse("EVENT=OVERCURRENT\n");
    EXPECT_EQ(data.GetCustomEvent(), 0);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "unknown event(OVERCURRENT)")));
}

TEST_F(UDevDataTest, CutsTheEventPortToEightBits) {
    Parse("PORT_NUM=300\n");
    EXPECT_EQ(data.GetCustomEventPort(), 44);
    Parse("PORT_NUM=x\n");
    EXPECT_EQ(data.GetCustomEventPort(), 0);
}

TEST_F(UDevDataTest, KnowsAFailedEnumerationOnlyAtTheVeryEnd) {
    Parse("ENUMERATE=FAIL");
    EXPECT_EQ(data.GetEnumerate(), 1);
    Parse("ENUMERATE=none");
    EXPECT_EQ(data.GetEnumerate(), 0);
    EXPECT_THAT(Logs(), IsEmpty());
    Parse("ENUMERATE=FAIL\nX=1");
    EXPECT_EQ(data.GetEnumerate(), 0);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "unknown enumerate(FAIL\nX=1)")));
}

TEST_F(UDevDataTest, PrintsADeviceInOneLine) {
    Parse("");
    data.PrintData(true);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "usb-usb_device DEVPATH=/devices/x/usb1/1-1")));
}

TEST_F(UDevDataTest, PrintsThePathWithoutTheBoardsController) {
    Parse("");
    for (const char* controller : {UPort::kBoardUsb1DevPath, UPort::kBoardUsb2DevPath}) {
        test::ClearLogs();
        device.devpath = std::string(controller) + "/usb1/1-1";
        data.PrintData(true);
        EXPECT_THAT(Logs(), ElementsAre(Line(128, "usb-usb_device DEVPATH=/usb1/1-1")));
    }
}

TEST_F(UDevDataTest, PrintsWhatIsMissingAsNull) {
    Parse("");
    device.devtype.reset();
    device.subsystem.reset();
    data.PrintData(true);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "(null)-(null) DEVPATH=/devices/x/usb1/1-1")));
}

TEST_F(UDevDataTest, PrintsTheDetailsInTheOrderOfTheKeys) {
    Parse("PORT_NUM=2\nDEVNAME=bus/usb/001/002\nPRODUCT=\nEVENT=overcurrent\n");
    data.PrintData(false);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "DEVNAME=bus/usb/001/002"), Line(128, "PRODUCT="),
                                    Line(128, "EVENT=overcurrent"), Line(128, "PORT_NUM=2")));
}

}  // namespace
