#include "node/UDevClassifier.h"

#include <deque>

#include "NodeBench.h"

using namespace dcm::usb;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

namespace test {
namespace {

// Interfaces as the list would hold them, without a list.
struct ClassifiedInterface : UNodeUsb {
    ClassifiedInterface(UNotifier* notifier, int usb_class, int protocol, int endpoints, const char* name,
                        int sub_class)
        : UNodeUsb(SUBSYSTEM_USB, "/devices/interface", notifier) {
        m_usb_devtype = USB_DEVTYPE_INTERFACE;
        m_interface_class = static_cast<std::uint8_t>(usb_class);
        m_interface_protocol = static_cast<std::uint8_t>(protocol);
        m_interface_sub_class = static_cast<std::uint8_t>(sub_class);
        m_num_endpoints = static_cast<std::uint8_t>(endpoints);
        m_manufacturer = name ? strdup(name) : nullptr;
    }
};

class UDevClassifierTest : public NodeBench {
public:
    void TearDown() override {
        m_nodes.clear();
        m_interfaces.clear();
        NodeBench::TearDown();
    }

    UDevClassifierTest& With(int usb_class, int protocol = 0, int endpoints = 2, const char* name = nullptr,
                             int sub_class = 0) {
        m_nodes.emplace_back(Notifier(), usb_class, protocol, endpoints, name, sub_class);
        m_interfaces.push_back(&m_nodes.back());
        return *this;
    }

    // The type of a device with the interfaces collected so far, which are forgotten then.
    E_DEV_TYPE TypeOf(unsigned vid, unsigned pid) {
        ClearLogs();
        const E_DEV_TYPE type = m_classifier.CheckGroup(static_cast<std::uint16_t>(vid),
                                                        static_cast<std::uint16_t>(pid), m_interfaces);
        m_interfaces.clear();
        return type;
    }

