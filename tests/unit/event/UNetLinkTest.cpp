#include "event/UNetLink.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>

#include "FakeNetlink.h"
#include "ListSpy.h"
#include "gmock/gmock.h"
#include "node/UListNode.h"
#include "record/StatusRecord.h"
#include "support/RecordingPlatform.h"

namespace {

using namespace dcm::usb;
using test::Line;
using test::list;
using test::Logs;
using test::netlink;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const char kBegin[] = "socket 16 524290 15";             // AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, uevents
const char kSetSize[] = "setsockopt 7 1 33 16777216 4";  // SOL_SOCKET, SO_RCVBUFFORCE

// '|' stands for the NUL between lines.
std::string Message(std::string text) {
    for (char& character : text)
        if (character == '|') character = '\0';
    return text;
}

class UNetLinkTest : public ::testing::Test {
protected:
    char somebody = 0;
    UNotifier* notifier = reinterpret_cast<UNotifier*>(&somebody);  // handed on, never used
    test::SpyNode node{"/devices/x"};

    UNetLinkTest() {
        test::ResetPlatform();
        netlink = {};
        netlink.active = true;
        list = {};
        list.active = true;
        USingleton<UListNode>::GetInstance();
        test::ClearLogs();
    }
    ~UNetLinkTest() override {
        netlink = {};
        list = {};
    }

    // Sends a message through an open reader.
    int Drive(UNetLink& reader, const std::string& message) {
        netlink.Send(Message(message));
        return reader.DriveNetLink();
    }
    std::unique_ptr<UNetLink> Open() {
        auto reader = std::make_unique<UNetLink>(notifier);
        EXPECT_EQ(reader->InitNetlink(), 0);
        netlink.calls.clear();
        test::ClearLogs();
        return reader;
    }
};

TEST_F(UNetLinkTest, OpensTheKernelsSocketForUevents) {
    UNetLink reader(notifier);
    EXPECT_EQ(reader.InitNetlink(), 0);
    EXPECT_THAT(netlink.calls,
                ElementsAre(kBegin, kSetSize, "bind 7 16 0 " + std::to_string(getpid()) + " 1 12"));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "fd(7) max_fd(8)")));
}

TEST_F(UNetLinkTest, FailsWithoutASocket) {
    netlink.socket_error = EMFILE;
    {
        UNetLink reader(notifier);
        EXPECT_EQ(reader.InitNetlink(), -1);
    }
    EXPECT_THAT(netlink.calls, ElementsAre(kBegin));
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "not create uevent socket")));
}

TEST_F(UNetLinkTest, ClosesASocketThatCannotBeMadeLargeEnough) {
    netlink.setsockopt_error = EPERM;
    {
        UNetLink reader(notifier);
        EXPECT_EQ(reader.InitNetlink(), -1);
        EXPECT_THAT(netlink.calls, ElementsAre(kBegin, kSetSize, "close 7"));
    }
    EXPECT_EQ(netlink.calls.size(), 3U) << "closed twice";
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "not set socket opt")));
}

TEST_F(UNetLinkTest, ClosesASocketThatCannotBeBound) {
    netlink.bind_error = EADDRINUSE;
    {
        UNetLink reader(notifier);
        EXPECT_EQ(reader.InitNetlink(), -1);
        EXPECT_EQ(netlink.calls.back(), "close 7");
        EXPECT_EQ(netlink.calls.size(), 4U);
    }
    EXPECT_EQ(netlink.calls.size(), 4U) << "closed twice";
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "failed to bind socket")));
}

TEST_F(UNetLinkTest, OpensOnALaterAttempt) {
    netlink.setsockopt_error = EPERM;
    UNetLink reader(notifier);
    EXPECT_EQ(reader.InitNetlink(), -1);
    netlink.setsockopt_error = 0;
    EXPECT_EQ(reader.InitNetlink(), 0);
    EXPECT_EQ(Drive(reader, "ACTION=online|"), 0);
}

TEST_F(UNetLinkTest, ClosesTheSocketAndEmptiesTheListAtItsEnd) {
    Open();
    EXPECT_THAT(netlink.calls, ElementsAre("close 7"));
    EXPECT_THAT(list.calls, ElementsAre("remove all"));
}

