#include "item/UItemVoltageSupply.h"

#include "ItemBench.h"

using namespace dcm::usb;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace test {
namespace {

using Voltage = UItemVoltageSupply;

struct UItemVoltageSupplyTest : ItemBench {
    void SetUp() override {
        ItemBench::SetUp();
        Supply("1");
    }
    void Supply(const std::string& value) { Sys().Set(kHost + "/ka_hub_temperature", value + "\n"); }
    void Arm(std::uint8_t port = 2, bool is_hub_detect = false) {
        List().AddVoltageItem(Notifier(), port, is_hub_detect);
        ClearLogs();
    }
    // So many checks, one a second.
    void Check(int count) {
        for (int check = 0; check < count; ++check)
            PassAfter(1000);
    }
    void Read(const std::string& value, int count) {
        Supply(value);
        Check(count);
    }
    static std::vector<Packet> Report(unsigned port, unsigned section) {
        return {{0x800000,
                 Hex(Format("00000000 13000000 00000000 06000000 %02X000000 %02X000000", port, section))},
                {0x200, Hex(Format("88130000 %02X000000 %02X000000", port, section))}};
    }
};

struct Row {
    Voltage::E_VOLTAGE_STEP step;
    const char* value;
    int count;
    Voltage::E_VOLTAGE_STEP next_step;
    int next_count;
    int result;
    const char* log;  // null: none
};

constexpr auto NEUTRAL = Voltage::VOLTAGE_STEP_NEUTRAL;
constexpr auto NON_CRITICAL = Voltage::VOLTAGE_STEP_NON_CRITICAL;
constexpr auto CRITICAL = Voltage::VOLTAGE_STEP_CRITICAL;

const Row kRows[] = {
    {NEUTRAL, "0", -4, CRITICAL, 0, 2, nullptr},
    {NEUTRAL, "0", -3, CRITICAL, 0, 2, nullptr},
    {NEUTRAL, "0", -2, NEUTRAL, -3, 0, "step:neutral is low(-2)"},
    {NEUTRAL, "0", -1, NEUTRAL, -2, 0, "step:neutral is low(-1)"},
    {NEUTRAL, "0", 0, NEUTRAL, -1, 0, "step:neutral is low(0)"},
    {NEUTRAL, "0", 1, NEUTRAL, 0, 0, nullptr},
    {NEUTRAL, "0", 10, NEUTRAL, 0, 0, nullptr},
    {NEUTRAL, "1", 11, NON_CRITICAL, 0, 2, nullptr},
    {NEUTRAL, "1", 10, NON_CRITICAL, 0, 2, nullptr},
    {NEUTRAL, "1", 9, NEUTRAL, 10, 0, "step:neutral is high(9)"},
    {NEUTRAL, "1", 1, NEUTRAL, 2, 0, "step:neutral is high(1)"},
    {NEUTRAL, "1", 0, NEUTRAL, 1, 0, "step:neutral is high(0)"},
    {NEUTRAL, "1", -1, NEUTRAL, 0, 0, nullptr},
    {NEUTRAL, "1", -3, NEUTRAL, 0, 0, nullptr},
    {NON_CRITICAL, "1", -3, NON_CRITICAL, 0, 0, nullptr},
    {NON_CRITICAL, "1", 0, NON_CRITICAL, 0, 0, nullptr},
    {NON_CRITICAL, "1", 10, NON_CRITICAL, 0, 0, nullptr},
    {NON_CRITICAL, "0", -3, CRITICAL, 0, 3, nullptr},
    {NON_CRITICAL, "0", -2, NON_CRITICAL, -3, 0, "step:non_critical is low(-2)"},
    {NON_CRITICAL, "0", 0, NON_CRITICAL, -1, 0, "step:non_critical is low(0)"},
    {NON_CRITICAL, "0", 1, NON_CRITICAL, 0, 0, nullptr},
    {CRITICAL, "0", -3, CRITICAL, 0, 0, nullptr},
    {CRITICAL, "0", 0, CRITICAL, 0, 0, nullptr},
    {CRITICAL, "0", 10, CRITICAL, 0, 0, nullptr},
    {CRITICAL, "1", 10, NON_CRITICAL, 0, 2, nullptr},
    {CRITICAL, "1", 9, CRITICAL, 10, 0, "step:critical is high(9)"},
    {CRITICAL, "1", 0, CRITICAL, 1, 0, "step:critical is high(0)"},
    {CRITICAL, "1", -1, CRITICAL, 0, 0, nullptr},
};

TEST_F(UItemVoltageSupplyTest, StepsRowByRow) {
    for (const Row& row : kRows) {
        SCOPED_TRACE(Format("step %d value %s count %d", static_cast<int>(row.step), row.value, row.count));
        Supply(row.value);
        Voltage::m_step = row.step;
        Voltage::m_try_temperature = row.count;
        Voltage::m_last_ts = outside.now;
        ClearLogs();

        MoveClock(999);
        EXPECT_EQ(Voltage::ProcessInternal(), 0);
        EXPECT_EQ(Voltage::m_step, row.step);
        EXPECT_EQ(Voltage::m_try_temperature, row.count);
        EXPECT_EQ(UItem::DiffMs(Voltage::m_last_ts, outside.now), 999) << "the wait goes on";
        EXPECT_THAT(Logs(), IsEmpty());

        MoveClock(1);
        EXPECT_EQ(Voltage::ProcessInternal(), row.result);
        EXPECT_EQ(Voltage::m_step, row.next_step);
        EXPECT_EQ(Voltage::m_try_temperature, row.next_count);
        EXPECT_EQ(UItem::DiffMs(Voltage::m_last_ts, outside.now), 0) << "the next wait begins";
        if (row.log)
            EXPECT_THAT(Logs(), ElementsAre(Line(128, row.log)));
        else
            EXPECT_THAT(Logs(), IsEmpty());
    }
}

// The same machine for every step, reading and counter: what becomes of a counter in a range.
struct Range {
    Voltage::E_VOLTAGE_STEP step;
    bool is_low;
    int from;
    int to;
    Voltage::E_VOLTAGE_STEP next_step;
    int added;  // to the counter; kCleared: it is 0 from then on
    int result;
};
constexpr int kCleared = 99;
constexpr int kLeast = -20;
constexpr int kMost = 20;
constexpr Range kRanges[] = {
    {NEUTRAL, true, kLeast, -3, CRITICAL, kCleared, 2},
    {NEUTRAL, true, -2, 0, NEUTRAL, -1, 0},
    {NEUTRAL, true, 1, kMost, NEUTRAL, kCleared, 0},
    {NEUTRAL, false, kLeast, -1, NEUTRAL, kCleared, 0},
    {NEUTRAL, false, 0, 9, NEUTRAL, 1, 0},
    {NEUTRAL, false, 10, kMost, NON_CRITICAL, kCleared, 2},
    {NON_CRITICAL, true, kLeast, -3, CRITICAL, kCleared, 3},
    {NON_CRITICAL, true, -2, 0, NON_CRITICAL, -1, 0},
    {NON_CRITICAL, true, 1, kMost, NON_CRITICAL, kCleared, 0},
    {NON_CRITICAL, false, kLeast, kMost, NON_CRITICAL, kCleared, 0},
    {CRITICAL, true, kLeast, kMost, CRITICAL, kCleared, 0},
    {CRITICAL, false, kLeast, -1, CRITICAL, kCleared, 0},
    {CRITICAL, false, 0, 9, CRITICAL, 1, 0},
    {CRITICAL, false, 10, kMost, NON_CRITICAL, kCleared, 2},
};

TEST_F(UItemVoltageSupplyTest, EveryStepReadingAndCounterLeadsWhereItsRangeSays) {
    int cases = 0;
    for (const Range& range : kRanges) {
        Supply(range.is_low ? "0" : "1");
        for (int count = range.from; count <= range.to; ++count, ++cases) {
            SCOPED_TRACE(
                Format("step %d low %d count %d", static_cast<int>(range.step), range.is_low, count));
            Voltage::m_step = range.step;
            Voltage::m_try_temperature = count;
            Voltage::m_last_ts = outside.now;
            MoveClock(1000);
            EXPECT_EQ(Voltage::ProcessInternal(), range.result);
            EXPECT_EQ(Voltage::m_step, range.next_step);
            EXPECT_EQ(Voltage::m_try_temperature, range.added == kCleared ? 0 : count + range.added);
        }
    }
    EXPECT_EQ(cases, 3 * 2 * (kMost - kLeast + 1)) << "no step, reading or counter is left out";
}

TEST_F(UItemVoltageSupplyTest, BeginsNeutralWithoutAReading) {
    Voltage::m_try_temperature = 5;
    EXPECT_EQ(Voltage::ProcessInternal(), 0);
    EXPECT_EQ(Voltage::m_step, NEUTRAL);
    EXPECT_EQ(Voltage::m_try_temperature, 0);
    EXPECT_EQ(Voltage::m_last_ts.tv_sec, 1000);
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UItemVoltageSupplyTest, DoesNotBeginWithoutTime) {
    outside.clock_error = EINVAL;
    EXPECT_EQ(Voltage::ProcessInternal(), 0);
    EXPECT_EQ(Voltage::m_step, Voltage::VOLTAGE_STEP_START);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "error in gettime 22 Invalid argument")));
}