    std::vector<UNode*> m_interfaces;
    std::deque<ClassifiedInterface> m_nodes;
    UDevClassifier m_classifier;
};

struct Row {
    const char* vendor;
    unsigned vid;
    const char* product;
    unsigned pid;
};

// Typed from the vehicle maker's list, not from the code.
const Row kBlack[] = {{"", 0x2721, "", 0xec00},
                      {"Standard Microsystems Corp.", 0x0424, "", 0x4040},
                      {"Standard Microsystems Corp.", 0x0424, "", 0x2530},
                      {"Standard Microsystems Corp.", 0x0424, "LAN9500/LAN9500i", 0x9500},
                      {"", 0x1e2d, "", 0x0055},
                      {"", 0x1e2d, "", 0x0060},
                      {"Japan Radio Company", 0x1145, "", 0x0008},
                      {"Future Technology", 0x0403, "FT232 Serial (UART) IC", 0x6001},
                      {"Future Technology", 0x0403, "FT4232H Quad HS USB-UART/FIFO IC", 0x6011},
                      {"OMEGA TECHNOLOGY", 0x1c9e, "", 0x9b05},
                      {"OMEGA TECHNOLOGY", 0x1c9e, "", 0x7605},
                      {"Asix", 0x0b95, "AX88179 Gigabit Ethernet", 0x1790},
                      {"Asix", 0x0b95, "AX88772A Fast Ethernet", 0x772a},
                      {"Research In Motion, Ltd.", 0x0fca, "Blackberry", 0x8004},
                      {"Logitech", 0x046d, "", 0x081b},
                      {"Logitech", 0x046d, "Logitech USB Headset", 0x0a0b},
                      {"USB-IF non-workshop", 0x1a0a, "", 0x0201},
                      {"", 0x0009, "", 0x0000}};
const Row kWhite[] = {{"Realtek", 0x0bda, "RTL8152 Fast Ethernet Adapter", 0x8152},
                      {"Realtek", 0x0bda, "RTL8153 Gigabit Ethernet Adapter", 0x8153},
                      {"D-Link", 0x2001, "DUB-E100 Fast Ethernet Adapter(rev.B1)", 0x3c05},
                      {"D-Link", 0x2001, "DUB-E100 Fast Ethernet Adapter(rev.C1)", 0x1a02},
                      {"D-Link", 0x2001, "D-Link DUB-1312", 0x4a00}};
const Row kStorage[] = {{"Sony Corp.", 0x054c, "Micro Vault 64M Mass Storage", 0x008b},
                        {"Sony Corp.", 0x054c, "Micro Vault 1.0G Mass Storage", 0x019e},
                        {"Sony Corp.", 0x054c, "MicroVault Flash Drive", 0x0243},
                        {"Toshiba Corp", 0x0930, "2.5 External Hard Disk", 0x01bf},
                        {"Toshiba Corp", 0x0930, "PX1220E-1G25 External hard drive", 0x0b05},
                        {"Toshiba Corp", 0x0930, "PX1396E-3T01 External hard drive", 0x0b09},
                        {"Toshiba Corp", 0x0930, "Memory Stick 2GB", 0x1400},
                        {"Toshiba Corp", 0x0930, "Memory Stick 64GB", 0x140b},
                        {"Toshiba Corp", 0x0930, "Kingston DataTraveler 2.0 USB Stick", 0x6519},
                        {"Toshiba Corp", 0x0930, "256M Stick", 0x6532},
                        {"Toshiba Corp", 0x0930, "512M Stick", 0x6533},
                        {"Toshiba Corp", 0x0930, "Kingston DataTraveler 2.0 Stick (512M)", 0x653c},
                        {"Toshiba Corp", 0x0930, "Kingston DataTraveler 2.0 Stick (1GB)", 0x653d},
                        {"Toshiba Corp", 0x0930, "Flash Memory", 0x653e},
                        {"Toshiba Corp", 0x0930, "TransMemory Flash Memory", 0x6540},
                        {"Toshiba Corp", 0x0930, "TransMemory-Mini", 0x6544},
                        {"Toshiba Corp", 0x0930, "Kingston DataTraveler 102/2.0", 0x6545}};
const Row kHubs[] = {
    {"Linux", 0x1d6b, "ROOT HUB 2.0", 0x0002},      {"Linux", 0x1d6b, "ROOT HUB 3.0", 0x0003},
    {"Microchip", 0x0424, "3Q8.217.604.B", 0x4503}, {"Microchip", 0x0424, "Internal I2C", 0x2530},
    {"Microchip", 0x0424, "2H7.319.528", 0x4924},   {"Microchip", 0x0424, "8E1.319.528.A", 0x4504},
    {"Microchip", 0x0424, "Internal I2C", 0x4940}};
const unsigned kHubFlags[] = {0, 0, 1, 0, 1, 1, 0};
const std::pair<const char*, unsigned> kAndroid[] = {
    {"Nokia", 0x0421},  {"SONY", 0x0fce},    {"Samsung", 0x04e8}, {"HTC", 0x0bb4},     {"MCCI", 0x040e},
    {"HX", 0x1004},     {"Google", 0x18d1},  {"PLX", 0x0525},     {"Huawei", 0x12d1},  {"RIM", 0x0fca},
    {"Acer", 0x0502},   {"ASUS", 0x0b05},    {"Dell", 0x413c},    {"Foxconn", 0x0489}, {"Fujitsu", 0x04c5},
    {"Garim", 0x0912},  {"Haier", 0x201e},   {"Hisense", 0x109b}, {"HP", 0x03f0},      {"Intel", 0x8087},
    {"Ktouch", 0x24e3}, {"KTtech", 0x2116},  {"Kyocera", 0x0482}, {"Lenovo", 0x17ef},  {"Moto", 0x22b8},
    {"Meizu", 0x2a45},  {"MTK", 0x0e8d},     {"NEC", 0x0409},     {"Nook", 0x2080},    {"Nvidia", 0x0955},
    {"OTGV", 0x2257},   {"Pantech", 0x10a9}, {"Pega", 0x1d4d},    {"Philips", 0x0471}, {"PMC", 0x04da},
    {"QUAL", 0x05c6},   {"SK", 0x1f53},      {"Sharp", 0x04dd},   {"Sonyorg", 0x054c}, {"Tele", 0x2340},
    {"Tohsi", 0x0930},  {"Xiaomi", 0x2717},  {"ZTE", 0x19d2}};

template <typename Stored, std::size_t rows>
void ExpectRows(const Stored (&stored)[rows], const Row (&expected)[rows]) {
    for (std::size_t row = 0; row < rows; ++row) {
        EXPECT_STREQ(stored[row].vendor_name, expected[row].vendor) << row;
        EXPECT_EQ(stored[row].vid, expected[row].vid) << row;
        EXPECT_STREQ(stored[row].product_name, expected[row].product) << row;
        EXPECT_EQ(stored[row].pid, expected[row].pid) << row;
    }
}

TEST_F(UDevClassifierTest, ItsListsHoldWhatTheMakerWrote) {
    ExpectRows(UDevClassifier::kBlackList, kBlack);
    ExpectRows(UDevClassifier::kWhiteList, kWhite);
    ExpectRows(UDevClassifier::kStorageDeviceList, kStorage);
    ExpectRows(UDevClassifier::kHubList, kHubs);
    for (std::size_t row = 0; row < std::size(kHubFlags); ++row)
        EXPECT_EQ(UDevClassifier::kHubList[row].flag, kHubFlags[row]) << row;
    const Row bad[] = {{"Asix", 0x0b95, "AX88772A Fast Ethernet", 0x772a}};
    ExpectRows(UDevClassifier::kBadBlackList, bad);
    static_assert(std::size(UDevClassifier::kAndroidDeviceList) == std::size(kAndroid));
    for (std::size_t row = 0; row < std::size(kAndroid); ++row) {
        const auto& stored = UDevClassifier::kAndroidDeviceList[row];
        EXPECT_STREQ(stored.vendor_name, kAndroid[row].first) << row;
        EXPECT_EQ(stored.vid, kAndroid[row].second) << row;
        const std::string name = stored.vendor_name;
        EXPECT_STREQ(stored.product_name, name == "HX" ? "zeta3" : name == "Google" ? "Nexus" : "series");
    }
}

TEST_F(UDevClassifierTest, EveryRowOfTheBlackListIsRefused) {
    for (const Row& row : kBlack) {
        const auto vid = static_cast<std::uint16_t>(row.vid);
        const auto pid = static_cast<std::uint16_t>(row.pid);
        EXPECT_TRUE(m_classifier.IsBlackList(vid, pid)) << row.vid;
        EXPECT_EQ(m_classifier.IsBlackList(vid, 0x1111), row.pid == 0) << row.vid;
        EXPECT_FALSE(m_classifier.IsWhiteList(vid, pid));
        // The hub's vendor stands in this list too, and is a hub all the same.
        EXPECT_EQ(TypeOf(row.vid, row.pid), row.vid == 0x0424 ? DEV_TYPE_HUB : DEV_TYPE_UNSUPPORTED);
        EXPECT_THAT(Logs(), ElementsAre(Line(
                                128, row.vid == 0x0424 ? "this is hub device" : "this is blacklist device")));
    }
    EXPECT_FALSE(m_classifier.IsBlackList(0x1234, 0xec00));
    EXPECT_FALSE(m_classifier.IsBlackList(0x0403, 0x6002));
}

TEST_F(UDevClassifierTest, EveryRowOfTheWhiteListIsNothingSpecial) {
    for (const Row& row : kWhite) {
        With(0xff, 0, 3);
        EXPECT_TRUE(m_classifier.IsWhiteList(static_cast<std::uint16_t>(row.vid),
                                             static_cast<std::uint16_t>(row.pid)));
        EXPECT_EQ(TypeOf(row.vid, row.pid), DEV_TYPE_NONE);
        EXPECT_THAT(Logs(), ElementsAre(Line(128, "this is whitelist device")));
    }
    EXPECT_FALSE(m_classifier.IsWhiteList(0x0bda, 0x8154));
    EXPECT_FALSE(m_classifier.IsWhiteList(0x2001, 0x8152));
}

TEST_F(UDevClassifierTest, EveryRowOfTheStorageListIsStorageAlthoughItsVendorMakesPhones) {
    for (const Row& row : kStorage) {
        With(0x08, 0x50, 2);
        EXPECT_EQ(TypeOf(row.vid, row.pid), DEV_TYPE_STORAGE);
        EXPECT_THAT(Logs(128),
                    ElementsAre(Line(128, Format("Storage device %s, %s", row.vendor, row.product)),
                                Line(128, "this is white storage device")));
    }
    EXPECT_FALSE(m_classifier.IsStorageDevice(0x0930, 0x6546));
    EXPECT_FALSE(m_classifier.IsStorageDevice(0x054c, 0x6545));
}

TEST_F(UDevClassifierTest, EveryVendorOfTheAndroidListMakesPhones) {
    for (const auto& [vendor, vid] : kAndroid) {
        With(0xff, 0, 2);
        EXPECT_EQ(TypeOf(vid, 0x7777), DEV_TYPE_PHONE) << vendor;
        const std::string product = std::string(vendor) == "HX"       ? "zeta3"
                                    : std::string(vendor) == "Google" ? "Nexus"
                                                                      : "series";
        EXPECT_THAT(Logs(128),
                    ElementsAre(Line(128, Format("Android device %s, %s", vendor, product.c_str())),
                                Line(128, "this is phone device")));
    }
    EXPECT_FALSE(m_classifier.IsAndroidDevice(0x1234));
    EXPECT_FALSE(m_classifier.IsAndroidDevice(0));
}

TEST_F(UDevClassifierTest, EveryRowOfTheHubListHasItsNumber) {
    std::uint32_t index = 0;
    for (const Row& row : kHubs) {
        ClearLogs();
        EXPECT_EQ(
            m_classifier.CheckHub(static_cast<std::uint16_t>(row.vid), static_cast<std::uint16_t>(row.pid)),
            index++);
        EXPECT_THAT(Logs(), ElementsAre(Line(128, Format(" %s %s support", row.vendor, row.product))));
    }
    ClearLogs();
    EXPECT_EQ(m_classifier.CheckHub(0x1d6b, 0x0004), 7u);
    EXPECT_EQ(m_classifier.CheckHub(0x05e3, 0x0002), 7u);
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UDevClassifierTest, TheTextsOfTheListsAreTheseWhenRead) {
    m_classifier.CheckHub(0x0424, 0x4503);
    m_classifier.IsAndroidDevice(0x04e8);
    m_classifier.IsStorageDevice(0x0930, 0x6545);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, " Microchip 3Q8.217.604.B support"),
                                    Line(128, "Android device Samsung, series"),
                                    Line(128, "Storage device Toshiba Corp, Kingston DataTraveler 102/2.0")));
}

