#include "item/UItem.h"

#include "ItemBench.h"
#include "item/UItemCarplayCapa.h"
#include "item/UItemDeferred.h"
#include "item/UItemOverCurrent.h"
#include "item/UItemTimeout.h"

using namespace dcm::usb;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace test {
namespace {

TEST(UItemDiffMs, CountsWholeMilliseconds) {
    EXPECT_EQ(UItem::DiffMs({5, 0}, {5, 0}), 0);
    EXPECT_EQ(UItem::DiffMs({5, 0}, {5, 999999}), 0);
    EXPECT_EQ(UItem::DiffMs({5, 0}, {5, 1000000}), 1);
    EXPECT_EQ(UItem::DiffMs({5, 0}, {8, 0}), 3000);
    EXPECT_EQ(UItem::DiffMs({5, 1}, {8, 0}), 2999);
    EXPECT_EQ(UItem::DiffMs({5, 500000000}, {8, 700000000}), 3200);
}

TEST(UItemDiffMs, BorrowsASecond) {
    EXPECT_EQ(UItem::DiffMs({5, 999999999}, {6, 0}), 0);
    EXPECT_EQ(UItem::DiffMs({5, 999000000}, {6, 0}), 1);
    EXPECT_EQ(UItem::DiffMs({5, 700000000}, {8, 500000000}), 2800);
}

TEST(UItemDiffMs, IsNegativeBackwards) {
    EXPECT_EQ(UItem::DiffMs({8, 0}, {5, 0}), -3000);
    EXPECT_EQ(UItem::DiffMs({8, 250000000}, {5, 0}), -3250);
}

TEST(UItemDiffMs, IsCutTo32Bits) {
    EXPECT_EQ(UItem::DiffMs({0, 0}, {4294967, 296000000}), 0);
    EXPECT_EQ(UItem::DiffMs({0, 0}, {2147483, 647000000}), 2147483647);
    EXPECT_EQ(UItem::DiffMs({0, 0}, {2147483, 648000000}), -2147483647 - 1);
}

struct UItemTest : ItemBench {};

TEST_F(UItemTest, StaysAsItIsWhileThereIsNoTime) {
    for (const E_ITEM kind : kAllKinds) {
        SCOPED_TRACE(kind);
        Add(kind, 1);
        Pass();  // the wait begins
        MoveClock(60000);
        ClearLogs();
        outside.clock_error = EINVAL;
        Pass();
        EXPECT_THAT(Logs(), ElementsAre(Line(192, "error in gettime 22 Invalid argument")));
        EXPECT_TRUE(Has(kind, 1));
        EXPECT_THAT(outside.commands, IsEmpty());
        outside.clock_error = 0;
        List().DeleteItem(kind, 1);
        ResetVoltage();
    }
    EXPECT_THAT(Drain(kUsb), IsEmpty());
}

TEST_F(UItemTest, BeginsToWaitWhenTheClockIsBack) {
    for (const E_ITEM kind : kAllKinds) {
        SCOPED_TRACE(kind);
        Add(kind, 1);
        outside.clock_error = EPERM;
        Pass();
        outside.clock_error = 0;
        MoveClock(60000);
        Pass();
        ClearLogs();
        Pass();  // no time has passed since the wait began
        EXPECT_THAT(Logs(), IsEmpty());
        EXPECT_TRUE(Has(kind, 1));
        List().DeleteItem(kind, 1);
        ResetVoltage();
    }
}

// A report that wants to wait once more: none of the service's does.
struct Stubborn : UItemDeferred {
    Stubborn() : UItemDeferred(ITEM_CUTTING, nullptr, 1, 50) {}
    int Fire() override { return ++fired < 3 ? 0 : 7; }
    int fired = 0;
};

TEST_F(UItemTest, WaitsAnewWhenItsReportSaysSo) {
    Stubborn item;
    for (int round = 1; round <= 2; ++round) {
        EXPECT_EQ(item.Process(), 0);
        MoveClock(50);
        EXPECT_EQ(item.Process(), 0);
        EXPECT_EQ(item.fired, round - 1);
        ClearLogs();
        EXPECT_EQ(item.Process(), 0);
        EXPECT_EQ(item.fired, round);
        EXPECT_THAT(Logs(), ElementsAre(Line(128, "STEP_CHECK > E_STEP_NONE")));
    }
    ClearLogs();
    EXPECT_EQ(item.Process(), 0);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "m_last_ts:1000:100000000")));
    MoveClock(49);
    EXPECT_EQ(item.Process(), 0);
    EXPECT_EQ(item.Process(), 0);
    EXPECT_EQ(item.fired, 2);
    MoveClock(1);
    EXPECT_EQ(item.Process(), 0);
    EXPECT_EQ(item.Process(), 7);
}

TEST_F(UItemTest, SaysWhenItHasNobodyToTell) {
    UItemTimeout timeout(ITEM_CH_TIMEOUT, nullptr, 1);
    timeout.NotifyTimeout();
    UItemCarplayCapa(nullptr, 1).NotifyCarplayCapa();
    UItemVoltageSupply(nullptr, 1, true);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "notifier is null"), Line(192, "notifier is null"),
                                    Line(192, "notifier is null")));
    ClearLogs();
    { UItemOverCurrent overcurrent(ITEM_OVER_CURRENT, nullptr, 1, "/devices/x"); }
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "notifier is null"), Line(192, "notifier is null")));
    EXPECT_THAT(Packets(), IsEmpty());
    EXPECT_THAT(Drain(kUsb), IsEmpty());
}

TEST_F(UItemTest, EndsAlsoWhenItHasNobodyToTell) {
    UItemTimeout timeout(ITEM_CARPLAY_TIMEOUT, nullptr, 1);
    timeout.Process();
    MoveClock(2000);
    timeout.Process();
    EXPECT_NE(timeout.Process(), 0);
    UItemCarplayCapa capa(nullptr, 1);
    capa.Process();
    int result = 0;
    for (int poll = 1; poll <= 5; ++poll) {
        EXPECT_EQ(result, 0);
        MoveClock(5000);
        capa.Process();
        result = capa.Process();
    }
    EXPECT_NE(result, 0);
}

}  // namespace
}  // namespace test
