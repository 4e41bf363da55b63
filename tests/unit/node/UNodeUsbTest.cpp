#include "node/UNodeUsb.h"

#include <cstring>

#include "NodeBench.h"
#include "Wraps.h"
#include "record/DiagPacket.h"
#include "record/MediaPacket.h"

using namespace dcm::usb;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::Pair;
using ::testing::SizeIs;

namespace test {
namespace {

const Interface kStorage{"08", "06", "50", "02"};
const Interface kVendor{"ff", "42", "01", "02"};
const Interface kKeyboard{"03", "01", "01", "01"};
const Interface kHubFunction{"09", "00", "01", "01"};

const Device kStick{0x1234, 0x0001, {kStorage}, "Acme", "Stick", "S1"};
const Device kPhone{0x04e8, 0x6860, {kVendor}, "Samsung", "Phone", "RF8"};
const Device kTwoPortHub{0x0424, 0x4504, {kHubFunction}};
const Device kI2cHub{0x0424, 0x4940, {kVendor}, "", "", "2H7.604"};
const Device kCustomerHub{0x05e3, 0x0608, {kHubFunction}};
const Device kUnsupported{0x1234, 0x0002, {{"e0", "01", "01", "02"}}};
const Device kKeyboardDevice{0x1234, 0x0003, {kKeyboard}};

constexpr unsigned long kDiag = 0x0800000000000000;
constexpr unsigned long kMediaAndSpeech = 0x4000800000;

// The node with its inner parts in reach, outside of any list.
struct OpenNode : UNodeUsb {
    explicit OpenNode(UNotifier* notifier, const std::string& path = kPort1)
        : UNodeUsb(SUBSYSTEM_USB, path.c_str(), notifier) {}
    using UNodeUsb::ActionAddInterface;
    using UNodeUsb::m_dev_type;
    using UNodeUsb::m_lists;
    using UNodeUsb::m_notifier;
    using UNodeUsb::m_setting;
    using UNodeUsb::m_usb_devtype;
};

class UNodeUsbTest : public NodeBench {
protected:
    void SetUp() override {
        outside = {};
        NodeBench::SetUp();
    }

    // Forgets what was told so far.
    void Forget() {
        Drain(kUsb);
        Drain(kMonitor);
        ClearPackets();
        ClearLogs();
    }

    // (cmd, sub-command, device type, port) of each packet to media, nothing of the others.
    static std::vector<std::array<unsigned, 4>> ToMedia() {
        std::vector<std::array<unsigned, 4>> told;
        for (const Packet& packet : Packets()) {
            if (packet.dest != kMediaAndSpeech) continue;
            const auto& bytes = packet.bytes;
            told.push_back({bytes.at(4), bytes.at(8), bytes.at(12), bytes.at(16)});
        }
        return told;
    }

