#include "event/UNetLinkData.h"

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "Walk.h"
#include "board/UPort.h"
#include "gmock/gmock.h"
#include "support/RecordingPlatform.h"

namespace {

using namespace dcm::usb;
using test::Line;
using test::Logs;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

using test::Values;
using test::ValuesOf;
using test::WalkByteByByte;

// A message in a buffer as the reader has it: zeros behind what came.
class UNetLinkDataTest : public ::testing::Test {
protected:
    std::vector<char> buffer;
    UNetLinkData data;

    UNetLinkDataTest() { test::ResetPlatform(); }

    // '|' stands for the NUL between lines.
    void Parse(std::string message) {
        for (char& character : message)
            if (character == '|') character = '\0';
        buffer.assign(message.begin(), message.end());
        buffer.resize(message.size() + 16);
        data.ParseData(buffer.data(), static_cast<int>(message.size()));
    }
};

TEST_F(UNetLinkDataTest, ReadsAKernelMessage) {
    Parse(
        "add@/devices/x/1-1|ACTION=add|DEVPATH=/devices/x/1-1|SUBSYSTEM=usb|MAJOR=189|MINOR=1|"
        "DEVNAME=bus/usb/001/002|DEVTYPE=usb_device|PRODUCT=1d6b/2/404|TYPE=9/0/1|BUSNUM=001|DEVNUM=002|"
        "SEQNUM=4711|");
    EXPECT_EQ(data.GetAction(), ACTION_ADD);
    EXPECT_EQ(data.GetSubSystem(), SUBSYSTEM_USB);
    EXPECT_STREQ(data.GetDevPath(), "/devices/x/1-1");
    EXPECT_STREQ(data.GetDevName(), "bus/usb/001/002");
    EXPECT_EQ(data.GetUsbDevType(), USB_DEVTYPE_DEVICE);
    unsigned short vendor = 0;
    unsigned short product = 0;
    data.GetProduct(&vendor, &product);
    EXPECT_EQ(vendor, 0x1d6b);
    EXPECT_EQ(product, 0x0002);
    EXPECT_THAT(Logs(), ElementsAre(Line(64, "product 1d6b/2/404")));
}

TEST_F(UNetLinkDataTest, PointsIntoTheBuffer) {
    Parse("DEVPATH=/devices/x|");
    EXPECT_EQ(data.GetDevPath(), buffer.data() + std::strlen("DEVPATH="));
}

TEST_F(UNetLinkDataTest, KnowsNothingBeforeTheFirstMessage) {
    EXPECT_EQ(data.GetAction(), ACTION_NONE);
    EXPECT_EQ(data.GetSubSystem(), SUBSYSTEM_NONE);
    EXPECT_EQ(data.GetDevPath(), nullptr);
    EXPECT_EQ(data.GetUsbDevType(), 0);
    EXPECT_EQ(data.GetBlockDevType(), 0);
    EXPECT_EQ(data.GetDevName(), nullptr);
    unsigned short vendor = 1;
    unsigned short product = 2;
    data.GetProduct(&vendor, &product);
    EXPECT_EQ(vendor, 1);
    EXPECT_EQ(product, 2);
    EXPECT_EQ(data.GetCustomEvent(), 0);
    EXPECT_EQ(data.GetCustomEventPort(), 0);
    EXPECT_EQ(data.GetEnumerate(), 0);
    EXPECT_THAT(Logs(),
                ElementsAre(Line(128, "there is no action"), Line(128, "there is no subsystem"),
                            Line(128, "there is no usb devtype"), Line(128, "there is no block devtype"),
                            Line(128, "there is no product"), Line(128, "there is no event"),
                            Line(128, "there is no event port"), Line(128, "there is no enumerate")));
}

TEST_F(UNetLinkDataTest, ReadsEveryAction) {
    const char* const texts[] = {"add", "remove", "change", "online"};
    const E_ACTION actions[] = {ACTION_ADD, ACTION_REMOVE, ACTION_CHANGE, ACTION_ONLINE};
    for (int index = 0; index < 4; ++index) {
        Parse(std::string("ACTION=") + texts[index] + "|");
        EXPECT_EQ(data.GetAction(), actions[index]);
    }
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UNetLinkDataTest, AnActionItDoesNotKnowIsNone) {
    for (const char* text : {"bind", "none", "", "Add"}) {
        Parse(std::string("ACTION=") + text + "|");
        EXPECT_EQ(data.GetAction(), ACTION_NONE);
    }
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "unknown action(bind)"), Line(128, "unknown action(none)"),
                                    Line(128, "unknown action()"), Line(128, "unknown action(Add)")));
}

