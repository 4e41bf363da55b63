#include "frame/UBegin.h"

#include <algorithm>
#include <memory>

#include "FrameBench.h"
#include "access/UDevAccessor.h"
#include "frame/UEventFrame.h"
#include "frame/UFrame.h"
#include "frame/UMonitorFrame.h"
#include "gmock/gmock.h"
#include "node/UListNode.h"
#include "port/UListPortState.h"
#include "setting/USetting.h"
#include "support/Format.h"

namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string KindOf(frame::Frame* frame) {
    if (dynamic_cast<dcm::usb::UFrame*>(frame)) return "command";
    if (dynamic_cast<dcm::usb::UEventFrame*>(frame)) return "event";
    if (dynamic_cast<dcm::usb::UMonitorFrame*>(frame)) return "monitor";
    return "another";
}

struct UBegin : FrameBench {
    void SetUp() override {
        FrameBench::SetUp();
        TheStage().at_run = [this](frame::Frame* frame) { m_frames.push_back(frame); };
    }
    // Kinds of the frames that were started, in order.
    std::vector<std::string> Kinds() const {
        std::vector<std::string> kinds;
        std::transform(m_frames.begin(), m_frames.end(), std::back_inserter(kinds), KindOf);
        return kinds;
    }
    std::vector<frame::Frame*> m_frames;
};

TEST_F(UBegin, StartsTheCommandTheEventAndTheMonitorFrame) {
    const auto begin = std::make_unique<dcm::UBegin>();
    EXPECT_THAT(Kinds(), ElementsAre("command", "event", "monitor"));
    EXPECT_THAT(Logs(192), IsEmpty());
}

TEST_F(UBegin, TellsCommandAndEventFrameTheQueueTowardsSdcmUnderItsName) {
    const auto begin = std::make_unique<dcm::UBegin>();
    ASSERT_EQ(QueuesTold().size(), 2u);
    for (const std::vector<frame::QueueInfo>& queues : QueuesTold()) {
        ASSERT_EQ(queues.size(), 1u);
        EXPECT_STREQ(queues[0].name(), dcm::DcmMessage::kMsgName[1]);
        EXPECT_EQ(queues[0].message(), Queue(kSdcm));
    }
}

TEST_F(UBegin, SaysThatItStartsAndThatItIsReadyUnderNumbersOfTheirOwn) {
    const auto begin = std::make_unique<dcm::UBegin>();
    const std::vector<LogLine> logs = Logs();
    ASSERT_FALSE(logs.empty());
    EXPECT_EQ(logs.front(), Line(128, "usbservice start"));
    EXPECT_EQ(logs.back(), Line(128, "usbservice ready"));
    for (const LogLine& line : logs) {
        const bool isStart = line.text == "usbservice start" || line.text == "usbservice ready";
        EXPECT_EQ(line.module, isStart ? 3584 : 2816) << line.text;
        EXPECT_EQ(line.submodule, isStart ? 1792 : 0) << line.text;
    }
}

TEST_F(UBegin, MakesThePlatformObjectWhenNobodyDid) {
    delete dcm::DcmInterface::m_pInstance;
    dcm::DcmInterface::m_pInstance = nullptr;
    const auto begin = std::make_unique<dcm::UBegin>();
    EXPECT_NE(dcm::DcmInterface::m_pInstance, nullptr);
    EXPECT_THAT(Kinds(), ElementsAre("command", "event", "monitor"));
}

TEST_F(UBegin, MakesTheSharedObjectsBeforeTheEventFrameStarts) {
    bool all_there = false;
    TheStage().at_run = [&](frame::Frame* frame) {
        if (KindOf(frame) != "event") return;
        all_there = dcm::usb::UListPortState::m_pInstance && dcm::usb::UListNode::m_pInstance &&
                    dcm::usb::USetting::m_pInstance && dcm::usb::UDevAccessor::m_pInstance;
    };
    const auto begin = std::make_unique<dcm::UBegin>();
    EXPECT_TRUE(all_there);
}