TEST_F(UDevClassifierTest, EveryProductOfTheHubsVendorIsAHub) {
    EXPECT_EQ(With(0x08).TypeOf(0x0424, 0x9500), DEV_TYPE_HUB);  // black-listed, and a stick
    EXPECT_EQ(TypeOf(0x0424, 0xffff), DEV_TYPE_HUB);
}

TEST_F(UDevClassifierTest, OneVendorIsRefusedWithAllItsProducts) {
    EXPECT_EQ(TypeOf(0x0009, 0), DEV_TYPE_UNSUPPORTED);
    EXPECT_EQ(TypeOf(0x0009, 0xabcd), DEV_TYPE_UNSUPPORTED);
}

TEST_F(UDevClassifierTest, ABlackListedPhoneOfAKnownVendorIsRefused) {
    EXPECT_EQ(TypeOf(0x0fca, 0x8004), DEV_TYPE_UNSUPPORTED);
    EXPECT_EQ(TypeOf(0x0fca, 0x8005), DEV_TYPE_PHONE);
}

TEST_F(UDevClassifierTest, TheCdDriveIsKnownByBothIds) {
    EXPECT_EQ(With(0x08).TypeOf(0x2166, 0x000c), DEV_TYPE_EXT_CDROM);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "this is cdda device")));
    EXPECT_EQ(With(0x08).TypeOf(0x2166, 0x000d), DEV_TYPE_STORAGE);
}