TEST_F(UNetLinkDataTest, ReadsEverySubsystem) {
    const char* const texts[] = {
        "none",     "mmc",    "usb",  "block",   "scsi",       "scsi_host",    "scsi_disk", "scsi_device",
        "bdi",      "module", "misc", "drivers", "bus",        "class",        "system",    "mxsdhci",
        "mmc_host", "sound",  "hid",  "tty",     "usb_device", "scsi_generic", "net"};
    for (unsigned value = 0; value < std::size(texts); ++value) {
        Parse(std::string("SUBSYSTEM=") + texts[value] + "|");
        EXPECT_EQ(data.GetSubSystem(), value) << texts[value];
    }
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UNetLinkDataTest, SaysNothingAboutAnUnknownSubsystem) {
    Parse("SUBSYSTEM=platform|");
    EXPECT_EQ(data.GetSubSystem(), SUBSYSTEM_NONE);
    EXPECT_THAT(Logs(), IsEmpty());
    Parse("ACTION=add|");
    EXPECT_EQ(data.GetSubSystem(), SUBSYSTEM_NONE);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "there is no subsystem")));
}

TEST_F(UNetLinkDataTest, ReadsTheDeviceTypeOfTheSubsystemThatIsAskedFor) {
    Parse("DEVTYPE=usb_device|");
    EXPECT_EQ(data.GetUsbDevType(), USB_DEVTYPE_DEVICE);
    Parse("DEVTYPE=usb_interface|");
    EXPECT_EQ(data.GetUsbDevType(), USB_DEVTYPE_INTERFACE);
    Parse("DEVTYPE=disk|");
    EXPECT_EQ(data.GetBlockDevType(), BLOCK_DEVTYPE_DISK);
    Parse("DEVTYPE=partition|");
    EXPECT_EQ(data.GetBlockDevType(), BLOCK_DEVTYPE_PARTITION);
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UNetLinkDataTest, ADeviceTypeOfAnotherSubsystemIsUnknown) {
    Parse("DEVTYPE=partition|");
    EXPECT_EQ(data.GetUsbDevType(), 0);
    Parse("DEVTYPE=usb_device|");
    EXPECT_EQ(data.GetBlockDevType(), 0);
    Parse("DEVTYPE=none|");
    EXPECT_EQ(data.GetUsbDevType(), 0);
    EXPECT_EQ(data.GetBlockDevType(), 0);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "unknown usb devtype(partition)"),
                                    Line(128, "unknown block devtype(usb_device)"),
                                    Line(128, "unknown usb devtype(none)"),
                                    Line(128, "unknown block devtype(none)")));
}

TEST_F(UNetLinkDataTest, AMissingProductNumberIsZero) {
    Parse("PRODUCT=5ac|");
    unsigned short vendor = 1;
    unsigned short product = 2;
    data.GetProduct(&vendor, &product);
    EXPECT_EQ(vendor, 0x5ac);
    EXPECT_EQ(product, 0);
    Parse("PRODUCT=|");
    data.GetProduct(&vendor, &product);
    EXPECT_EQ(vendor, 0);
    EXPECT_EQ(product, 0);
    EXPECT_THAT(Logs(), ElementsAre(Line(64, "product 5ac/0/0"), Line(64, "product 0/0/0")));
}