TEST_F(UBegin, RunsWithoutACommandFrame) {
    TheStage().no_memory_for = {sizeof(dcm::usb::UFrame)};
    const auto begin = std::make_unique<dcm::UBegin>();
    EXPECT_THAT(Kinds(), ElementsAre("event", "monitor"));
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "failed to new uframe instance")));
    EXPECT_EQ(Logs().back(), Line(128, "usbservice ready"));
}

TEST_F(UBegin, RunsWithoutAnEventFrame) {
    TheStage().no_memory_for = {sizeof(dcm::usb::UEventFrame)};
    const auto begin = std::make_unique<dcm::UBegin>();
    EXPECT_THAT(Kinds(), ElementsAre("command", "monitor"));
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "failed to new ueventframe instance")));
    EXPECT_EQ(Logs().back(), Line(128, "usbservice ready"));
}

TEST_F(UBegin, RunsWithoutAMonitorFrame) {
    TheStage().no_memory_for = {sizeof(dcm::usb::UMonitorFrame)};
    const auto begin = std::make_unique<dcm::UBegin>();
    EXPECT_THAT(Kinds(), ElementsAre("command", "event"));
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "failed to new umonitorframe instance")));
    EXPECT_EQ(Logs().back(), Line(128, "usbservice ready"));
}

TEST_F(UBegin, WaitsForEachFrameAndDeletesItTheLastOneFirst) {
    auto begin = std::make_unique<dcm::UBegin>();
    ASSERT_EQ(m_frames.size(), 3u);
    ClearLogs();
    ClearDeeds();
    begin.reset();
    EXPECT_THAT(Deeds(), ElementsAre("join", "join", "join"));
    std::vector<std::string> ends;
    for (const LogLine& line : Logs(32))
        if (line.file.find("/frame/") != std::string::npos) ends.push_back(line.text);
    EXPECT_THAT(ends, ElementsAre(Format("destructor ptr:%p", static_cast<void*>(m_frames[2])),
                                  Format("destructor ptr:%p", static_cast<void*>(m_frames[1])),
                                  Format("destructor ptr:%p", static_cast<void*>(m_frames[0]))));
}

TEST_F(UBegin, EndsWithoutTheFramesThatItHasNot) {
    TheStage().no_memory_for = {sizeof(dcm::usb::UFrame), sizeof(dcm::usb::UEventFrame),
                                sizeof(dcm::usb::UMonitorFrame)};
    auto begin = std::make_unique<dcm::UBegin>();
    begin.reset();
    EXPECT_THAT(Kinds(), IsEmpty());
    EXPECT_THAT(Deeds(), IsEmpty());
}

// The three threads for real: the scan's messages go from the event frame through the command frame to SDCM.
TEST_F(UBegin, TellsSdcmOfTheScanThroughTheCommandFrame) {
    ka_log_threshold = 128;
    TheStage().threads = true;
    auto begin = std::make_unique<dcm::UBegin>();
    frame::Message* const sdcm = Queue(kSdcm);
    while (sdcm->waiting() < 2)
        std::this_thread::yield();
    for (frame::Frame* frame : m_frames)
        frame->stop();
    begin.reset();
    EXPECT_THAT(Drain(kSdcm),
                ElementsAre(Queued{4096, Hex("00*4 03 00*3 00*4")}, Queued{4096, Hex("00*4 04 00*3 00*4")}));
}

// Called without a message it would say so, again and again, while it has nothing to do.
TEST_F(UBegin, CallsTheCommandFrameForMessagesOnly) {
    TheStage().threads = true;
    auto begin = std::make_unique<dcm::UBegin>();
    while (Queue(kSdcm)->waiting() < 2)
        std::this_thread::yield();
    for (frame::Frame* frame : m_frames)
        frame->stop();
    begin.reset();
    std::vector<std::string> calls;
    for (const LogLine& line : Logs(32))
        if (line.text.starts_with("src:")) calls.push_back(line.text);
    EXPECT_THAT(calls, ElementsAre("src:1000 len:12", "src:1000 len:12"));
}

}  // namespace
}  // namespace test