    static std::vector<Bytes> ToDiagnosis() {
        std::vector<Bytes> told;
        for (const Packet& packet : Packets())
            if (packet.dest == kDiag) told.push_back(packet.bytes);
        return told;
    }
};

TEST_F(UNodeUsbTest, ADeviceIsTakenAsTheKernelDescribesIt) {
    UNodeUsb* const node = AddDevice(kPort2, {0x05ac, 0x12a8, {{}, {}, {}}, "Apple Inc.", "iPhone", "F2L"});
    EXPECT_EQ(node->GetUsbDevType(), USB_DEVTYPE_DEVICE);
    EXPECT_EQ(node->GetVid(), 0x05ac);
    EXPECT_EQ(node->GetPid(), 0x12a8);
    EXPECT_EQ(node->GetPort(), 2);
    EXPECT_EQ(node->GetDevType(), DEV_TYPE_NONE);
    EXPECT_EQ(node->GetNumInterfaces(), 3);
    EXPECT_STREQ(node->GetManufacturer(), "Apple Inc.");
    EXPECT_STREQ(node->GetProduct(), "iPhone");
    EXPECT_STREQ(node->GetSerial(), "F2L");
    EXPECT_EQ(node->GetSpeed(), 2);
    EXPECT_THAT(Logs(), Wrote(128,
                              "vid:5ac pid:12a8 manufacturer:Apple Inc. product:iPhone serial:F2L "
                              "numInterfaces:3 speed:2"));
    EXPECT_THAT(Drain(kUsb), IsEmpty());  // not before its interfaces
    EXPECT_THAT(Packets(), IsEmpty());
}

TEST_F(UNodeUsbTest, ADeviceWithoutSerialIsNamedByItsIds) {
    UNodeUsb* const node = AddDevice(kPort1, {0x05ac, 0x12a8});
    EXPECT_STREQ(node->GetSerial(), "5ac_12a8");
    EXPECT_EQ(node->GetManufacturer(), nullptr);
    EXPECT_EQ(node->GetProduct(), nullptr);
    EXPECT_THAT(Logs(), Wrote(128,
                              "vid:5ac pid:12a8 manufacturer:(null) product:(null) serial:5ac_12a8 "
                              "numInterfaces:0 speed:2"));
}

TEST_F(UNodeUsbTest, TheSpeedIsCodedInFourSteps) {
    const std::pair<const char*, int> speeds[] = {{"5000", 2}, {"480", 2},    {"479", 1}, {"12", 1},
                                                  {"11", 0},   {"1.5", 0},    {"1", 0},   {"0", 255},
                                                  {"", 255},   {"fast", 255}, {"-1", 255}};
    for (const auto& [text, coded] : speeds) {
        Device device;
        device.speed = text;
        EXPECT_EQ(AddDevice(kPort1, device)->GetSpeed(), coded) << text;
        Remove(kPort1);
    }
}

TEST_F(UNodeUsbTest, AnInterfaceIsTakenAsTheKernelDescribesIt) {
    const Device device{0x1234, 0xabcd, {{"ff", "5d", "01", "03", "MTP"}, {}}};
    AddDevice(kPort1, device);
    UNodeUsb* const node = AddInterface(kPort1, device, 0);
    EXPECT_EQ(node->GetUsbDevType(), USB_DEVTYPE_INTERFACE);
    EXPECT_EQ(node->GetInterfaceClass(), 0xff);
    EXPECT_EQ(node->GetInterfaceSubClass(), 0x5d);
    EXPECT_EQ(node->GetInterfaceProtocol(), 1);
    EXPECT_EQ(node->GetInterfaceNumber(), 0);
    EXPECT_EQ(node->GetNumEndpoints(), 3);
    EXPECT_STREQ(node->GetInterfaceString(), "MTP");
    EXPECT_EQ(node->GetVid(), 0x1234);
    EXPECT_EQ(node->GetPort(), 1);
    EXPECT_THAT(Logs(), Wrote(128,
                              "vid:1234 pid:abcd class:ff,5d interfaceNum:0 numEndPoints:3 "
                              "interfaceStr:MTP"));
    EXPECT_THAT(Logs(), Wrote(128, "total_interface_num:2 cur_interface_num:0"));
}

TEST_F(UNodeUsbTest, InterfaceNumbersAreHexadecimalAndTheirCountIsDecimal) {
    Device device{0x1234, 1, std::vector<Interface>(12, kVendor)};
    device.interfaces[11].endpoints = "10";
    PlugIn(kPort1, device);
    const auto* last = static_cast<UNodeUsb*>(Find(InterfacePath(kPort1, 11)));
    EXPECT_EQ(last->GetInterfaceNumber(), 11);
    EXPECT_EQ(last->GetNumEndpoints(), 16);
    EXPECT_THAT(Logs(), Wrote(128, "total_interface_num:12 cur_interface_num:11"));
    EXPECT_THAT(ToDiagnosis(), SizeIs(1));  // performed, by the twelfth
}

TEST_F(UNodeUsbTest, AnUnreadableInterfaceHasAllBitsSet) {
    const Device device{0x1234, 1, {{"", "", "", "", ""}}};
    AddDevice(kPort1, device);
    FakeEvent event = DeviceEvent(InterfacePath(kPort1, 0), device);
    event.usb_devtype = USB_DEVTYPE_INTERFACE;
    auto* const node = static_cast<UNodeUsb*>(Add(event));
    EXPECT_EQ(node->GetInterfaceClass(), 0xff);
    EXPECT_EQ(node->GetInterfaceNumber(), 0xff);
    EXPECT_EQ(node->GetNumEndpoints(), 0xff);
    EXPECT_EQ(node->GetInterfaceString(), nullptr);
    EXPECT_THAT(ToDiagnosis(), IsEmpty());
}

TEST_F(UNodeUsbTest, AnInterfaceWithoutADeviceIsKeptAndNothingMore) {
    AddInterface(kPort1, kStick, 0);
    EXPECT_THAT(Logs(), Wrote(160, "parent doesn't exist"));
    EXPECT_EQ(List().GetSize(), 1u);
    EXPECT_THAT(Drain(kUsb), IsEmpty());
}

TEST_F(UNodeUsbTest, TheCountOfInterfacesIsReadAgainWithEachOfThem) {
    Device device = kPhone;
    device.interfaces = {kVendor, kVendor};
    UNodeUsb* const node = AddDevice(kPort1, device);
    Sys().Remove(kPort1 + "/bNumInterfaces");
    AddInterface(kPort1, device, 0);
    EXPECT_THAT(Logs(), Wrote(192, "cant' get the num of interface"));
    EXPECT_THAT(Logs(), Wrote(128, "total_interface_num:2 cur_interface_num:0"));  // as it was
    Sys().Set(kPort1 + "/bNumInterfaces", " 4\n");
    AddInterface(kPort1, device, 1);
    EXPECT_THAT(Logs(), Wrote(128, Format("%p, 2 -> 4", static_cast<void*>(node))));
    EXPECT_THAT(Logs(), Wrote(128, "total_interface_num:4 cur_interface_num:1"));
    EXPECT_THAT(Drain(kUsb), IsEmpty());
}

TEST_F(UNodeUsbTest, TheDevicePerformsWhenItsLastInterfaceArrives) {
    Device device = kPhone;
    device.interfaces = {kVendor, kVendor, kVendor};
    UNodeUsb* const node = AddDevice(kPort1, device);
    AddInterface(kPort1, device, 0);
    AddInterface(kPort1, device, 1);
    EXPECT_THAT(PortMessages(), IsEmpty());
    AddInterface(kPort1, device, 2);
    EXPECT_THAT(PortMessages(), ElementsAre(Pair(20, 1)));
    EXPECT_EQ(node->GetDevType(), DEV_TYPE_PHONE);
    EXPECT_EQ(node->GetUsbClass(), 0xff);
}

TEST_F(UNodeUsbTest, InterfacesThatComeBackPerformAgain) {
    PlugIn(kPort1, kPhone);
    Remove(InterfacePath(kPort1, 0));
    AddInterface(kPort1, kPhone, 0);
    EXPECT_THAT(PortMessages(), ElementsAre(Pair(20, 1), Pair(20, 1)));
}

TEST_F(UNodeUsbTest, ADeviceThatIsAddedTwiceAnnouncesItselfTwiceAndStandsInTheListOnce) {
    PlugIn(kPort1, kPhone);
    PlugIn(kPort1, kPhone);
    EXPECT_EQ(List().GetSize(), 2u);
    EXPECT_THAT(PortMessages(), ElementsAre(Pair(20, 1), Pair(20, 1)));
}

TEST_F(UNodeUsbTest, TheLastInterfaceDecidesAlsoWhenItCameBeforeOthers) {
    Device device = kPhone;
    device.interfaces = {kVendor, kVendor, kVendor};
    AddDevice(kPort1, device);
    AddInterface(kPort1, device, 2);
    EXPECT_THAT(PortMessages(), ElementsAre(Pair(20, 1)));
    AddInterface(kPort1, device, 0);
    AddInterface(kPort1, device, 1);
    EXPECT_THAT(PortMessages(), IsEmpty());
}

TEST_F(UNodeUsbTest, APhoneIsToldToThePortLogicByteByByte) {
    Device phone = kPhone;
    phone.speed = "480";
    PlugIn(kPort32, phone);
    const Bytes texts =
        Join({Field("RF8", 64), Field("Phone", 64), Field("Samsung", 64), Field(kPort32, 128)});
    EXPECT_THAT(Drain(kUsb),
                ElementsAre(Queued{4096, Join({Hex("03 000000 14000000 20 000000 09000000 E804 6068 FF 000000"
                                                   "02000000"),
                                               texts})}));
    EXPECT_THAT(Logs(), Wrote(128, "msgID:20 dev_type:9 port:32 vid:4e8 pid:6860 class:ff speed:2"));
    EXPECT_THAT(Logs(), Wrote(128,
                              "serial:RF8 product:Phone manu:Samsung "
                              "dev_path:/devices/soc/7600000.hsusb/7600000.dwc3/xhci-hcd.0.auto/usb1/1-1/"
                              "1-1.2/1-1.2.3"));
    Unplug(kPort32, 1);
    EXPECT_THAT(Drain(kUsb),
                ElementsAre(Queued{4096, Join({Hex("03 000000 15000000 20 000000 09000000 E804 6068 FF 000000"
                                                   "02000000"),
                                               texts})}));
    EXPECT_THAT(Logs(), Wrote(128, "msgID:21 dev_type:9 port:32 vid:4e8 pid:6860 class:ff speed:2"));
}

TEST_F(UNodeUsbTest, LongTextsAreCutAndStayTerminated) {
    Device phone = kPhone;
    phone.serial = std::string(3000, 's');
    phone.product = std::string(64, 'p') + "%n\xff";
    phone.manufacturer = std::string(63, 'm');
    const std::string path = kHost + "/usb1/1-1/" + std::string(150, 'x') + "1-1.1";
    OpenNode node(Notifier(), path);
    PlugIn(kPort1, phone);
    const Bytes message = Drain(kUsb).at(0).bytes;
    ASSERT_EQ(message.size(), 348u);
    EXPECT_EQ(Bytes(message.begin() + 28, message.begin() + 220),
              Join({Field(std::string(63, 's'), 64), Field(std::string(63, 'p'), 64),
                    Field(std::string(63, 'm'), 64)}));
    node.NotifyEventToUsb(dcm::MSGID_USB_ADD);
    EXPECT_EQ(Bytes(Drain(kUsb).at(0).bytes).at(347), 0);
    node.NotifyEventToMedia(CMD_ERROR, SUB_CMD_NONE, DEV_TYPE_ANY);
    const Bytes packet = Packets().back().bytes;
    ASSERT_EQ(packet.size(), 360u);
    EXPECT_EQ(Bytes(packet.begin() + 228, packet.begin() + 356), Field(path.substr(0, 127), 128));
}

TEST_F(UNodeUsbTest, EachKindOfPortDeviceComesAndGoesWithItsType) {
    const std::pair<Device, unsigned> devices[] = {
        {kStick, DEV_TYPE_STORAGE},
        {{0x05ac, 0x12a8, {kVendor}}, DEV_TYPE_APPLE},
        {{0x05ac, 0x1300, {kStorage}}, DEV_TYPE_APPLE_SHUTTLE},
        {kPhone, DEV_TYPE_PHONE},
        {{0x04e8, 1, {{"06", "01", "01", "03"}}}, DEV_TYPE_MTP},
    };
    for (const auto& [device, type] : devices) {
        PlugIn(kPort2, device);
        Unplug(kPort2, 1);
        const std::vector<Queued> told = Drain(kUsb);
        ASSERT_EQ(told.size(), 2u) << type;
        EXPECT_EQ(told[0].bytes.at(4), 20);
        EXPECT_EQ(told[1].bytes.at(4), 21);
        EXPECT_EQ(told[0].bytes.at(12), type);
        EXPECT_EQ(told[1].bytes.at(12), type);
        EXPECT_THAT(ToMedia(), IsEmpty());
        EXPECT_THAT(Logs(), AllOf(Contains(Line(128, "action:1")), Contains(Line(128, "action:2"))));
        Forget();
    }
}

TEST_F(UNodeUsbTest, NothingSpecialAndTheCdDriveAreToldToDiagnosisOnly) {
    const Device devices[] = {
        {0x0bda, 0x8152, {kVendor}}, {0x2166, 0x000c, {kStorage}}, {0x1234, 9, {{"02"}}}};
    for (const Device& device : devices) {
        PlugIn(kPort2, device);
        Unplug(kPort2, 1);
        EXPECT_THAT(Drain(kUsb), IsEmpty());
        EXPECT_THAT(ToMedia(), IsEmpty());
        EXPECT_THAT(ToDiagnosis(), SizeIs(2));
        EXPECT_THAT(Logs(), AllOf(Contains(Line(128, "action:1")), Contains(Line(128, "action:2"))));
        Forget();
    }
}

TEST_F(UNodeUsbTest, ADeviceWithoutInterfacesIsNeverPerformedButItsEndIsTold) {
    UNodeUsb* const node = AddDevice(kPort1, {0x04e8, 0x6860});
    node->UpdateNumInterfaces();
    EXPECT_THAT(Logs(), Wrote(192, "cant' get the num of interface"));
    Remove(kPort1);
    EXPECT_THAT(Drain(kUsb), IsEmpty());
    EXPECT_THAT(ToDiagnosis(), ElementsAre(Hex("01 60 22 18 5D FF*9 00 FF")));
}

TEST_F(UNodeUsbTest, AnUnsupportedDeviceIsToldToMediaByteByByteAndRemoved) {
    Device device = kUnsupported;
    device.manufacturer = "Acme";
    device.product = "Radio";
    device.serial = "R1";
    device.speed = "12";
    PlugIn(kPort32, device);
    const Bytes texts = Join({Field("R1", 64), Field("Radio", 64), Field("Acme", 64), Field(kPort32, 128)});
    const Bytes expected = Join(
        {Hex("03000000 06000000 01000000 01000000 02000000 3412 0200 00*12"), texts, Hex("E0 01 00 00")});
    ASSERT_EQ(expected.size(), 360u);
    EXPECT_THAT(Packets(), Contains(Packet{kMediaAndSpeech, expected}));
    EXPECT_THAT(Drain(kUsb), ElementsAre(Queued{4096, Hex("03 000000 1D000000 20 000000")}));
    EXPECT_THAT(Logs(), Wrote(128,
                              "cmd:6 sub_cmd:1 dev_type:1 port:2 vid:1234 pid:2 support:0:0:0 class:e0 "
                              "speed:1"));
    EXPECT_THAT(Logs(),
                Wrote(128,
                      "serial:R1 product:Radio manu:Acme dev_path:/devices/soc/7600000.hsusb/7600000.dwc3/"
                      "xhci-hcd.0.auto/usb1/1-1/1-1.2/1-1.2.3"));
    EXPECT_THAT(Logs(), Wrote(128,
                              "remove it. isForce:1 customer_hub_support:1 path:/devices/soc/7600000.hsusb/"
                              "7600000.dwc3/xhci-hcd.0.auto/usb1/1-1/1-1.2/1-1.2.3 port:32"));
    Forget();
    Unplug(kPort32, 1);
    EXPECT_THAT(ToMedia(), ElementsAre(std::array{5u, 0u, 1u, 2u}));
    EXPECT_THAT(Drain(kUsb), IsEmpty());
}

TEST_F(UNodeUsbTest, AnInputDeviceIsRemovedOnlyWhereCustomersHubsAreNot) {
    PlugIn(kPort1, kKeyboardDevice);
    EXPECT_THAT(ToMedia(), ElementsAre(std::array{6u, 1u, 12u, 1u}));
    EXPECT_THAT(Drain(kUsb), IsEmpty());
    EXPECT_THAT(Logs(), Wrote(160, "don't remove it because customer_hub is supported"));
    Unplug(kPort1, 1);
    EXPECT_THAT(ToMedia(), ElementsAre(std::array{6u, 1u, 12u, 1u}, std::array{5u, 0u, 12u, 1u}));

    SetCustomerHubSupport(0);
    PlugIn(kPort1, kKeyboardDevice);
    EXPECT_THAT(PortMessages(), ElementsAre(Pair(29, 1)));
    EXPECT_THAT(Logs(), Wrote(128,
                              "remove it. isForce:0 customer_hub_support:0 path:/devices/soc/7600000.hsusb/"
                              "7600000.dwc3/xhci-hcd.0.auto/usb1/1-1/1-1.1 port:1"));
}

TEST_F(UNodeUsbTest, ACustomersHubIsToldToMediaAsNotSupported) {
    PlugIn(kPort2, kCustomerHub);
    EXPECT_THAT(ToMedia(), ElementsAre(std::array{6u, 7u, 1u, 2u}));
    EXPECT_THAT(Drain(kUsb), IsEmpty());
    EXPECT_THAT(Logs(), Wrote(128, "action:1 customer hub"));
    Unplug(kPort2, 1);
    EXPECT_THAT(ToMedia(), ElementsAre(std::array{6u, 7u, 1u, 2u}, std::array{5u, 0u, 1u, 2u}));
    EXPECT_THAT(Logs(), Wrote(128, "action:2 customer hub"));
    EXPECT_THAT(ToDiagnosis(), IsEmpty());  // the device state is not told of hubs

    SetCustomerHubSupport(0);
    PlugIn(kPort2, kCustomerHub);
    EXPECT_THAT(PortMessages(), ElementsAre(Pair(29, 2)));
}

TEST_F(UNodeUsbTest, TheVehiclesHubIsReportedHealthyOnceAndFaultyOnce) {
    for (const unsigned short pid : {0x4503, 0x4924, 0x4504}) {
        Device hub = kTwoPortHub;
        hub.pid = pid;
        PlugIn(kHub, hub);
        EXPECT_EQ(UPort::m_hub_max_port, 2);
        EXPECT_THAT(ToDiagnosis(), ElementsAre(Hex("01 60 22 18 E8 00"), Hex("01 60 19 06 65 00")));
        PlugIn(kHub, hub);  // told twice
        EXPECT_THAT(ToDiagnosis(), SizeIs(2));
        Forget();

        Unplug(kHub, 1);
        EXPECT_EQ(UPort::m_hub_max_port, 0);
        EXPECT_THAT(ToDiagnosis(), ElementsAre(Hex("01 60 22 18 E8 01"), Hex("01 60 19 06 65 01"),
                                               Hex("01 60 22 80 AA 01")));
        EXPECT_THAT(
            Drain(kMonitor),
            ElementsAre(Queued{4096, Join({Hex("00 000000 22000000 00"), Field(kHub, 128), Hex("00*3")})}));
        EXPECT_THAT(Drain(kUsb), ElementsAre(Queued{4096, Hex("03 000000 1E000000 00 000000")}));
        EXPECT_THAT(Logs(), Wrote(128, "reset hub"));
        EXPECT_THAT(ToMedia(), IsEmpty());
        Forget();
    }
}

TEST_F(UNodeUsbTest, SaysWhichOfTheVehiclesHubsItIs) {
    PlugIn(kHub, kTwoPortHub);
    EXPECT_THAT(Logs(), Wrote(128, "action:1 ka 2port hub:5"));
    Unplug(kHub, 1);
    EXPECT_THAT(Logs(), Wrote(128, "action:2 ka 2port hub:5"));
}

TEST_F(UNodeUsbTest, AHubThatLeavesWithoutHavingCountedSendsNothing) {
    PlugIn(kHub, kTwoPortHub);
    Forget();
    UPort::m_hub_max_port = 0;
    Unplug(kHub, 1);
    EXPECT_THAT(Packets(), IsEmpty());
    EXPECT_THAT(Drain(kUsb), IsEmpty());
    EXPECT_THAT(Drain(kMonitor), IsEmpty());
}

TEST_F(UNodeUsbTest, AUnitWithASinglePortIsNotChangedByATwoPortHub) {
    UPort::m_hub_max_port = 1;
    PlugIn(kHub, kTwoPortHub);
    EXPECT_EQ(UPort::m_hub_max_port, 1);
    Unplug(kHub, 1);
    EXPECT_EQ(UPort::m_hub_max_port, 1);
    EXPECT_THAT(Packets(), IsEmpty());
    EXPECT_THAT(Drain(kUsb), IsEmpty());
    EXPECT_THAT(Drain(kMonitor), IsEmpty());
}

TEST_F(UNodeUsbTest, TheHubsOwnFunctionStartsAndStopsTheVoltageSupervision) {
    for (const unsigned short pid : {0x2530, 0x4940}) {
        UPort::m_max_current = 1;
        Device hub = kI2cHub;
        hub.pid = pid;
        hub.serial = "8E1.319";
        PlugIn(kHub + "/1-1.3", hub);
        EXPECT_EQ(UPort::m_max_current, 1u);
        EXPECT_THAT(ToDiagnosis(), ElementsAre(Hex("01 60 22 80 AA 00")));
        EXPECT_THAT(Drain(kMonitor), ElementsAre(Queued{4096, Hex("00 000000 23000000 00 00 0000")}));
        Unplug(kHub + "/1-1.3", 1);
        EXPECT_THAT(Drain(kMonitor), ElementsAre(Queued{4096, Hex("00 000000 24000000 00 00 0000")}));
        EXPECT_THAT(ToDiagnosis(), SizeIs(1));
        Forget();
    }
}

TEST_F(UNodeUsbTest, AHubWith604InItsSerialAllowsTheHigherCurrent) {
    PlugIn(kHub + "/1-1.3", kI2cHub);
    EXPECT_EQ(UPort::m_max_current, 0u);
    EXPECT_THAT(Logs(), Wrote(128, "max current is 2.1A because of 604 hub"));
    EXPECT_THAT(ToDiagnosis(), ElementsAre(Hex("01 60 22 80 AA 00")));
}

TEST_F(UNodeUsbTest, ARootHubIsOnlyNoted) {
    const Device hub{0x1d6b, 0x0002, {kHubFunction}};
    PlugIn(kHost + "/usb1", hub);
    EXPECT_THAT(Logs(), Wrote(128, "action:1 hub:0"));
    Unplug(kHost + "/usb1", 1);
    EXPECT_THAT(Logs(), Wrote(128, "action:2 hub:0"));
    EXPECT_THAT(Packets(), IsEmpty());
    EXPECT_THAT(Drain(kUsb), IsEmpty());
}

TEST_F(UNodeUsbTest, TheDeviceStateIsToldToDiagnosisByteByByte) {
    Attribute(kPort1 + "/power/level", "on");
    PlugIn(kPort1, kStick);
    EXPECT_THAT(Packets(),
                ElementsAre(Packet{kDiag, Hex("01 60 22 18 5D 01 02 08 06 50 34 12 01 00 01 FF")}));
    EXPECT_THAT(Logs(), Wrote(128, "power_level:on speed:2"));
    ClearPackets();
    Unplug(kPort1, 1);
    EXPECT_THAT(Packets(), ElementsAre(Packet{kDiag, Hex("01 60 22 18 5D FF*9 00 FF")}));
}

TEST_F(UNodeUsbTest, ADeviceThatIsNotOnHasPowerState0) {
    for (const char* level : {"auto", "only", ""}) {
        Attribute(kPort1 + "/power/level", level);
        PlugIn(kPort1, kStick);
        EXPECT_EQ(ToDiagnosis().at(0).at(5), 0);
        Unplug(kPort1, 1);
        Forget();
    }
    PlugIn(kPort1, kStick);
    EXPECT_THAT(Logs(), Wrote(128, "power_level:(null) speed:2"));
}

TEST_F(UNodeUsbTest, AFirstChildThatIsNoInterfaceCountsAsClass0) {
    AddDevice(kPort1, kStick);
    Insert(kPort1 + "/net/usb0");
    AddInterface(kPort1, kStick, 0);
    const auto* node = static_cast<UNodeUsb*>(Find(kPort1));
    EXPECT_EQ(node->GetDevType(), DEV_TYPE_STORAGE);
    EXPECT_EQ(node->GetUsbClass(), 0);
    EXPECT_THAT(ToDiagnosis(), ElementsAre(Hex("01 60 22 18 5D 00 02 00 00 00 34 12 01 00 01 FF")));
}

TEST_F(UNodeUsbTest, WithoutChildrenTheTypeStaysAsItWas) {
    UNodeUsb* const node = PlugIn(kPort1, kStick);
    Remove(InterfacePath(kPort1, 0));
    Forget();
    node->Perform(ACTION_ADD);
    EXPECT_EQ(node->GetDevType(), DEV_TYPE_STORAGE);
    EXPECT_EQ(node->GetUsbClass(), 8);
    EXPECT_THAT(PortMessages(), ElementsAre(Pair(20, 1)));
    EXPECT_THAT(ToDiagnosis(), ElementsAre(Hex("01 60 22 18 5D 00 02 00 00 00 34 12 01 00 01 FF")));
}

TEST_F(UNodeUsbTest, AnOverCurrentOfAPortIsToldToTheMonitorAndToMedia) {
    PlugIn(kPort2, kStick);
    Forget();
    FakeEvent event = DeviceEvent(kPort2, kStick);
    event.custom_event = 1;
    event.custom_event_port = 7;
    Find(kPort2)->ActionChange(&event);
    EXPECT_THAT(
        Drain(kMonitor),
        ElementsAre(Queued{4096, Join({Hex("00 000000 21000000 07"), Field(kPort2, 128), Hex("00*3")})}));
    EXPECT_THAT(ToMedia(), ElementsAre(std::array{6u, 8u, 5u, 2u}));
}

TEST_F(UNodeUsbTest, AnyOtherChangeTellsNobody) {
    UNodeUsb* const node = PlugIn(kPort2, kStick);
    Forget();
    FakeEvent event = DeviceEvent(kPort2, kStick);
    event.enumerate = 1;
    node->ActionChange(&event);
    node->ActionChange(nullptr);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "event_data is null")));
    EXPECT_THAT(Packets(), IsEmpty());
    EXPECT_THAT(Drain(kMonitor), IsEmpty());
}

