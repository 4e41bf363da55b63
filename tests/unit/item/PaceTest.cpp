// The monitor frame keeps time for the items: what a port asks for comes back after so many milliseconds.
#include <memory>
#include <utility>

#include "ItemBench.h"
#include "frame/UMonitorFrame.h"

using namespace dcm::usb;
using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::IsEmpty;
using ::testing::Le;

namespace test {
namespace {

struct PaceTest : ItemBench {
    void SetUp() override {
        ItemBench::SetUp();
        m_frame = std::make_unique<UMonitorFrame>(dcm::DcmInterface::m_pInstance->GetKipcSP(),
                                                  dcm::DcmInterface::m_pInstance->GetMessageQueue(kMonitor));
        Tick();  // the first call runs no item
    }
    void TearDown() override {
        m_frame.reset();
        ItemBench::TearDown();
    }

    // One call of the frame, with the oldest message that waits for it. Its sleep moves the clock.
    void Tick() {
        dcm::DcmInterface* const platform = dcm::DcmInterface::m_pInstance;
        frame::Message::Record record;
        if (platform->GetMessageQueue(kMonitor)->take(&record))
            m_frame->event_handler(record.src, record.len, record.buf);
        else
            m_frame->event_handler(0, 0, nullptr);
        MoveClock(m_late);
    }

    long long Now() const { return outside.now.tv_sec * 1000LL + outside.now.tv_nsec / 1000000; }

    // When each message for the port left, in ms from now on.
    std::vector<std::pair<unsigned, long long>> Watch(long long milliseconds) {
        std::vector<std::pair<unsigned, long long>> seen;
        const long long begin = Now();
        while (Now() - begin < milliseconds) {
            const long long at = Now() - begin;
            Tick();
            for (const Queued& told : Drain(kUsb))
                seen.emplace_back(told.bytes.at(4), at);
        }
        return seen;
    }

    std::unique_ptr<UMonitorFrame> m_frame;
    long long m_late = 0;  // ms that each call takes besides its sleep
};

TEST_F(PaceTest, TimersFireOnePassAfterTheirLimit) {
    Notifier()->PushChTimeout(true, 1);
    EXPECT_THAT(Watch(30000), ElementsAre(std::pair(45u, 20100)));
    Notifier()->PushCarplayTimeout(true, 1);
    EXPECT_THAT(Watch(30000), ElementsAre(std::pair(46u, 2100)));
    UMsgNode msg{};
    msg.port = 1;
    Notifier()->PushCutting(true, &msg);
    EXPECT_THAT(Watch(30000), ElementsAre(std::pair(21u, 3100)));
    Notifier()->PushCarplayCapa(true, 1);
    EXPECT_THAT(Watch(60000), ElementsAre(std::pair(47u, 5100), std::pair(47u, 10200), std::pair(47u, 15300),
                                          std::pair(47u, 20400), std::pair(47u, 25500)));
}

TEST_F(PaceTest, AMountErrorIsSentOnePassAfterItsSecond) {
    st_storage_pkt packet{};
    Notifier()->PushMountError(true, 2, &packet);
    Watch(1100);
    EXPECT_THAT(Packets(), IsEmpty());
    Tick();
    EXPECT_EQ(Packets().size(), 1u);
}

TEST_F(PaceTest, TimersAreNeverEarlyAndAtMostThreePassesLate) {
    for (m_late = 0; m_late <= 60; m_late += 7) {
        SCOPED_TRACE(m_late);
        const long long pass = 100 + m_late;
        Notifier()->PushCarplayTimeout(true, 1);
        const auto seen = Watch(2000 + 4 * pass);
        ASSERT_EQ(seen.size(), 1u);
        EXPECT_THAT(seen[0].second, AllOf(Ge(2000), Le(2000 + 3 * pass)));
    }
}

TEST_F(PaceTest, ACancelledTimerNeverFires) {
    Notifier()->PushChTimeout(true, 1);
    Notifier()->PushCarplayTimeout(true, 1);
    Notifier()->PushCarplayCapa(true, 1);
    UMsgNode msg{};
    msg.port = 1;
    Notifier()->PushCutting(true, &msg);
    EXPECT_THAT(Watch(1900), IsEmpty());
    Notifier()->PushCarplayTimeout(false, 1);
    Notifier()->PushCutting(false, &msg);
    Notifier()->PushChTimeout(false, 1);
    Notifier()->PushCarplayCapa(false, 1);
    EXPECT_THAT(Watch(60000), IsEmpty());
}

TEST_F(PaceTest, ACancelOfAnInactivePortIsLostAndTheTimerFiresWhenThePortIsActiveAgain) {
    Notifier()->PushCarplayTimeout(true, 2);
    Watch(1000);
    SetAdaption(2, 2);
    Notifier()->PushCarplayTimeout(false, 2);
    Watch(500);
    SetAdaption(2, 1);
    EXPECT_THAT(Watch(10000), ElementsAre(std::pair(46u, 600)));
}

TEST_F(PaceTest, TenRequestsAreTakenASecondInTheirOrder) {
    for (std::uint8_t port = 1; port <= 9; ++port)
        Notifier()->PushCarplayTimeout(true, port);
    const auto seen = Watch(10000);
    ASSERT_EQ(seen.size(), 9u);
    for (unsigned at = 0; at < seen.size(); ++at)
        EXPECT_EQ(seen[at], std::pair(46u, 2100LL + 100 * at));
}

TEST_F(PaceTest, SleepsATenthOfASecondEachTime) {
    Watch(1000);
    EXPECT_THAT(outside.sleeps, AllOf(::testing::SizeIs(11), Each(100000u)));
}

}  // namespace
}  // namespace test
