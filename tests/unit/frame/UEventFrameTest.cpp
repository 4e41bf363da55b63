#include "frame/UEventFrame.h"

#include <memory>

#include "FrameBench.h"
#include "board/UPort.h"
#include "event/UDev.h"
#include "event/UNetLink.h"
#include "gmock/gmock.h"
#include "node/UListNode.h"
#include "notify/UNotifier.h"
#include "record/StatusRecord.h"
#include "setting/USetting.h"
#include "support/Format.h"

namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr unsigned long kDiagnosis = 0x0800000000000000;
const Packet kOpticalStatus{kDiagnosis, Hex("01 60 22 51 EC FF")};
const Packet kOpticalErrorCode{kDiagnosis, Hex("01 60 22 10 05 FF FF FF")};
const Packet kNoOverCurrent{kDiagnosis, Hex("01 60 22 24 7C 00")};
const Packet kHubNotSupported{kDiagnosis, Hex("01 60 22 80 AA 01")};
const Packet kStatusCommunication{kDiagnosis, Hex("01 60 22 18 E8 01")};
const Packet kFaultyCommunication{kDiagnosis, Hex("01 60 19 06 65 01")};
const Queued kScanBegin{4096, Hex("03 00*3 1B 00*3 00*4")};
const Queued kScanEnd{4096, Hex("03 00*3 1C 00*3 00*4")};

// The private notifier, which nodes are given.
dcm::usb::UNotifier* NotifierOf(dcm::usb::UEventFrame& frame);
template <dcm::usb::UNotifier* dcm::usb::UEventFrame::*member>
struct Opened {
    friend dcm::usb::UNotifier* NotifierOf(dcm::usb::UEventFrame& frame) { return frame.*member; }
};
template struct Opened<&dcm::usb::UEventFrame::m_notifier>;

struct UEventFrame : FrameBench {
    void SetUp() override {
        FrameBench::SetUp();
        dcm::usb::UPort::m_hub_max_port = 0;
    }
    void TearDown() override {
        m_frame.reset();
        dcm::usb::UPort::m_hub_max_port = 0;
        FrameBench::TearDown();
    }
    dcm::usb::UEventFrame& Make() {
        m_frame.reset();
        ClearLogs();
        m_frame =
            std::make_unique<dcm::usb::UEventFrame>(Kipc(), Queue(kEvent), std::vector<frame::QueueInfo>());
        return *m_frame;
    }
    void Step(int times = 1) {
        while (times-- > 0)
            m_frame->event_handler(0, 0, nullptr);
    }
    std::unique_ptr<dcm::usb::UEventFrame> m_frame;
};

TEST_F(UEventFrame, TracesItsBeginningAndItsEnd) {
    const void* const address = &Make();
    EXPECT_THAT(Logs(), Wrote(32, Format("constructor ptr:%p", address)));
    m_frame.reset();
    EXPECT_THAT(Logs(), Wrote(32, Format("destructor ptr:%p", address)));
}

TEST_F(UEventFrame, ReportsAtItsFirstStepThatNothingIsWrong) {
    Make();
    EXPECT_THAT(Packets(), IsEmpty());
    Step();
    EXPECT_THAT(Packets(), ElementsAre(kOpticalStatus, kOpticalErrorCode, kNoOverCurrent));
    EXPECT_THAT(Deeds(), IsEmpty());
}

TEST_F(UEventFrame, OpensTheSocketBeforeItScansAndReadsEventsAfterwards) {
    Make();
    Step(6);
    EXPECT_THAT(Deeds(), ElementsAre("init netlink", "usleep 10000", "scan", "drive", "drive", "drive"));
}

TEST_F(UEventFrame, ShowsToolsHowFarTheStartIs) {
    EXPECT_EQ(ShownNumber(dcm::usb::kStatusVersionName), dcm::usb::kStatusVersion);
    std::uint64_t during_scan = 0;
    TheStage().during_scan = [&] { during_scan = ShownNumber(dcm::usb::kStatusState); };
    Make();
    Step(3);
    EXPECT_EQ(during_scan, dcm::usb::SERVICE_SCANNING);
    EXPECT_EQ(ShownNumber(dcm::usb::kStatusState), dcm::usb::SERVICE_RUNNING);
}

TEST_F(UEventFrame, TriesToOpenTheSocketEveryTenMillisecondsUntilItSucceeds) {
    TheStage().netlink_failures = 2;
    Make();
    Step(5);
    EXPECT_THAT(Deeds(), ElementsAre("init netlink", "usleep 10000", "init netlink", "usleep 10000",
                                     "init netlink", "usleep 10000", "scan"));
}