TEST_F(UNodeUsbTest, AnOverCurrentThatIsThereAtPlugInIsToldAtOnce) {
    for (const int port : {1, 2}) {
        const std::string path = port == 1 ? kPort1 : kPort2;
        Attribute(kHost + Format("/usb1/1-1/1-1:1.0/1-1-port%d/overcurrent", port), "1");
        AddDevice(path, kStick);
        EXPECT_THAT(
            Logs(),
            Wrote(128, Format("/devices/soc/7600000.hsusb/7600000.dwc3/xhci-hcd.0.auto/usb1/1-1/1-1:1.0/"
                              "1-1-port%d/overcurrent overcurrent:1",
                              port)));
        EXPECT_THAT(Drain(kMonitor),
                    ElementsAre(Queued{4096, Join({Hex("00 000000 21000000"), Hex(Format("%02x", port)),
                                                   Field(path, 128), Hex("00*3")})}));
        EXPECT_THAT(ToMedia(), ElementsAre(std::array{6u, 8u, 0u, static_cast<unsigned>(port)}));
        Forget();
    }
}

TEST_F(UNodeUsbTest, WithoutOverCurrentOrFurtherAwayNothingIsTold) {
    Attribute(kHost + "/usb1/1-1/1-1:1.0/1-1-port1/overcurrent", "0");
    AddDevice(kPort1, kStick);
    EXPECT_THAT(Logs(), Wrote(128,
                              "/devices/soc/7600000.hsusb/7600000.dwc3/xhci-hcd.0.auto/usb1/1-1/1-1:1.0/"
                              "1-1-port1/overcurrent overcurrent:0"));
    AddDevice(kPort2, kStick);  // no such attribute
    EXPECT_THAT(Logs(), Wrote(128,
                              "/devices/soc/7600000.hsusb/7600000.dwc3/xhci-hcd.0.auto/usb1/1-1/1-1:1.0/"
                              "1-1-port2/overcurrent overcurrent:-1"));
    Attribute(kHost + "/usb1/1-1/1-1:1.0/1-1-port2/overcurrent", "1");
    ClearLogs();
    AddDevice(kPort32, kStick);
    AddDevice(kHub, kTwoPortHub);
    for (const LogLine& line : Logs())
        EXPECT_THAT(line.text, Not(testing::HasSubstr("overcurrent:")));
    EXPECT_THAT(Drain(kMonitor), IsEmpty());
    EXPECT_THAT(Packets(), IsEmpty());
}