TEST_F(UNetLinkTest, LeavesDescriptorZeroOpen) {
    netlink.descriptor = 0;
    Open();
    EXPECT_THAT(netlink.calls, IsEmpty());
    EXPECT_THAT(list.calls, ElementsAre("remove all"));
}

TEST_F(UNetLinkTest, ClosesNothingThatWasNeverOpened) {
    { UNetLink reader(notifier); }
    EXPECT_THAT(netlink.calls, IsEmpty());
}

TEST_F(UNetLinkTest, WaitsForTheSocketAloneAndReadsOneMessageIntoZeros) {
    const auto reader = Open();
    netlink.Send(Message("ACTION=add|DEVPATH=/devices/x|"));
    UNetLinkData data;
    EXPECT_EQ(reader->RecvNetLinkData(&data), 0);
    EXPECT_THAT(netlink.calls, ElementsAre("select 8 waits for 7", "recv 7 2560 0"));
    EXPECT_STREQ(data.GetDevPath(), "/devices/x");
    netlink.Send("x");
    EXPECT_EQ(reader->RecvNetLinkData(&data), 0);
    EXPECT_TRUE(netlink.buffer_was_zero);
    EXPECT_EQ(data.GetDevPath(), nullptr);
    EXPECT_THAT(list.calls, IsEmpty());
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UNetLinkTest, ReadsIntoZerosWhateverCameBefore) {
    const auto reader = Open();
    for (const std::size_t length : {2560, 1, 279, 0, 2559, 3000, 280, 0, 279, 16, 2560, 2560}) {
        netlink.recv_error = length == 279 ? EFAULT : 0;
        Drive(*reader, std::string(length, 'x'));
        EXPECT_TRUE(netlink.buffer_was_zero) << length;
    }
}

TEST_F(UNetLinkTest, ReadsNothingIntoNothing) {
    const auto reader = Open();
    EXPECT_EQ(reader->RecvNetLinkData(nullptr), -1);
    EXPECT_THAT(netlink.calls, IsEmpty());
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "netlink_data is null")));
}

TEST_F(UNetLinkTest, AnInterruptedWaitIsAFailureOnce) {
    const auto reader = Open();
    netlink.select_error = EINTR;
    EXPECT_EQ(Drive(*reader, "ACTION=remove|DEVPATH=/devices/x|"), -1);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "error in select Interrupted system call")));
    EXPECT_THAT(list.calls, IsEmpty());
    netlink.select_error = 0;
    EXPECT_EQ(reader->DriveNetLink(), 0);
    EXPECT_THAT(list.calls, ElementsAre("find /devices/x", "remove /devices/x"));
}

TEST_F(UNetLinkTest, AWaitThatMarksNothingIsAFailure) {
    const auto reader = Open();
    netlink.select_marks_nothing = true;
    EXPECT_EQ(Drive(*reader, "ACTION=remove|DEVPATH=/devices/x|"), -1);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "set another fd")));
    EXPECT_THAT(list.calls, IsEmpty());
}

TEST_F(UNetLinkTest, AMessageThatCannotBeReadIsAFailure) {
    const auto reader = Open();
    netlink.recv_error = ENOBUFS;
    EXPECT_EQ(Drive(*reader, "ACTION=remove|DEVPATH=/devices/x|"), -1);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "fail to read sock msg")));
    EXPECT_THAT(list.calls, IsEmpty());
}

TEST_F(UNetLinkTest, CannotReadBeforeItIsOpen) {
    UNetLink reader(notifier);
    EXPECT_EQ(reader.DriveNetLink(), -1);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "error in select Invalid argument")));
}

TEST_F(UNetLinkTest, CannotReadFromADescriptorThatSelectHasNoPlaceFor) {
    netlink.descriptor = FD_SETSIZE;
    const auto reader = Open();
    EXPECT_EQ(reader->DriveNetLink(), -1);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "error in select Invalid argument")));
}

TEST_F(UNetLinkTest, AnEmptyMessageIsRefusedByTheParser) {
    const auto reader = Open();
    EXPECT_EQ(Drive(*reader, "ACTION=add|DEVPATH=/devices/x|SUBSYSTEM=usb|"), 0);
    list.calls.clear();
    test::ClearLogs();
    EXPECT_EQ(Drive(*reader, ""), 0);
    const auto lines = Logs();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].level, 192);
    EXPECT_THAT(lines[0].text, ::testing::StartsWith("buffer is invalid 0x"));
    EXPECT_EQ(lines[1], Line(128, "unknown action()"));
    EXPECT_THAT(list.calls, IsEmpty());
}

