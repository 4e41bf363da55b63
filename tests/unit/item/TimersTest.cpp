// The three timers of a port's state machine: mode change, CarPlay, CarPlay capability.
#include "ItemBench.h"
#include "item/UItemCarplayCapa.h"
#include "item/UItemTimeout.h"

using namespace dcm::usb;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace test {
namespace {

struct Timer {
    E_ITEM kind;
    int limit;  // ms
    unsigned id;
    const char* is_over;  // log text, of a wait that began at 1005 s
    const char* fires;    // log text
};

class UItemTimeoutTest : public ItemBench, public ::testing::WithParamInterface<Timer> {};

INSTANTIATE_TEST_SUITE_P(
    , UItemTimeoutTest,
    ::testing::Values(Timer{ITEM_CH_TIMEOUT, 20000, 45,
                            "STEP_CHECK port12 diff_ms:20000 m_last_ts:1005:0 cur_ts:1025:0",
                            "CH_TIMEOUT port12"},
                      Timer{ITEM_CARPLAY_TIMEOUT, 2000, 46,
                            "STEP_CHECK port12 diff_ms:2000 m_last_ts:1005:0 cur_ts:1007:0",
                            "CARPLAY_TIMEOUT port12"}),
    [](const auto& info) { return info.param.kind == ITEM_CH_TIMEOUT ? "ModeChange" : "CarPlay"; });

TEST_P(UItemTimeoutTest, TellsThePortOnceWhenTheTimeIsOver) {
    const auto [kind, limit, id, is_over, fires] = GetParam();
    Add(kind, 12);
    MoveClock(5000);  // the wait begins with the first pass
    ClearLogs();
    Pass();
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "STEP_NONE port12 m_last_ts:1005:0")));
    ClearLogs();
    PassAfter(limit - 1);
    EXPECT_THAT(Logs(), IsEmpty());
    PassAfter(1);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, is_over)));
    EXPECT_THAT(Drain(kUsb), IsEmpty());
    ClearLogs();
    Pass();
    EXPECT_THAT(Drain(kUsb), ElementsAre(Told(id, 12)));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, fires), Line(128, "port12 terminated list_size:0")));
    EXPECT_FALSE(Has(kind, 0));
    PassAfter(100000);
    EXPECT_THAT(Drain(kUsb), IsEmpty());
}

TEST_P(UItemTimeoutTest, CountsTheTimeThatPassesBetweenTwoPasses) {
    Add(GetParam().kind, 1);
    outside.now = {1000, 999999999};
    Pass();
    outside.now = {1000 + GetParam().limit / 1000, 999999998};
    ClearLogs();
    Pass();
    EXPECT_THAT(Logs(), IsEmpty()) << "one nanosecond is missing";
    outside.now.tv_nsec = 999999999;
    Pass();
    EXPECT_THAT(Logs(), ElementsAre(Line(128, Format("STEP_CHECK port1 diff_ms:%d m_last_ts:1000:999999999 "
                                                     "cur_ts:%d:999999999",
                                                     GetParam().limit, 1000 + GetParam().limit / 1000))));
}

TEST_P(UItemTimeoutTest, TellsNothingWhenItIsCancelledAtAnyStep) {
    const auto [kind, limit, id, is_over, fires] = GetParam();
    for (int passes = 0; passes <= 2; ++passes) {
        SCOPED_TRACE(passes);
        Add(kind, 12);
        for (int pass = 0; pass < passes; ++pass)
            PassAfter(limit);
        ClearLogs();
        List().DeleteItem(kind, 12);
        EXPECT_THAT(
            Logs(),
            ElementsAre(Line(128, Format("item:%d port:12 terminated list_size:0", static_cast<int>(kind)))));
        PassAfter(limit);
        PassAfter(limit);
        PassAfter(limit);
        EXPECT_THAT(Drain(kUsb), IsEmpty());
    }
}

TEST_P(UItemTimeoutTest, IsNotStartedAnewByASecondRequest) {
    const auto [kind, limit, id, is_over, fires] = GetParam();
    Add(kind, 1);
    Pass();
    MoveClock(limit - 1);
    Add(kind, 1);
    PassAfter(1);
    Pass();
    EXPECT_THAT(Drain(kUsb), ElementsAre(Told(id, 1)));
}

TEST_P(UItemTimeoutTest, RunsForEachPortAlone) {
    const auto [kind, limit, id, is_over, fires] = GetParam();
    Add(kind, 1);
    Pass();
    MoveClock(limit / 2);
    Add(kind, 2);
    Pass();
    PassAfter(limit / 2);
    Pass();
    EXPECT_THAT(Drain(kUsb), ElementsAre(Told(id, 1)));
    PassAfter(limit / 2);
    Pass();
    EXPECT_THAT(Drain(kUsb), ElementsAre(Told(id, 2)));
}