TEST_F(UItemVoltageSupplyTest, ReadsAnythingButZeroAsHigh) {
    for (const char* high : {"1", "2", "10", "ff"}) {
        Supply(high);
        EXPECT_NE(Voltage::GetTemperature(), 0) << high;
    }
    Supply("10");
    EXPECT_EQ(Voltage::GetTemperature(), 16);
    Supply("0");
    EXPECT_EQ(Voltage::GetTemperature(), 0);
    Sys().Remove(kHost + "/ka_hub_temperature");
    EXPECT_EQ(Voltage::GetTemperature(), -1);
}

TEST_F(UItemVoltageSupplyTest, IsNonCriticalAfterElevenHighReadings) {
    Arm();
    Pass();
    Check(10);
    EXPECT_THAT(Packets(), IsEmpty());
    EXPECT_EQ(Voltage::m_voltage_section, VOLTAGE_INITIAL);
    ClearLogs();
    Check(1);
    EXPECT_EQ(Packets(), Report(2, 1));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "port:2 volt_section:1"), Line(128, "port:2 volt_section:1")))
        << "the notifier's, and the item's own";
    EXPECT_EQ(Voltage::m_voltage_section, VOLTAGE_NON_CRITICAL);
    Check(20);
    EXPECT_EQ(Packets(), Report(2, 1)) << "only changes are told";
    EXPECT_TRUE(Has(ITEM_VOLTAGE_SUPPLY, 2));
}