TEST_F(UNetLinkTest, ReadsAMessageThatFillsTheBufferToItsLastByte) {
    const auto reader = Open();
    std::string message = Message("ACTION=remove|DEVPATH=/");
    message.resize(2560, 'x');
    netlink.Send(message);
    UNetLinkData data;
    EXPECT_EQ(reader->RecvNetLinkData(&data), 0);
    EXPECT_EQ(data.GetDevPath(), "/" + std::string(2560 - 23, 'x'));
    EXPECT_EQ(data.GetAction(), ACTION_REMOVE);
    // A key that is cut by the end of the buffer.
    for (int cut = 1; cut < 10; ++cut) {
        message.assign(2560 - static_cast<std::size_t>(cut), 'x');
        message += "SUBSYSTEM=usb";
        netlink.Send(message);
        EXPECT_EQ(reader->RecvNetLinkData(&data), 0);
        EXPECT_EQ(data.GetSubSystem(), SUBSYSTEM_NONE);
    }
    netlink.Send(std::string(2550, 'x') + "SUBSYSTEM=usb");
    test::ClearLogs();
    EXPECT_EQ(reader->RecvNetLinkData(&data), 0);
    EXPECT_EQ(data.GetSubSystem(), SUBSYSTEM_NONE);
    EXPECT_THAT(Logs(), IsEmpty()) << "the key is there, its value is empty";
}

TEST_F(UNetLinkTest, AddsANode) {
    const auto reader = Open();
    list.inserted = &node;
    EXPECT_EQ(Drive(*reader, "add@/devices/x|ACTION=add|DEVPATH=/devices/x|SUBSYSTEM=block|SEQNUM=5|"), 0);
    EXPECT_THAT(list.calls, ElementsAre("insert 3 /devices/x", "add"));
    EXPECT_THAT(list.notifiers, ElementsAre(notifier));
    EXPECT_EQ(node.added.size(), 1U);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "seq5-add-block DEVPATH=/devices/x")));
}

TEST_F(UNetLinkTest, SaysNothingWhenTheListRefusesANode) {
    const auto reader = Open();
    EXPECT_EQ(Drive(*reader, "ACTION=add|DEVPATH=/devices/x|SUBSYSTEM=scsi|SEQNUM=5|"), 0);
    EXPECT_THAT(list.calls, ElementsAre("insert 4 /devices/x"));
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UNetLinkTest, RemovesANode) {
    const auto reader = Open();
    list.nodes["/devices/x"] = &node;
    EXPECT_EQ(Drive(*reader, "ACTION=remove|DEVPATH=/devices/x|SUBSYSTEM=usb|SEQNUM=6|"), 0);
    EXPECT_THAT(list.calls, ElementsAre("find /devices/x", "remove /devices/x"));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "seq6-remove-usb DEVPATH=/devices/x")));
}

TEST_F(UNetLinkTest, RemovesAnUnknownNodeWithoutALine) {
    const auto reader = Open();
    EXPECT_EQ(Drive(*reader, "ACTION=remove|DEVPATH=/devices/y|SUBSYSTEM=usb|SEQNUM=6|"), 0);
    EXPECT_EQ(Drive(*reader, "ACTION=remove|"), 0);
    EXPECT_THAT(list.calls,
                ElementsAre("find /devices/y", "remove /devices/y", "find (null)", "remove (null)"));
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UNetLinkTest, ChangesANode) {
    const auto reader = Open();
    list.nodes["/devices/x"] = &node;
    EXPECT_EQ(Drive(*reader, "ACTION=change|DEVPATH=/devices/x|SUBSYSTEM=usb|SEQNUM=7|"), 0);
    EXPECT_THAT(list.calls, ElementsAre("find /devices/x", "change"));
    EXPECT_EQ(node.changed.size(), 1U);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "seq7-change-usb DEVPATH=/devices/x")));
}

