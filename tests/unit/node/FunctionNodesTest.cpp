// HID, tty and network functions of phones.
#include "NodeBench.h"
#include "Wraps.h"
#include "node/UNodeHidraw.h"
#include "node/UNodeNet.h"
#include "node/UNodeTty.h"

using namespace dcm::usb;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace test {
namespace {

class UNodeHidrawTest : public NodeBench {};
class UNodeTtyTest : public NodeBench {};
class UNodeNetTest : public NodeBench {};

FakeEvent EventOf(E_SUBSYSTEM subsystem, const std::string& path) {
    FakeEvent event;
    event.subsystem = subsystem;
    event.devpath = path;
    return event;
}

Queued Short(const std::string& bytes) {
    return {4096, Hex(bytes)};
}

TEST_F(UNodeHidrawTest, ComesAndGoesWithItsPort) {
    FakeEvent event = EventOf(SUBSYSTEM_HID, kPort2 + "/1-1.2:1.2/0003:05AC:12A8.0001");
    UNode* const node = Add(event);
    EXPECT_EQ(node->GetPort(), 2);
    EXPECT_THAT(Logs(), Wrote(128, "msgID:22 port:2"));
    EXPECT_EQ(event.printed_details + event.printed_summary, 0);
    EXPECT_THAT(Drain(kUsb), ElementsAre(Short("03 000000 16000000 02 000000")));
    Remove(event.devpath);
    EXPECT_THAT(Logs(), Wrote(128, "msgID:23 port:2"));
    EXPECT_THAT(Drain(kUsb), ElementsAre(Short("03 000000 17000000 02 000000")));
}

TEST_F(UNodeHidrawTest, TellsAgainWhenItIsAddedAgain) {
    FakeEvent event = EventOf(SUBSYSTEM_HID, kPort1 + "/1-1.1:1.0/0003:1.0001");
    Add(event);
    Add(event);
    EXPECT_THAT(PortMessages(), ElementsAre(std::pair(22u, 1u), std::pair(22u, 1u)));
    EXPECT_EQ(List().GetSize(), 1u);
}

TEST_F(UNodeHidrawTest, AChangeTellsNobody) {
    FakeEvent event = EventOf(SUBSYSTEM_HID, kPort1 + "/hid");
    UNode* const node = Insert(SUBSYSTEM_HID, event.devpath);
    ClearLogs();
    node->ActionChange(&event);
    EXPECT_THAT(Logs(), ElementsAre(Line(32, Format("%p", static_cast<void*>(&event)))));
    EXPECT_THAT(PortMessages(), IsEmpty());
}

TEST_F(UNodeHidrawTest, WithoutEventOrNotifierNothingIsSent) {
    {
        UNodeHidraw node(SUBSYSTEM_HID, kPort1.c_str(), nullptr);
        node.ActionAdd(nullptr);
        EXPECT_THAT(Logs(192), ElementsAre(Line(192, "event_data is null")));
        ClearLogs();
        FakeEvent event;
        node.ActionAdd(&event);
        EXPECT_THAT(Logs(192), ElementsAre(Line(192, "notifier is null")));
        ClearLogs();
    }
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "notifier is null")));  // on its removal
    EXPECT_THAT(PortMessages(), IsEmpty());
}

TEST_F(UNodeTtyTest, ComesChangesAndGoesWithoutAPort) {
    FakeEvent event = EventOf(SUBSYSTEM_TTY, kPort2 + "/1-1.2:1.0/tty/ttyACM0");
    UNode* const node = Add(event);
    EXPECT_EQ(event.printed_details, 1);
    node->ActionChange(&event);
    EXPECT_EQ(event.printed_details, 2);
    EXPECT_EQ(event.printed_summary, 0);
    Remove(event.devpath);
    EXPECT_THAT(Logs(128), testing::AllOf(testing::Contains(Line(128, "msgID:24")),
                                          testing::Contains(Line(128, "msgID:25")),
                                          testing::Contains(Line(128, "msgID:26"))));
    EXPECT_THAT(Drain(kUsb),
                ElementsAre(Short("03 000000 18000000 00 000000"), Short("03 000000 1A000000 00 000000"),
                            Short("03 000000 19000000 00 000000")));
}

TEST_F(UNodeTtyTest, WithoutEventOrNotifierNothingIsSent) {
    {
        UNodeTty node(SUBSYSTEM_TTY, "/devices/tty", nullptr);
        node.ActionAdd(nullptr);
        node.ActionChange(nullptr);
        EXPECT_THAT(Logs(192), ElementsAre(Line(192, "event_data is null"), Line(192, "event_data is null")));
        ClearLogs();
        FakeEvent event;
        node.ActionAdd(&event);
        node.ActionChange(&event);
        EXPECT_THAT(Logs(192), ElementsAre(Line(192, "notifier is null"), Line(192, "notifier is null")));
        ClearLogs();
    }
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "notifier is null")));
    EXPECT_THAT(PortMessages(), IsEmpty());
}

TEST_F(UNodeNetTest, TellsNobodyAndIsFoundByItsPort) {
    FakeEvent event = EventOf(SUBSYSTEM_NET, kPort2 + "/1-1.2:1.0/net/usb0");
    UNode* const node = Add(event);
    EXPECT_EQ(event.printed_details, 1);
    EXPECT_EQ(List().FindNetNode(2), node);
    node->ActionChange(&event);
    Remove(event.devpath);
    EXPECT_EQ(List().FindNetNode(2), nullptr);
    EXPECT_THAT(Drain(kUsb), IsEmpty());
    EXPECT_THAT(Drain(kMonitor), IsEmpty());
    EXPECT_THAT(Packets(), IsEmpty());
}

TEST_F(UNodeNetTest, BehindAFurtherHubItHasTheSocketsNumberOnly) {
    FakeEvent event = EventOf(SUBSYSTEM_NET, kPort32 + "/1-1.2.3:1.0/net/usb0");
    UNode* const node = Add(event);
    EXPECT_EQ(node->GetPort(), 2);
    EXPECT_EQ(List().FindNetNode(32), nullptr);
}

TEST_F(UNodeNetTest, WithoutAnEventItKeepsItsPort) {
    UNodeNet node(SUBSYSTEM_NET, kPort1.c_str(), nullptr);
    node.ActionAdd(nullptr);
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "event_data is null")));
    EXPECT_EQ(node.GetPort(), 0);
}

}  // namespace
}  // namespace test