TEST_F(UNodeUsbTest, AnEventOfUnknownKindIsRefused) {
    FakeEvent event = DeviceEvent(kPort1, kStick);
    event.usb_devtype = USB_DEVTYPE_NONE;
    UNode* const node = Add(event);
    EXPECT_THAT(Logs(), Wrote(160, "unknown type:0"));
    EXPECT_EQ(event.printed_details, 1);
    EXPECT_EQ(event.printed_summary, 0);
    ClearLogs();
    node->ActionAdd(nullptr);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "event_data is null")));
}

TEST_F(UNodeUsbTest, AnInterfaceNeedsItsEventAndTheList) {
    OpenNode node(Notifier(), InterfacePath(kPort1, 0));
    node.ActionAddInterface(nullptr);
    EXPECT_THAT(Logs(), Wrote(192, "event_data is null"));
    UListNode* const lists = node.m_lists;
    node.m_lists = nullptr;
    ClearLogs();
    FakeEvent event = DeviceEvent(kPort1, kStick);
    event.usb_devtype = USB_DEVTYPE_INTERFACE;
    node.ActionAdd(&event);
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "lists is null")));
    node.m_lists = lists;
}

TEST_F(UNodeUsbTest, ADeviceWithoutAListHasNoTexts) {
    OpenNode node(Notifier(), kPort32);
    node.m_lists = nullptr;
    FakeEvent event = DeviceEvent(kPort32, kStick);
    event.usb_devtype = USB_DEVTYPE_DEVICE;
    node.ActionAdd(&event);
    EXPECT_THAT(Logs(192), Contains(Line(192, "lists is null")).Times(3));
    EXPECT_EQ(node.GetSerial(), nullptr);
    node.m_usb_devtype = USB_DEVTYPE_NONE;
}