TEST_F(UNetLinkTest, AddsASerialPortThatOnlySaysChange) {
    const auto reader = Open();
    list.inserted = &node;
    EXPECT_EQ(Drive(*reader, "ACTION=change|DEVPATH=/devices/tty|SUBSYSTEM=tty|SEQNUM=8|"), 0);
    EXPECT_THAT(list.calls, ElementsAre("find /devices/tty", "insert 19 /devices/tty", "add"));
    EXPECT_THAT(list.notifiers, ElementsAre(notifier));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "seq8-change-tty DEVPATH=/devices/tty")));
}

TEST_F(UNetLinkTest, SaysNothingWhenTheListRefusesASerialPort) {
    const auto reader = Open();
    EXPECT_EQ(Drive(*reader, "ACTION=change|DEVPATH=/devices/tty|SUBSYSTEM=tty|SEQNUM=8|"), 0);
    EXPECT_THAT(list.calls, ElementsAre("find /devices/tty", "insert 19 /devices/tty"));
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UNetLinkTest, DropsAChangeOfAnythingElseThatIsUnknown) {
    const auto reader = Open();
    list.inserted = &node;
    EXPECT_EQ(Drive(*reader, "ACTION=change|DEVPATH=/devices/x|SUBSYSTEM=usb|"), 0);
    EXPECT_EQ(Drive(*reader, "ACTION=change|DEVPATH=/devices/x|SUBSYSTEM=block|"), 0);
    EXPECT_THAT(list.calls, ElementsAre("find /devices/x", "find /devices/x"));
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UNetLinkTest, OtherActionsChangeNothing) {
    const auto reader = Open();
    list.inserted = &node;
    list.nodes["/devices/x"] = &node;
    for (const char* action : {"online", "bind", "unbind", "none"})
        EXPECT_EQ(Drive(*reader, std::string("ACTION=") + action + "|DEVPATH=/devices/x|SUBSYSTEM=usb|"), 0);
    EXPECT_THAT(list.calls, IsEmpty());
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "unknown action(bind)"), Line(128, "unknown action(unbind)"),
                                    Line(128, "unknown action(none)")));
}

TEST_F(UNetLinkTest, ProcessesNothingWithoutARecordOrANotifier) {
    void* const nothing = nullptr;
    char text[200];
    std::snprintf(text, sizeof text, "netlink_data(%p) or lists(%p) or notifier(%p) is null", nothing,
                  static_cast<void*>(USingleton<UListNode>::m_pInstance), static_cast<void*>(notifier));
    UNetLink(notifier).ProcessNetLinkData(nullptr);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, text)));
    test::ClearLogs();
    list.calls.clear();

    UNetLinkData data;
    UNetLink deaf(nullptr);
    deaf.ProcessNetLinkData(&data);
    std::snprintf(text, sizeof text, "netlink_data(%p) or lists(%p) or notifier(%p) is null",
                  static_cast<void*>(&data), static_cast<void*>(USingleton<UListNode>::m_pInstance), nothing);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, text)));
    EXPECT_THAT(list.calls, IsEmpty());
}

TEST_F(UNetLinkTest, GoesOnAfterGarbage) {
    const auto reader = Open();
    list.nodes["/devices/x"] = &node;
    std::string garbage(2560, '=');
    for (std::size_t at = 0; at < garbage.size(); at += 3)
        garbage[at] = static_cast<char>(at * 7);
    EXPECT_EQ(Drive(*reader, garbage), 0);
    EXPECT_EQ(Drive(*reader, std::string(4000, '=')), 0);
    EXPECT_EQ(Drive(*reader, "ACTION"), 0);
    EXPECT_THAT(list.calls, IsEmpty());
    EXPECT_EQ(Drive(*reader, "ACTION=remove|DEVPATH=/devices/x|SUBSYSTEM=usb|SEQNUM=6|"), 0);
    EXPECT_THAT(list.calls, ElementsAre("find /devices/x", "remove /devices/x"));
}

TEST_F(UNetLinkTest, CountsForToolsEachEventThatItHandledAndNoneThatItCouldNotRead) {
    const auto reader = Open();
    const std::uint64_t before = test::ShownNumber(kStatusUevents);
    Drive(*reader, "ACTION=online|DEVPATH=/devices/x|SUBSYSTEM=cpu|");
    Drive(*reader, "nothing that anybody knows");
    EXPECT_EQ(test::ShownNumber(kStatusUevents), before + 2);
    netlink.recv_error = EIO;
    EXPECT_EQ(reader->DriveNetLink(), -1);
    EXPECT_EQ(test::ShownNumber(kStatusUevents), before + 2);
}