TEST_F(UDevClassifierTest, AppleDevicesArePhonesOrShuttlesByTheirProduct) {
    for (const unsigned pid : {0x1200u, 0x12a8u, 0x12ffu}) {
        EXPECT_EQ(With(0x03, 1).TypeOf(0x05ac, pid), DEV_TYPE_APPLE);
        EXPECT_THAT(Logs(), ElementsAre(Line(128, "this is apple device")));
    }
    for (const unsigned pid : {0x1300u, 0x11ffu, 0x0012u}) {
        EXPECT_EQ(With(0x03, 1).TypeOf(0x05ac, pid), DEV_TYPE_APPLE_SHUTTLE);
        EXPECT_THAT(Logs(), ElementsAre(Line(128, "this is apple shuttle device")));
    }
}

TEST_F(UDevClassifierTest, WithoutInterfacesTheVendorDecides) {
    EXPECT_EQ(TypeOf(0x04e8, 0x6860), DEV_TYPE_PHONE);
    EXPECT_EQ(TypeOf(0x1234, 0x6860), DEV_TYPE_NONE);
    EXPECT_THAT(Logs(), IsEmpty());
    KnowMtpDevice(0x1234, 0x6860, "Acme", "Player");
    EXPECT_EQ(TypeOf(0x1234, 0x6860), DEV_TYPE_NONE);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "chk mtp device Acme, Player")));
}