TEST_F(UNodeUsbTest, PerformingNeedsListAndNotifier) {
    OpenNode node(nullptr);
    ClearLogs();
    node.Perform(ACTION_ADD);
    EXPECT_THAT(
        Logs(),
        ElementsAre(Line(192, Format("lists(%p) or notifier((nil)) is null", static_cast<void*>(&List())))));
    node.m_notifier = Notifier();
    node.m_lists = nullptr;
    ClearLogs();
    node.Perform(ACTION_REMOVE);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, Format("lists((nil)) or notifier(%p) is null",
                                                     static_cast<void*>(Notifier())))));
    EXPECT_THAT(Packets(), IsEmpty());
}

TEST_F(UNodeUsbTest, WithoutANotifierEachMessageIsRefused) {
    OpenNode node(nullptr);
    FakeEvent event;
    event.custom_event = 1;
    ClearLogs();
    node.NotifyEventToUsb(dcm::MSGID_USB_ADD);
    node.NotifyEventToMedia(CMD_ERROR, SUB_CMD_NONE, DEV_TYPE_ANY);
    node.NotifyNodeRemovalToUsb(true);
    node.NotifyResetHubToUsb();
    node.NotifyDeviceStateToDiag(ACTION_ADD);
    EXPECT_THAT(Logs(), AllOf(SizeIs(5), Each(Line(192, "notifier is null"))));
    ClearLogs();
    node.PerformDeviceHub(ACTION_ADD);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "action:1"), Line(192, "notifier is null")));
    ClearLogs();
    node.ActionChange(&event);
    EXPECT_THAT(Logs(), AllOf(SizeIs(2), Each(Line(192, "notifier is null"))));
    Attribute(kHost + "/usb1/1-1/1-1:1.0/1-1-port0/overcurrent", "1");
    ClearLogs();
    node.CheckUdevOvercurrent();
    EXPECT_THAT(Logs(192), AllOf(SizeIs(2), Each(Line(192, "notifier is null"))));
}