// With the list itself behind it. Network nodes tell nobody that they are there.
class UNetLinkAndListTest : public UNetLinkTest {
protected:
    UNetLinkAndListTest() {
        list.active = false;
        List().RemoveAllNodes();
        test::ClearLogs();
    }
    ~UNetLinkAndListTest() override { List().RemoveAllNodes(); }

    static UListNode& List() { return *USingleton<UListNode>::GetInstance(); }
    int Net(UNetLink& reader, const std::string& action, const std::string& devpath) {
        return Drive(reader, action + "@" + devpath + "|ACTION=" + action + "|DEVPATH=" + devpath +
                                 "|SUBSYSTEM=net|INTERFACE=usb0|SEQNUM=1|");
    }
};

const char kNet[] = "/devices/c/xhci-hcd.0.auto/usb1/1-1/1-1.2/1-1.2:1.0/net/usb0";

TEST_F(UNetLinkAndListTest, AnEventMakesANodeThatKeepsItsPathBeyondTheMessage) {
    const auto reader = Open();
    EXPECT_EQ(Net(*reader, "add", kNet), 0);
    EXPECT_EQ(Drive(*reader, std::string(2560, 'x')), 0);
    UNode* net = List().FindNode(kNet);
    ASSERT_NE(net, nullptr);
    EXPECT_STREQ(net->GetDevPath(), kNet);
    EXPECT_EQ(net->GetPort(), 2);
    EXPECT_THAT(Logs(), test::Wrote(128, std::string("seq1-add-net DEVPATH=") + kNet));
}

TEST_F(UNetLinkAndListTest, AnAddOfAKnownPathRunsTheAddAgainOnTheSameNode) {
    const auto reader = Open();
    Net(*reader, "add", kNet);
    const UNode* net = List().FindNode(kNet);
    test::ClearLogs();
    Net(*reader, "add", kNet);
    EXPECT_EQ(List().FindNode(kNet), net);
    EXPECT_EQ(List().GetSize(), 1U);
    EXPECT_THAT(Logs(), test::Wrote(160, "already exists"));
    EXPECT_THAT(Logs(), test::Wrote(128, std::string("seq1-add-net DEVPATH=") + kNet));
}

TEST_F(UNetLinkAndListTest, ARemoveTakesTheNodeAndWhatHangsOnIt) {
    const auto reader = Open();
    Net(*reader, "add", "/devices/a");
    Net(*reader, "add", "/devices/a/b");
    Net(*reader, "add", "/devices/c");
    Net(*reader, "remove", "/devices/none");
    EXPECT_EQ(List().GetSize(), 3U);
    Net(*reader, "remove", "/devices/a");
    EXPECT_EQ(List().GetSize(), 1U);
    EXPECT_NE(List().FindNode("/devices/c"), nullptr);
}

TEST_F(UNetLinkAndListTest, EventsThatNameNoKnownSubsystemOrPathMakeNoNode) {
    const auto reader = Open();
    EXPECT_EQ(Drive(*reader, "ACTION=add|DEVPATH=/devices/cpu|SUBSYSTEM=cpu|"), 0);
    EXPECT_EQ(Drive(*reader, "ACTION=add|SUBSYSTEM=net|"), 0);
    EXPECT_EQ(Drive(*reader, "ACTION=add|DEVPATH=|SUBSYSTEM=net|"), 0);
    EXPECT_EQ(Drive(*reader, "ACTION=remove|"), 0);
    EXPECT_EQ(Drive(*reader, "ACTION=change|SUBSYSTEM=net|"), 0);
    EXPECT_EQ(List().GetSize(), 0U);
}

TEST_F(UNetLinkAndListTest, TheListIsEmptyWhenTheReaderIsGone) {
    auto reader = Open();
    Net(*reader, "add", "/devices/a");
    Net(*reader, "add", "/devices/b");
    ASSERT_EQ(List().GetSize(), 2U);
    reader.reset();
    EXPECT_EQ(List().GetSize(), 0U);
}

}  // namespace