TEST_F(UItemVoltageSupplyTest, IsCriticalAfterFourLowReadingsFromNonCritical) {
    Arm();
    Pass();
    Check(11);
    ClearPackets();
    Read("0", 3);
    EXPECT_THAT(Packets(), IsEmpty());
    Check(1);
    EXPECT_EQ(Packets(), Report(2, 2));
    EXPECT_EQ(Voltage::m_voltage_section, VOLTAGE_CRITICAL);
    ClearPackets();
    Read("1", 10);
    EXPECT_THAT(Packets(), IsEmpty());
    Check(1);
    EXPECT_EQ(Packets(), Report(2, 1));
}

TEST_F(UItemVoltageSupplyTest, SaysNonCriticalWhenTheSupplyWasLowFromTheStart) {
    Arm();
    Pass();
    Read("0", 4);
    EXPECT_EQ(Packets(), Report(2, 1));
    EXPECT_EQ(Voltage::m_step, CRITICAL);
    ClearPackets();
    Check(20);
    EXPECT_THAT(Packets(), IsEmpty()) << "critical is told only from non-critical";
    ClearLogs();
    Read("1", 11);
    EXPECT_THAT(Packets(), IsEmpty());
    EXPECT_EQ(Logs().back(), Line(64, "already non_critical"));
}

TEST_F(UItemVoltageSupplyTest, HasASectionOfItsOwnOnAStrongPort) {
    UPort::m_max_current = 0;
    Arm();
    Pass();
    Check(11);
    EXPECT_EQ(Packets(), Report(2, 3));
    EXPECT_EQ(Voltage::m_voltage_section, VOLTAGE_NON_CRITICAL_2_1A);
    Voltage::m_step = CRITICAL;
    Check(11);
    EXPECT_EQ(Packets(), Report(2, 3));
    EXPECT_EQ(Logs().back(), Line(64, "already non_critical_2.1"));
}

TEST_F(UItemVoltageSupplyTest, TellsNonCriticalAgainWhenThePortBecameAnother) {
    Arm();
    Pass();
    Check(11);
    ClearPackets();
    UPort::m_max_current = 0;
    Voltage::m_step = CRITICAL;
    Check(11);
    EXPECT_EQ(Packets(), Report(2, 3));
    ClearPackets();
    UPort::m_max_current = 1;
    Voltage::m_step = CRITICAL;
    Check(11);
    EXPECT_EQ(Packets(), Report(2, 1));
}

TEST_F(UItemVoltageSupplyTest, TellsCriticalOnce) {
    Arm();
    Voltage::m_step = NON_CRITICAL;
    Voltage::m_voltage_section = VOLTAGE_CRITICAL;
    Read("0", 4);
    EXPECT_EQ(Voltage::m_step, CRITICAL);
    EXPECT_THAT(Packets(), IsEmpty());
    EXPECT_EQ(Logs().back(), Line(64, "already critical"));
}