TEST_P(UItemTimeoutTest, IsLostWhenThePortIsInactiveAsItFires) {
    const auto [kind, limit, id, is_over, fires] = GetParam();
    Add(kind, 12);
    Pass();
    PassAfter(limit);
    SetAdaption(2, 2);
    Pass();
    EXPECT_THAT(Drain(kUsb), IsEmpty());
    EXPECT_THAT(Logs(),
                ElementsAre(Line(128, fires), Line(128, "not send because of not active port2 adaption(2)"),
                            Line(128, "port12 terminated list_size:0")));
}

struct TimersTest : ItemBench {};

TEST_F(TimersTest, DoNotFireForAnotherKind) {
    for (const E_ITEM kind : {ITEM_CUTTING, ITEM_CARPLAY_CAPA}) {
        ClearLogs();
        UItemTimeout item(kind, Notifier(), 1);
        item.NotifyTimeout();
        EXPECT_THAT(Logs(), ElementsAre(Line(160, Format("unknown item:%d", static_cast<int>(kind)))));
    }
    EXPECT_THAT(Drain(kUsb), IsEmpty());
}

TEST_F(TimersTest, CancelOnlyTheirOwnKind) {
    Add(ITEM_CH_TIMEOUT, 1);
    Add(ITEM_CARPLAY_TIMEOUT, 1);
    Add(ITEM_CARPLAY_CAPA, 1);
    List().DeleteItem(ITEM_CARPLAY_TIMEOUT, 1);
    Pass();
    PassAfter(20000);
    Pass();
    EXPECT_THAT(Drain(kUsb), ElementsAre(Told(45, 1), Told(47, 1)));
}

struct UItemCarplayCapaTest : ItemBench {
    void SetUp() override {
        ItemBench::SetUp();
        Add(ITEM_CARPLAY_CAPA, 2);
        ClearLogs();
    }
};

TEST_F(UItemCarplayCapaTest, AsksFiveTimesAndEnds) {
    Pass();
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "STEP_NONE m_last_ts:1000:0")));
    for (int poll = 1; poll <= 5; ++poll) {
        SCOPED_TRACE(poll);
        ClearLogs();
        PassAfter(4999);
        EXPECT_THAT(Logs(), IsEmpty());
        PassAfter(1);
        const int before = 1000 + (poll - 1) * 5;
        EXPECT_THAT(Logs(), ElementsAre(Line(
                                128, Format("STEP_CHECK diff_ms:5000 m_last_ts:%d:%d cur_ts:%d:%d", before,
                                            (poll - 1) * 7000000, before + 5, (poll - 1) * 7000000))));
        EXPECT_THAT(Drain(kUsb), IsEmpty());
        ClearLogs();
        PassAfter(7);  // the next wait begins here
        EXPECT_THAT(Drain(kUsb), ElementsAre(Told(47, 2)));
        EXPECT_THAT(Logs(), Wrote(128, Format("port2 retry:%d", poll)));
        EXPECT_EQ(Has(ITEM_CARPLAY_CAPA, 2), poll < 5);
    }
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "port2 retry:5"), Line(128, "port2 terminated list_size:0")));
    for (int pass = 0; pass < 10; ++pass)
        PassAfter(5000);
    EXPECT_THAT(Drain(kUsb), IsEmpty());
}

TEST_F(UItemCarplayCapaTest, SaysWhenAWaitIsOver) {
    Pass();
    ClearLogs();
    PassAfter(5123);
    EXPECT_THAT(Logs(),
                ElementsAre(Line(128, "STEP_CHECK diff_ms:5123 m_last_ts:1000:0 cur_ts:1005:123000000")));
}

TEST_F(UItemCarplayCapaTest, IsSilentWhenCancelledAtAnyStepOfAnyRound) {
    for (int passes = 0; passes <= 10; ++passes) {
        SCOPED_TRACE(passes);
        Add(ITEM_CARPLAY_CAPA, 2);
        for (int pass = 0; pass < passes; ++pass)
            PassAfter(5000);
        EXPECT_EQ(Drain(kUsb).size(), static_cast<unsigned>(passes > 0 ? (passes - 1) / 2 : 0));
        ClearLogs();
        List().DeleteItem(ITEM_CARPLAY_CAPA, 2);
        EXPECT_THAT(Logs(), ElementsAre(Line(128, "item:7 port:2 terminated list_size:0")));
        PassAfter(5000);
        PassAfter(5000);
        EXPECT_THAT(Drain(kUsb), IsEmpty());
    }
}

TEST_F(UItemCarplayCapaTest, CountsAnewWhenItIsArmedAnew) {
    for (int pass = 0; pass < 5; ++pass)
        PassAfter(5000);
    List().DeleteItem(ITEM_CARPLAY_CAPA, 2);
    Drain(kUsb);
    Add(ITEM_CARPLAY_CAPA, 2);
    for (int pass = 0; pass < 30; ++pass)
        PassAfter(5000);
    EXPECT_EQ(Drain(kUsb).size(), 5u);
    EXPECT_FALSE(Has(ITEM_CARPLAY_CAPA, 0));
}

}  // namespace
}  // namespace test