TEST_F(UDevClassifierTest, SaysWhatItSeesOfEachInterface) {
    With(0x02, 1, 1, nullptr, 6).With(0x0a, 0, 2);
    EXPECT_EQ(TypeOf(0x9, 0x5), DEV_TYPE_UNSUPPORTED);  // a refused vendor: no look at the interfaces
    EXPECT_THAT(Logs(64), IsEmpty());
    With(0x02, 1, 1, nullptr, 6).With(0x0a, 0, 2);
    EXPECT_EQ(TypeOf(0x5, 0x1234), DEV_TYPE_NONE);
    EXPECT_THAT(Logs(), ElementsAre(Line(64, "usb_interface v[ 5]p[1234]c[2]s[6]ne[1]"),
                                    Line(64, "usb_interface v[ 5]p[1234]c[a]s[0]ne[2]")));
}

TEST_F(UDevClassifierTest, AHubIsKnownByItsInterface) {
    EXPECT_EQ(With(0x09).TypeOf(0x0409, 0x55aa), DEV_TYPE_HUB);  // a vendor of phones as well
    EXPECT_THAT(Logs(128), ElementsAre(Line(128, "this is hub device")));
}

TEST_F(UDevClassifierTest, SomeInterfaceClassesAreNotSupported) {
    for (const unsigned usb_class : {0x05u, 0x0bu, 0x0du, 0x0fu, 0xdcu, 0xe0u, 0xfeu}) {
        With(static_cast<int>(usb_class), 0, 3, "MTP", 0x1f);
        EXPECT_EQ(TypeOf(0x04e8, 1), DEV_TYPE_UNSUPPORTED) << usb_class;
        EXPECT_THAT(
            Logs(128),
            ElementsAre(Line(128, Format("this is unsupported device. class:%x subclass:1f", usb_class))));
    }
    for (unsigned usb_class = 0; usb_class < 256; ++usb_class) {
        const bool unsupported = usb_class == 0x05 || usb_class == 0x0b || usb_class == 0x0d ||
                                 usb_class == 0x0f || usb_class == 0xdc || usb_class == 0xe0 ||
                                 usb_class == 0xfe;
        EXPECT_EQ(With(static_cast<int>(usb_class)).TypeOf(0x1234, 1) == DEV_TYPE_UNSUPPORTED, unsupported);
    }
    With(0xe0, 0, 1, nullptr, 1).TypeOf(0x1234, 1);
    EXPECT_THAT(Logs(), Wrote(128, "this is unsupported device. class:e0 subclass:1"));
}

TEST_F(UDevClassifierTest, KeyboardsAndMiceAreInputOtherHidFunctionsAreNot) {
    EXPECT_EQ(With(0x03, 1).TypeOf(0x1234, 1), DEV_TYPE_INPUT);
    EXPECT_THAT(Logs(128), ElementsAre(Line(128, "this is input device. class:3 protocol:1")));
    EXPECT_EQ(With(0x03, 2).TypeOf(0x1234, 1), DEV_TYPE_INPUT);
    EXPECT_EQ(With(0x03, 0).TypeOf(0x1234, 1), DEV_TYPE_NONE);
    EXPECT_EQ(With(0x03, 3).TypeOf(0x1234, 1), DEV_TYPE_NONE);
    EXPECT_EQ(With(0x03, 0).TypeOf(0x04e8, 1), DEV_TYPE_PHONE);
}