TEST_F(UNodeUsbTest, WithoutTheSettingNothingIsRemoved) {
    OpenNode node(Notifier());
    node.m_setting = nullptr;
    ClearLogs();
    node.PerformDeviceInput(ACTION_ADD);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "action:1"), Line(192, "setting is null")));
    node.NotifyNodeRemovalToUsb(true);
    EXPECT_THAT(Logs(192), SizeIs(2));
    EXPECT_THAT(Drain(kUsb), IsEmpty());
    EXPECT_THAT(Packets(), IsEmpty());
}

TEST_F(UNodeUsbTest, AnActionThatIsNeitherAddNorRemoveIsRefusedByAll) {
    OpenNode node(Notifier());
    for (unsigned type = DEV_TYPE_NONE; type <= DEV_TYPE_INPUT; ++type) {
        node.m_dev_type = static_cast<E_DEV_TYPE>(type);
        ClearLogs();
        node.Perform(ACTION_CHANGE);
        EXPECT_THAT(Logs(), Wrote(160, "unknown action:3")) << type;
        if (type == DEV_TYPE_RESERVED_7 || type == DEV_TYPE_RESERVED_11)
            EXPECT_THAT(Logs(), Wrote(192, Format("performer is null, dev_type:%u", type)));
        else
            EXPECT_THAT(Logs(), Wrote(128, "action:3"));
    }
    EXPECT_THAT(Packets(), IsEmpty());
    EXPECT_THAT(Drain(kUsb), IsEmpty());
    EXPECT_THAT(Drain(kMonitor), IsEmpty());
}