TEST_F(UNetLinkDataTest, CutsProductNumbersTo16BitsAndWritesOnlyWhatIsAskedFor) {
    Parse("PRODUCT=105ac/212a8/1001|");
    unsigned short vendor = 0;
    unsigned short product = 0;
    data.GetProduct(&vendor, nullptr);
    data.GetProduct(nullptr, &product);
    data.GetProduct(nullptr, nullptr);
    EXPECT_EQ(vendor, 0x5ac);
    EXPECT_EQ(product, 0x12a8);
    EXPECT_THAT(Logs(),
                ElementsAre(Line(64, "product 105ac/212a8/1001"), Line(64, "product 105ac/212a8/1001"),
                            Line(64, "product 105ac/212a8/1001")));
}

TEST_F(UNetLinkDataTest, KnowsOneEventOfTheHostDriver) {
    Parse("EVENT=overcurrent|PORT_NUM=2|");
    EXPECT_EQ(data.GetCustomEvent(), 1);
    EXPECT_EQ(data.GetCustomEventPort(), 2);
    EXPECT_THAT(Logs(), IsEmpty());
    Parse("EVENT=OVERCURRENT|");
    EXPECT_EQ(data.GetCustomEvent(), 0);
    Parse("EVENT=none|");
    EXPECT_EQ(data.GetCustomEvent(), 0);
    EXPECT_THAT(Logs(),
                ElementsAre(Line(128, "unknown event(OVERCURRENT)"), Line(128, "unknown event(none)")));
}

TEST_F(UNetLinkDataTest, CutsTheEventPortToEightBits) {
    Parse("PORT_NUM=300|");
    EXPECT_EQ(data.GetCustomEventPort(), 44);
    Parse("PORT_NUM=x|");
    EXPECT_EQ(data.GetCustomEventPort(), 0);
    Parse("PORT_NUM=|");
    EXPECT_EQ(data.GetCustomEventPort(), 0);
}

TEST_F(UNetLinkDataTest, KnowsAFailedEnumeration) {
    Parse("ENUMERATE=FAIL|");
    EXPECT_EQ(data.GetEnumerate(), 1);
    EXPECT_THAT(Logs(), IsEmpty());
    Parse("ENUMERATE=FAILED|");
    EXPECT_EQ(data.GetEnumerate(), 0);
    Parse("ENUMERATE=none|");
    EXPECT_EQ(data.GetEnumerate(), 0);
    EXPECT_THAT(Logs(),
                ElementsAre(Line(128, "unknown enumerate(FAILED)"), Line(128, "unknown enumerate(none)")));
}

TEST_F(UNetLinkDataTest, ForgetsTheMessageBefore) {
    Parse("ACTION=add|DEVPATH=/a|SUBSYSTEM=usb|DEVNAME=n|DEVTYPE=disk|EVENT=overcurrent|PORT_NUM=1|");
    Parse("ACTION=remove|");
    EXPECT_EQ(data.GetAction(), ACTION_REMOVE);
    EXPECT_EQ(data.GetDevPath(), nullptr);
    EXPECT_EQ(data.GetDevName(), nullptr);
    EXPECT_EQ(data.GetSubSystem(), SUBSYSTEM_NONE);
    EXPECT_EQ(data.GetBlockDevType(), 0);
    EXPECT_EQ(data.GetCustomEvent(), 0);
    EXPECT_EQ(data.GetCustomEventPort(), 0);
}

TEST_F(UNetLinkDataTest, RefusesNoMessageAndKeepsTheOneBefore) {
    Parse("DEVPATH=/a|");
    data.ParseData(nullptr, 5);
    data.ParseData(buffer.data(), 0);
    EXPECT_STREQ(data.GetDevPath(), "/a");
    const std::vector<test::LogLine> lines = Logs();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0], Line(192, "buffer is invalid (nil) 5"));
    EXPECT_EQ(lines[1].level, 192);
    EXPECT_THAT(lines[1].text, StartsWith("buffer is invalid 0x"));
    EXPECT_THAT(lines[1].text, ::testing::EndsWith(" 0"));
}

