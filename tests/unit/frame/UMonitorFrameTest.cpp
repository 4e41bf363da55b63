#include "frame/UMonitorFrame.h"

#include <cstring>
#include <memory>

#include "FrameBench.h"
#include "gmock/gmock.h"
#include "notify/UNotifier.h"
#include "support/Format.h"

namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct UMonitorFrame : FrameBench {
    void SetUp() override {
        FrameBench::SetUp();
        m_frame = std::make_unique<dcm::usb::UMonitorFrame>(Kipc(), Queue(kMonitor));
    }
    void TearDown() override {
        m_frame.reset();
        FrameBench::TearDown();
    }
    void Take(unsigned long src, Bytes message) {
        m_frame->event_handler(src, static_cast<unsigned>(message.size()),
                               reinterpret_cast<char*>(message.data()));
    }
    void TakeNothing() { m_frame->event_handler(0, 0, nullptr); }
    static Bytes Request(std::uint32_t id, std::size_t size = 12) {
        Bytes message(size);
        std::memcpy(&message[4], &id, sizeof id);
        return message;
    }
    std::unique_ptr<dcm::usb::UMonitorFrame> m_frame;
};

TEST_F(UMonitorFrame, TracesItsBeginningAndItsEnd) {
    const void* const address = m_frame.get();
    EXPECT_THAT(Logs(), ElementsAre(Line(32, Format("constructor ptr:%p", address))));
    ClearLogs();
    m_frame.reset();
    EXPECT_THAT(Logs(), ElementsAre(Line(32, Format("destructor ptr:%p", address))));
}

TEST_F(UMonitorFrame, MakesItsNotifierAtTheFirstCall) {
    auto& interface = Kipc();
    const long before = interface.use_count();
    TakeNothing();
    EXPECT_EQ(interface.use_count(), before + 1);
    TakeNothing();
    EXPECT_EQ(interface.use_count(), before + 1);
    m_frame.reset();
    EXPECT_EQ(interface.use_count(), before - 1) << "the frame's own share and its notifier's";
}

TEST_F(UMonitorFrame, RunsWithoutANotifier) {
    TheStage().no_memory_for = {sizeof(dcm::usb::UNotifier)};
    TakeNothing();
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "failed to new notifier instance")));
    Take(4096, Request(39));
    EXPECT_THAT(Logs(160), ElementsAre(Line(160, "unknown msgID:39")));
}

TEST_F(UMonitorFrame, SleepsATenthOfASecondAfterEachCall) {
    TakeNothing();
    TakeNothing();
    Take(4096, Request(33, 140));
    EXPECT_THAT(Deeds(), ElementsAre("usleep 100000", "usleep 100000", "usleep 100000"));
}

TEST_F(UMonitorFrame, TakesAMessageAtItsVeryFirstCall) {
    ClearLogs();
    Take(4096, Request(35));
    EXPECT_THAT(Logs(128), Wrote(128, "ParseMsg in E_STATE_INIT "));
    EXPECT_THAT(Logs(160), ElementsAre(Line(160, "unknown msgID:35")));
}

TEST_F(UMonitorFrame, RefusesEveryRequestWhileThereIsNoSupervision) {
    TakeNothing();
    std::vector<LogLine> refusals;
    ClearLogs();
    for (std::uint32_t id = 30; id <= 45; ++id) {
        Take(4096, Request(id, 348));
        refusals.push_back(Line(160, Format("unknown msgID:%d", static_cast<int>(id))));
    }
    EXPECT_EQ(Logs(), refusals);
}

TEST_F(UMonitorFrame, PassesOverMessagesOfStrangers) {
    Take(0, Request(35));
    Take(0x800000, Request(35));
    EXPECT_THAT(Logs(160), IsEmpty());
    EXPECT_THAT(Logs(128), ::testing::Not(Wrote(128, "ParseMsg in E_STATE_INIT ")));
}

TEST_F(UMonitorFrame, ReadsNothingBehindAShortMessage) {
    TakeNothing();
    ClearLogs();
    Take(4096, Hex("00"));
    Take(4096, Hex("00*4 27 00"));
    EXPECT_THAT(Logs(), ElementsAre(Line(160, "unknown msgID:0"), Line(160, "unknown msgID:39")));
}

TEST_F(UMonitorFrame, RefusesToReadNoMessage) {
    char byte = 0;
    const void* const address = &byte;
    ClearLogs();
    m_frame->ParseMsg(0, &byte);
    m_frame->ParseMsg(12, nullptr);
    EXPECT_THAT(Logs(),
                ElementsAre(Line(192, Format("error len(0) or str(%p) or m_list_item((nil))", address)),
                            Line(192, "error len(12) or str((nil)) or m_list_item((nil))")));
}

}  // namespace
}  // namespace test