TEST_F(UNodeUsbTest, ATypeWithoutAHandlerIsStillToldToDiagnosis) {
    OpenNode node(Notifier());
    for (const unsigned type : {7u, 11u, 13u}) {
        node.m_dev_type = static_cast<E_DEV_TYPE>(type);
        ClearLogs();
        ClearPackets();
        node.Perform(ACTION_REMOVE);
        EXPECT_THAT(ToDiagnosis(), ElementsAre(Hex("01 60 22 18 5D FF*9 00 FF")));
        EXPECT_THAT(Logs(192), SizeIs(type == 13 ? 0 : 1));
    }
    node.m_dev_type = DEV_TYPE_RESERVED_7;
    node.Perform(ACTION_REMOVE);
    EXPECT_THAT(Logs(), Wrote(192, "performer is null, dev_type:7"));
    node.m_dev_type = DEV_TYPE_SD;
    ClearLogs();
    node.Perform(ACTION_ADD);
    EXPECT_THAT(Logs(), Wrote(128, "action:1"));
}

TEST_F(UNodeUsbTest, TheEndOfADeviceIsToldAfterItsInterfacesAreGone) {
    PlugIn(kPort1, kPhone);
    Forget();
    Remove(kPort1);  // the interfaces were never removed on their own
    EXPECT_THAT(PortMessages(), ElementsAre(Pair(21, 1)));
    EXPECT_EQ(List().GetSize(), 0u);
    EXPECT_THAT(Logs(), Wrote(128, "size[0]"));
}