TEST_F(UNetLinkDataTest, TakesTheLastOfSeveralEqualKeysAlsoInsideAValue) {
    Parse("DEVPATH=/a|DEVPATH=/b|");
    EXPECT_STREQ(data.GetDevPath(), "/b");
    Parse("DEVPATH=/a|DEVNAME=x DEVPATH=/c|");
    EXPECT_STREQ(data.GetDevPath(), "/c");
    EXPECT_STREQ(data.GetDevName(), "x DEVPATH=/c");
    Parse("ACTION=add|XACTION=remove|");
    EXPECT_EQ(data.GetAction(), ACTION_REMOVE);
    Parse("MYEVENT=overcurrent|");
    EXPECT_EQ(data.GetCustomEvent(), 1);
}

TEST_F(UNetLinkDataTest, AKeyThatBeginsInsideTheMessageMayEndBehindIt) {
    char text[] = "DEVPATH=/a\0SEQNUM=1\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0";
    data.ParseData(text, 1);
    EXPECT_STREQ(data.GetDevPath(), "/a");
    data.ParseData(text, 11);
    EXPECT_EQ(ValuesOf(data)[KEY_SEQNUM], nullptr);
    data.ParseData(text, 12);
    EXPECT_STREQ(ValuesOf(data)[KEY_SEQNUM], "1");
}

TEST_F(UNetLinkDataTest, LooksAtTheFirstPlaceOfAMessageOfNegativeLength) {
    char text[] = "ACTION=add\0DEVPATH=/a\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0";
    data.ParseData(text, -1);
    EXPECT_EQ(data.GetAction(), ACTION_ADD);
    EXPECT_EQ(data.GetDevPath(), nullptr);
    char shifted[] = "xACTION=add\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0";
    data.ParseData(shifted, -5);
    EXPECT_EQ(data.GetAction(), ACTION_NONE);
}

TEST_F(UNetLinkDataTest, DoesNotLookBeforeTheMessage) {
    char text[] = "ACTION=add\0DEVPATH=/a\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0";
    data.ParseData(text + 3, 18);
    EXPECT_EQ(ValuesOf(data)[KEY_ACTION], nullptr);
    EXPECT_STREQ(data.GetDevPath(), "/a");
    char only_equals[] = "=\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0";
    data.ParseData(only_equals, 1);
    EXPECT_EQ(ValuesOf(data), Values{});
}