TEST_F(UEventFrame, FramesTheScanWithItsMessagesAndThenReportsTheMissingHub) {
    TheStage().during_scan = [] {
        EXPECT_THAT(Drain(kUsb), ElementsAre(kScanBegin));
        EXPECT_THAT(Packets(), IsEmpty());
    };
    Make();
    Step(2);
    ClearPackets();
    ClearLogs();
    Step();
    EXPECT_THAT(Drain(kUsb), ElementsAre(kScanEnd));
    EXPECT_THAT(Packets(), ElementsAre(kHubNotSupported, kStatusCommunication, kFaultyCommunication));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "msgID:27"), Line(128, "msgID:28"), Line(128, "not_support[1]"),
                                    Line(128, "status[1]"), Line(128, "result[1]")));
    ClearPackets();
    Step(10);
    EXPECT_THAT(Packets(), IsEmpty()) << "once is enough";
    EXPECT_THAT(Drain(kUsb), IsEmpty());
}

TEST_F(UEventFrame, ReportsNothingAboutAHubThatTheScanFound) {
    TheStage().during_scan = [] { dcm::usb::UPort::m_hub_max_port = 2; };
    Make();
    Step(2);
    ClearPackets();
    Step();
    EXPECT_THAT(Packets(), IsEmpty());
    EXPECT_THAT(Drain(kUsb), ElementsAre(kScanBegin, kScanEnd));
}

TEST_F(UEventFrame, ReportsASinglePortHubAsMissing) {
    TheStage().during_scan = [] { dcm::usb::UPort::m_hub_max_port = 1; };
    Make();
    Step(2);
    ClearPackets();
    Step();
    EXPECT_THAT(Packets(), SizeIs(3));
}

TEST_F(UEventFrame, AnnouncesTheScanWhateverTheAdaptionSays) {
    Make();
    for (unsigned char port = 0; port <= 4; ++port)
        dcm::usb::USetting::GetInstance()->SetUsbAdaption(port, dcm::usb::USB_ADAPTION_INACTIVE);
    Step(3);
    EXPECT_THAT(Drain(kUsb), ElementsAre(kScanBegin, kScanEnd));
}

TEST_F(UEventFrame, ADevicePluggedInDuringTheScanIsInTheListOnce) {
    const auto plug = [] {
        dcm::usb::UListNode::GetInstance()->InsertNode(dcm::usb::SUBSYSTEM_NET, "/devices/usb1/1-1/net/usb0",
                                                       nullptr);
    };
    TheStage().during_scan = plug;  // seen by the scan
    TheStage().at_drive = plug;     // and waiting in the socket as an event
    Make();
    Step(4);
    EXPECT_EQ(dcm::usb::UListNode::GetInstance()->GetSize(), 1u);
}

// The reader empties the list, and what its nodes say then goes through the frame's notifier.
TEST_F(UEventFrame, LetsNodesSayTheirLastWordsWhenItEnds) {
    dcm::usb::UNotifier* const notifier = NotifierOf(Make());
    dcm::usb::UListNode::GetInstance()->InsertNode(dcm::usb::SUBSYSTEM_TTY, "/devices/tty/ttyACM0", notifier);
    m_frame.reset();
    EXPECT_THAT(Drain(kUsb), ElementsAre(Queued{4096, Hex("03 00*3 19 00*3 00*4")}));
    EXPECT_EQ(dcm::usb::UListNode::GetInstance()->GetSize(), 0u);
}

TEST_F(UEventFrame, PassesOverTheMessagesThatItIsGiven) {
    Make();
    Bytes message = Hex("03 00*3 1B 00*3 00*4");
    m_frame->event_handler(4096, 12, reinterpret_cast<char*>(message.data()));
    m_frame->event_handler(4096, 12, reinterpret_cast<char*>(message.data()));
    EXPECT_THAT(Drain(kUsb), IsEmpty());
    EXPECT_THAT(Deeds(), ElementsAre("init netlink", "usleep 10000"));
}

TEST_F(UEventFrame, RunsWithoutANotifier) {
    TheStage().no_memory_for = {sizeof(dcm::usb::UNotifier)};
    Make();
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "failed to new notifier instance")));
    ClearLogs();
    Step(4);
    EXPECT_THAT(Deeds(), ElementsAre("init netlink", "usleep 10000", "scan", "drive"));
    EXPECT_THAT(Packets(), IsEmpty());
    const LogLine line = Line(192, "notifier is null");
    EXPECT_THAT(Logs(192), ElementsAre(line, line, line, line)) << "start, scan begins, scan ends, hub";
}

TEST_F(UEventFrame, GoesOnTryingWithoutANetlinkReader) {
    TheStage().no_memory_for = {sizeof(dcm::usb::UNetLink)};
    Make();
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "failed to new netlink instance")));
    Step(4);
    EXPECT_THAT(Deeds(), ElementsAre("usleep 10000", "usleep 10000", "usleep 10000"));
}

TEST_F(UEventFrame, ReadsEventsWithoutAScanner) {
    TheStage().no_memory_for = {sizeof(dcm::usb::UDev)};
    Make();
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "failed to new dev instance")));
    Step(2);
    ClearPackets();
    Step(2);
    EXPECT_THAT(Deeds(), ElementsAre("init netlink", "usleep 10000", "drive"));
    EXPECT_THAT(Packets(), IsEmpty());
    EXPECT_THAT(Drain(kUsb), IsEmpty());
}

}  // namespace
}  // namespace test