TEST_F(UDevClassifierTest, ThreeEndpointsMakeAStillImageOrVendorFunctionMtp) {
    for (const int usb_class : {0x06, 0xff}) {
        EXPECT_EQ(With(usb_class, 0, 3).TypeOf(0x04e8, 1), DEV_TYPE_MTP);
        EXPECT_THAT(Logs(128), ElementsAre(Line(128, "this is mtp device")));
        EXPECT_EQ(With(usb_class, 0, 2).TypeOf(0x04e8, 1), DEV_TYPE_PHONE);
        EXPECT_EQ(With(usb_class, 0, 4).TypeOf(0x1234, 1), DEV_TYPE_NONE);
    }
}

TEST_F(UDevClassifierTest, ThreeEndpointsAndTheNameMtpMakeMtp) {
    EXPECT_EQ(With(0x0a, 0, 3, "MTP").TypeOf(0x1234, 1), DEV_TYPE_MTP);
    EXPECT_EQ(With(0x0a, 0, 3, "mtp").TypeOf(0x1234, 1), DEV_TYPE_NONE);
    EXPECT_EQ(With(0x0a, 0, 3, "MTP ").TypeOf(0x1234, 1), DEV_TYPE_NONE);
    EXPECT_EQ(With(0x0a, 0, 2, "MTP").TypeOf(0x1234, 1), DEV_TYPE_NONE);
    EXPECT_EQ(With(0x0a, 0, 3).TypeOf(0x1234, 1), DEV_TYPE_NONE);
}

TEST_F(UDevClassifierTest, ThreeEndpointsOfAKnownMtpDeviceMakeMtp) {
    KnowMtpDevice(0x1234, 1, "Acme", "Player");
    EXPECT_EQ(With(0x08, 0, 3).TypeOf(0x1234, 1), DEV_TYPE_MTP);
    EXPECT_EQ(With(0x08, 0, 2).TypeOf(0x1234, 1), DEV_TYPE_STORAGE);
    EXPECT_EQ(With(0x08, 0, 3).TypeOf(0x1234, 2), DEV_TYPE_STORAGE);
}

TEST_F(UDevClassifierTest, TheFirstInterfaceThatDecidesDoes) {
    EXPECT_EQ(With(0x08).With(0x03, 1).With(0x09).TypeOf(0x1234, 1), DEV_TYPE_INPUT);
    EXPECT_EQ(With(0x08).With(0x09).With(0x03, 1).TypeOf(0x1234, 1), DEV_TYPE_HUB);
    EXPECT_EQ(With(0x08).With(0xff, 0, 3).TypeOf(0x0930, 0x6545), DEV_TYPE_MTP);
}

TEST_F(UDevClassifierTest, AStorageInterfaceIsAStickUnlessTheVendorMakesPhones) {
    EXPECT_EQ(With(0x08).TypeOf(0x04e8, 1), DEV_TYPE_PHONE);
    EXPECT_THAT(Logs(128),
                ElementsAre(Line(128, "Android device Samsung, series"), Line(128, "this is phone device")));
    EXPECT_EQ(With(0x02).With(0x08).TypeOf(0x1234, 1), DEV_TYPE_STORAGE);
    EXPECT_THAT(Logs(128), ElementsAre(Line(128, "this is storage device")));
}

TEST_F(UDevClassifierTest, AChildThatIsNoInterfaceSaysNothingAboutItsDevice) {
    UNode* const net = Insert("/devices/x/net");
    UNodeUsb* const device = AddDevice(kPort1, {0x1234, 1});
    m_interfaces = {net, device, nullptr};
    EXPECT_EQ(TypeOf(0x1234, 1), DEV_TYPE_NONE);
    EXPECT_THAT(Logs(), ElementsAre(Line(64, "usb_interface v[1234]p[ 1]c[0]s[0]ne[0]"),
                                    Line(64, "usb_interface v[1234]p[ 1]c[0]s[0]ne[0]"),
                                    Line(64, "usb_interface v[1234]p[ 1]c[0]s[0]ne[0]")));
}

}  // namespace
}  // namespace test