TEST_F(UNetLinkDataTest, FindsWhatAWalkByteByByteFinds) {
    std::mt19937 random(20240229);
    const auto up_to = [&random](int most) { return std::uniform_int_distribution<int>(0, most)(random); };
    std::vector<std::string> pieces = {std::string(1, '\0'),
                                       std::string(2, '\0'),
                                       "=",
                                       "==",
                                       "A",
                                       "XACTION=",
                                       "M=",
                                       "T=",
                                       "E",
                                       "add",
                                       "/devices/x",
                                       "EVENTEVENT=",
                                       "NUM=",
                                       "_NUM=",
                                       "SEQNU"};
    for (const char* key : UEventData::kStringID)
        pieces.insert(pieces.end(), {key, key, std::string(key).substr(1),
                                     std::string(key).substr(0, std::strlen(key) - 1)});

    constexpr int kMessages = 150000;
    constexpr std::size_t kBefore = 12;
    int keys = 0;
    int cut = 0;
    int doubled = 0;
    std::string text;
    for (int message = 0; message < kMessages; ++message) {
        // What stands before the message belongs to somebody else, what stands behind it may end a key.
        text.assign(kBefore, 'D');
        const std::string& before =
            pieces[static_cast<std::size_t>(up_to(static_cast<int>(pieces.size()) - 1))];
        text.replace(kBefore - before.size(), before.size(), before);
        for (int count = up_to(12); count > 0; --count)
            text += pieces[static_cast<std::size_t>(up_to(static_cast<int>(pieces.size()) - 1))];
        const int whole = static_cast<int>(text.size() - kBefore);
        text.append(16, '\0');
        int len = whole;
        if (up_to(3) == 0) len = up_to(whole);
        if (up_to(15) == 0) len = -1 - up_to(3);
        if (len == 0) len = 1;

        char* begin = text.data() + kBefore;
        data.ParseData(begin, len);
        const Values expected = WalkByteByByte(begin, len);
        ASSERT_EQ(ValuesOf(data), expected)
            << "message " << message << " length " << len << ": " << ::testing::PrintToString(text);
        for (int key = 0; key < kUeventKeys; ++key) {
            if (!expected[key]) continue;
            ++keys;
            cut += expected[key] > begin + len ? 1 : 0;
            const std::string_view searched(begin, static_cast<std::size_t>(expected[key] - begin));
            doubled +=
                searched.find(UEventData::kStringID[key]) != searched.rfind(UEventData::kStringID[key]);
        }
    }
    // The messages held what they were made for.
    EXPECT_GT(keys, 100000);
    EXPECT_GT(cut, 1000);
    EXPECT_GT(doubled, 1000);
}

TEST_F(UNetLinkDataTest, PrintsAnEventInOneLine) {
    Parse("ACTION=add|DEVPATH=/devices/x/1-1|SUBSYSTEM=usb|SEQNUM=4711|DEVNAME=n|");
    data.PrintData(true);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "seq4711-add-usb DEVPATH=/devices/x/1-1")));
}

TEST_F(UNetLinkDataTest, PrintsThePathWithoutTheBoardsController) {
    for (const char* controller : {UPort::kBoardUsb1DevPath, UPort::kBoardUsb2DevPath}) {
        test::ClearLogs();
        Parse(std::string("ACTION=remove|DEVPATH=") + controller + "/usb1/1-1|SUBSYSTEM=usb|SEQNUM=1|");
        data.PrintData(true);
        EXPECT_THAT(Logs(), ElementsAre(Line(128, "seq1-remove-usb DEVPATH=/usb1/1-1")));
    }
}

TEST_F(UNetLinkDataTest, PrintsWhatIsMissingAsNull) {
    Parse("DEVPATH=/a|");
    data.PrintData(true);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "seq(null)-(null)-(null) DEVPATH=/a")));
}

TEST_F(UNetLinkDataTest, PrintsNoLineForAnEventWithoutAPath) {
    Parse("ACTION=add|SUBSYSTEM=usb|SEQNUM=4711|");
    data.PrintData(true);
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UNetLinkDataTest, PrintsTheDetailsInTheOrderOfTheKeys) {
    Parse(
        "ENUMERATE=FAIL|PORT_NUM=2|EVENT=overcurrent|PRODUCT=1/2/3|BUSNUM=001|SEQNUM=9|DEVTYPE=usb_device|"
        "DEVNAME=n|SUBSYSTEM=usb|DEVPATH=/a|ACTION=change|");
    data.PrintData(false);
    EXPECT_THAT(Logs(),
                ElementsAre(Line(128, "DEVNAME=n"), Line(128, "DEVTYPE=usb_device"), Line(128, "BUSNUM=001"),
                            Line(128, "PRODUCT=1/2/3"), Line(128, "EVENT=overcurrent"),
                            Line(128, "PORT_NUM=2"), Line(128, "ENUMERATE=FAIL")));
    test::ClearLogs();
    Parse("DEVPATH=/a|");
    data.PrintData(false);
    EXPECT_THAT(Logs(), IsEmpty());
}

}  // namespace