TEST_F(UItemVoltageSupplyTest, NeverLeavesItsStepWhileTheSupplyFlickers) {
    Arm();
    for (const auto step : {NEUTRAL, NON_CRITICAL, CRITICAL}) {
        SCOPED_TRACE(step);
        Voltage::m_step = step;
        Voltage::m_try_temperature = 0;
        Pass();
        for (int time = 0; time < 50; ++time) {
            Read("0", step == CRITICAL ? 1 : 3);
            Read("1", step == NON_CRITICAL ? 1 : 10);
            EXPECT_EQ(Voltage::m_step, step);
        }
    }
    EXPECT_THAT(Packets(), IsEmpty());
}

TEST_F(UItemVoltageSupplyTest, ChecksOnceASecondHoweverManyPassesThereAre) {
    Arm();
    Pass();
    for (int pass = 0; pass < 109; ++pass)
        PassAfter(100);
    EXPECT_EQ(Voltage::m_try_temperature, 10);
    PassAfter(99);
    EXPECT_EQ(Voltage::m_step, NEUTRAL);
    PassAfter(1);
    EXPECT_EQ(Voltage::m_step, NON_CRITICAL);
}

TEST_F(UItemVoltageSupplyTest, GoesOnWhereADeletedItemStood) {
    Arm(2);
    Pass();
    Check(6);
    List().DeleteItem(ITEM_VOLTAGE_SUPPLY, 2);
    Check(20);  // nobody looks
    EXPECT_EQ(Voltage::m_try_temperature, 6);
    Arm(1);
    Check(4);
    EXPECT_THAT(Packets(), IsEmpty());
    Check(1);
    EXPECT_EQ(Packets(), Report(1, 1));
    List().DeleteItem(ITEM_VOLTAGE_SUPPLY, 1);
    UListItem::Release();
    ClearPackets();
    Arm(1);
    EXPECT_EQ(Voltage::m_step, NON_CRITICAL);
    Read("0", 4);
    EXPECT_EQ(Packets(), Report(1, 2));
}

TEST_F(UItemVoltageSupplyTest, OfAHubReportsTheSectionAsItIsAndEndsAfterOnePass) {
    List().AddVoltageItem(Notifier(), 2, true);
    EXPECT_EQ(Packets(), Report(2, 4));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "port:2 volt_section:4"), Line(128, "port:2 volt_section:4"),
                                    Line(128, "port:2 isHubDetect:1 list_size:1")));
    ClearLogs();
    ClearPackets();
    Pass();
    EXPECT_THAT(Logs(),
                ElementsAre(Line(128, "skip by hub detect"), Line(128, "port2 terminated list_size:0")));
    EXPECT_EQ(Voltage::m_step, NEUTRAL) << "the machine is moved on all the same";
    EXPECT_FALSE(Has(ITEM_VOLTAGE_SUPPLY, 0));
    Voltage::m_voltage_section = VOLTAGE_CRITICAL;
    List().AddVoltageItem(Notifier(), 1, true);
    EXPECT_EQ(Packets(), Report(1, 2));
}

TEST_F(UItemVoltageSupplyTest, OfAHubKeepsAChangeToItself) {
    Voltage::m_step = NEUTRAL;
    Voltage::m_try_temperature = 10;
    Arm(2, true);
    ClearPackets();
    Check(1);
    EXPECT_EQ(Voltage::m_step, NON_CRITICAL);
    EXPECT_EQ(Voltage::m_voltage_section, VOLTAGE_INITIAL);
    EXPECT_THAT(Packets(), IsEmpty());
}

TEST_F(UItemVoltageSupplyTest, OfAPortReportsNothingWhenItIsMade) {
    List().AddVoltageItem(Notifier(), 2, false);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "port:2 isHubDetect:0 list_size:1")));
    EXPECT_THAT(Packets(), IsEmpty());
}

TEST_F(UItemVoltageSupplyTest, CountsASectionAsToldAlsoWhenThePortIsInactive) {
    Arm(2);
    SetAdaption(2, 2);
    Pass();
    Check(11);
    EXPECT_THAT(Packets(), IsEmpty());
    EXPECT_EQ(Voltage::m_voltage_section, VOLTAGE_NON_CRITICAL);
    EXPECT_EQ(Logs().back(), Line(128, "port:2 volt_section:1"));
}

}  // namespace
}  // namespace test