TEST_F(UNodeUsbTest, TheEngineeringPopUpIsOpenedAndClosedTwoSecondsLater) {
    OpenNode node(Notifier());
    ClearLogs();
    node.RunEngPopup();
    EXPECT_THAT(outside.commands,
                ElementsAre("/usr/bin/run_engineering-popup.sh USB", "killall engineering-popup"));
    EXPECT_EQ(outside.slept, 2u);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "Open Eng Popup"), Line(128, "Close Eng Popup")));

    outside.command_result = -1;
    outside.command_error = ENOENT;
    ClearLogs();
    node.RunEngPopup();
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "Open Eng Popup"),
                                    Line(192, "error in OpenEngPopup No such file or directory"),
                                    Line(128, "Close Eng Popup"),
                                    Line(192, "error in CloseEngPopup No such file or directory")));
}

TEST_F(UNodeUsbTest, UnreadableAndHostileAttributesHarmNothing) {
    Device device = kStick;
    device.manufacturer = std::string(4096, 'm');
    device.product = "a\x01\x1b[2J%s%n\xc3(";
    device.serial = " ";
    UNodeUsb* const node = AddDevice(kPort1, device);
    Sys().Set(kPort1 + "/bNumInterfaces", "many\n");
    Sys().Set(kPort1 + "/product", "\nhidden\n");
    FakeEvent event = DeviceEvent(kPort1, device);
    node->ActionAdd(&event);
    EXPECT_EQ(node->GetNumInterfaces(), 0);
    EXPECT_EQ(node->GetProduct(), nullptr);
    EXPECT_STREQ(node->GetSerial(), " ");
    EXPECT_EQ(std::strlen(node->GetManufacturer()), 4096u);
    const std::string below = InterfacePath(kPort1, 0);
    for (const char* attribute : {"/bInterfaceClass", "/bInterfaceNumber", "/bNumEndpoints"})
        Sys().Set(below + attribute, std::string(4096, 'g'));
    FakeEvent interface = DeviceEvent(below, device);
    interface.usb_devtype = USB_DEVTYPE_INTERFACE;
    auto* const child = static_cast<UNodeUsb*>(Add(interface));
    EXPECT_EQ(child->GetInterfaceClass(), 0);
    EXPECT_EQ(child->GetNumEndpoints(), 0);
    EXPECT_THAT(Drain(kUsb), IsEmpty());
    node->NotifyEventToUsb(dcm::MSGID_USB_ADD);
    EXPECT_EQ(Drain(kUsb).at(0).bytes.size(), 348u);
}

TEST_F(UNodeUsbTest, TheNamesOfTheAttributesAreTheKernels) {
    EXPECT_STREQ(UNodeUsb::kStringPowerLevelPath, "/power/level");
    EXPECT_STREQ(UNodeUsb::kOvercurrentCheckPath1, "/usb1/1-1/1-1.1");
    EXPECT_STREQ(UNodeUsb::kOvercurrentCheckPath2, "/usb1/1-1/1-1.2");
    EXPECT_STREQ(UNodeUsb::kStringNumInterfacePath, "/bNumInterfaces");
    EXPECT_STREQ(UNodeUsb::kStringManuFacturerPath, "/manufacturer");
    EXPECT_STREQ(UNodeUsb::kStringSerialPath, "/serial");
    EXPECT_STREQ(UNodeUsb::kStringProductPath, "/product");
    EXPECT_STREQ(UNodeUsb::kStringSpeedPath, "/speed");
    EXPECT_STREQ(UNodeUsb::kStringInterfaceClassPath, "/bInterfaceClass");
    EXPECT_STREQ(UNodeUsb::kStringInterfaceNumberPath, "/bInterfaceNumber");
    EXPECT_STREQ(UNodeUsb::kStringInterfaceProtocolPath, "/bInterfaceProtocol");
    EXPECT_STREQ(UNodeUsb::kStringInterfaceSubClassPath, "/bInterfaceSubClass");
    EXPECT_STREQ(UNodeUsb::kStringNumEndpointsPath, "/bNumEndpoints");
    EXPECT_STREQ(UNodeUsb::kStringInterfacePath, "/interface");
    EXPECT_STREQ(UNodeUsb::kStringOverCurrent, "overcurrent");
}

}  // namespace
}  // namespace test
