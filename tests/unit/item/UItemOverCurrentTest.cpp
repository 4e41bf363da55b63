#include "item/UItemOverCurrent.h"

#include "ItemBench.h"

using namespace dcm::usb;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace test {
namespace {

struct UItemOverCurrentTest : ItemBench {
    static std::string Attribute(int port) {
        return kHost + Format("/usb1/1-1/1-1:1.0/1-1-port%d/overcurrent", port);
    }
    static std::string SwitchOn(int port) { return "echo 1 > /sys" + Attribute(port); }
    void Arm(std::uint8_t port, const char* devpath = "/devices/stick") {
        List().AddOverCurrentItem(Notifier(), port, devpath);
    }
    // To the first switch-on: 30 s after the first pass.
    void RunToSwitchOn() {
        Pass();
        PassAfter(30000);
        ClearLogs();
    }
};

TEST_F(UItemOverCurrentTest, IsReportedWhenItComesAndWhenItGoes) {
    Arm(2);
    EXPECT_THAT(Packets(), ElementsAre(kOverCurrentPresent));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "oc_path:/usb1/1-1/1-1:1.0/1-1-port2/overcurrent"),
                                    Line(128, "over_current[ff]"),
                                    Line(128, "port:2 devpath:/devices/stick list_size:1")));
    ClearLogs();
    ClearPackets();
    List().DeleteOverCurrentItem("/devices/stick");
    EXPECT_THAT(Packets(), ElementsAre(kOverCurrentCleared));
    EXPECT_THAT(Logs(),
                ElementsAre(Line(128, "devpath:/devices/stick"), Line(128, "port:2 terminated list_size:0"),
                            Line(128, "over_current[0]")));
}

TEST_F(UItemOverCurrentTest, SwitchesOnAfterThirtySecondsAndEndsWhenAllIsWell) {
    Sys().Set(Attribute(1), "0\n");
    Arm(1);
    ClearLogs();
    ClearPackets();
    MoveClock(7000);  // the wait begins with the first pass
    Pass();
    PassAfter(29999);
    EXPECT_THAT(outside.commands, IsEmpty());
    PassAfter(1);
    EXPECT_THAT(outside.commands, ElementsAre(SwitchOn(1)));
    Pass();
    PassAfter(199);
    EXPECT_THAT(Logs(), IsEmpty());
    EXPECT_TRUE(Has(ITEM_OVER_CURRENT, 1));
    EXPECT_THAT(Packets(), IsEmpty());
    PassAfter(1);
    EXPECT_FALSE(Has(ITEM_OVER_CURRENT, 0));
    EXPECT_THAT(Packets(), ElementsAre(kOverCurrentCleared));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "port1 terminated list_size:0"), Line(128, "over_current[0]")));
    EXPECT_EQ(outside.commands.size(), 1u);
}

TEST_F(UItemOverCurrentTest, SwitchesOnAgainAndAgainWhileItIsThere) {
    Sys().Set(Attribute(2), "1\n");
    Arm(2);
    RunToSwitchOn();
    ClearPackets();
    for (unsigned round = 1; round <= 50; ++round) {
        SCOPED_TRACE(round);
        EXPECT_EQ(outside.commands.size(), round);
        PassAfter(199);
        EXPECT_EQ(outside.commands.size(), round);
        PassAfter(1);  // checked; the next wait begins
        PassAfter(499);
        EXPECT_EQ(outside.commands.size(), round);
        PassAfter(1);
        EXPECT_EQ(outside.commands.size(), round + 1);
    }
    EXPECT_THAT(outside.commands, ::testing::Each(SwitchOn(2)));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "port2 step2 overcurrent:1"))) << "only what changed";
    EXPECT_THAT(Packets(), IsEmpty());

    Sys().Set(Attribute(2), "0\n");
    ClearLogs();
    PassAfter(200);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "port2 step2 overcurrent:0"),
                                    Line(128, "port2 terminated list_size:0"), Line(128, "over_current[0]")));
    EXPECT_THAT(Packets(), ElementsAre(kOverCurrentCleared));
}

TEST_F(UItemOverCurrentTest, LooksOnlyAfterASwitchOn) {
    Sys().Set(Attribute(2), "1\n");
    Arm(2);
    RunToSwitchOn();
    PassAfter(200);
    Sys().Set(Attribute(2), "0\n");
    PassAfter(499);
    EXPECT_TRUE(Has(ITEM_OVER_CURRENT, 2));
    PassAfter(1);
    EXPECT_EQ(outside.commands.size(), 2u);
    EXPECT_TRUE(Has(ITEM_OVER_CURRENT, 2));
    PassAfter(200);
    EXPECT_FALSE(Has(ITEM_OVER_CURRENT, 2));
}

TEST_F(UItemOverCurrentTest, SaysEachValueThatIsNewAndReadsItAsHexadecimal) {
    Sys().Set(Attribute(2), "10\n");
    Arm(2);
    auto* item = static_cast<UItemOverCurrent*>(List().FindItem(ITEM_OVER_CURRENT, 2, false));
    ClearLogs();
    EXPECT_EQ(item->GetOverCurrent(), 16);
    EXPECT_EQ(item->GetOverCurrent(), 16);
    Sys().Set(Attribute(2), "0\n");
    EXPECT_EQ(item->GetOverCurrent(), 0);
    EXPECT_THAT(Logs(),
                ElementsAre(Line(128, "port2 step0 overcurrent:16"), Line(128, "port2 step0 overcurrent:0")));
}

TEST_F(UItemOverCurrentTest, GoesOnWhenTheHubDoesNotTell) {
    Arm(2);
    RunToSwitchOn();
    for (unsigned round = 1; round <= 5; ++round) {
        PassAfter(200);
        PassAfter(500);
        EXPECT_EQ(outside.commands.size(), round + 1);
    }
    EXPECT_THAT(Logs(128), ElementsAre(Line(128, "port2 step2 overcurrent:-1")));
    EXPECT_TRUE(Has(ITEM_OVER_CURRENT, 2));
}

TEST_F(UItemOverCurrentTest, GoesOnWhenTheCommandFails) {
    Sys().Set(Attribute(2), "1\n");
    outside.command_result = -1;
    outside.command_error = EACCES;
    Arm(2);
    Pass();
    ClearLogs();
    PassAfter(30000);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "error in port2 powr on Permission denied")));
    PassAfter(200);
    ClearLogs();
    PassAfter(500);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "error in port2 powr on Permission denied")));
    EXPECT_EQ(outside.commands.size(), 2u);
}

TEST_F(UItemOverCurrentTest, WritesWhatItReads) {
    Sys().Set(Attribute(32), "1\n");
    outside.while_command = [this] {
        // "echo 1 > /sys<attribute>": the hub then clears what the item reads
        const std::string prefix = "echo 1 > /sys";
        ASSERT_EQ(outside.commands.back().substr(0, prefix.size()), prefix);
        Sys().Set(outside.commands.back().substr(prefix.size()), "0\n");
    };
    Arm(32);
    RunToSwitchOn();
    PassAfter(200);
    EXPECT_FALSE(Has(ITEM_OVER_CURRENT, 32));
}

TEST_F(UItemOverCurrentTest, ClearsItsReportWheneverItIsDeleted) {
    Sys().Set(Attribute(2), "1\n");
    const long long waits[] = {0, 30000, 200, 500, 200};  // ms before each pass
    for (std::size_t passes = 0; passes <= std::size(waits); ++passes) {
        SCOPED_TRACE(passes);
        Arm(2);
        for (std::size_t pass = 0; pass < passes; ++pass)
            PassAfter(waits[pass]);
        ClearPackets();
        outside.commands.clear();
        List().DeleteOverCurrentItem("/devices/stick");
        EXPECT_THAT(Packets(), ElementsAre(kOverCurrentCleared));
        for (int pass = 0; pass < 3; ++pass)
            PassAfter(30000);
        EXPECT_THAT(outside.commands, IsEmpty());
        EXPECT_THAT(Packets(), ElementsAre(kOverCurrentCleared));
    }
}

TEST_F(UItemOverCurrentTest, ClearsItsReportWithTheList) {
    Arm(1);
    Arm(2);
    ClearPackets();
    UListItem::Release();
    EXPECT_THAT(Packets(), ElementsAre(kOverCurrentCleared, kOverCurrentCleared));
}

TEST_F(UItemOverCurrentTest, IsCancelledByExactlyItsDevicePath) {
    Arm(1, "/devices/a");
    Arm(2, "/devices/ab");
    Arm(3, "/devices/a");
    Arm(4, "");
    List().DeleteOverCurrentItem("/devices");
    List().DeleteOverCurrentItem("/devices/abc");
    List().DeleteOverCurrentItem("/devices/A");
    for (std::uint8_t port = 1; port <= 4; ++port)
        EXPECT_TRUE(Has(ITEM_OVER_CURRENT, port));
    ClearLogs();
    List().DeleteOverCurrentItem("/devices/a");
    EXPECT_THAT(Logs(),
                ElementsAre(Line(128, "devpath:/devices/a"), Line(128, "port:1 terminated list_size:3"),
                            Line(128, "over_current[0]"), Line(128, "port:3 terminated list_size:2"),
                            Line(128, "over_current[0]")));
    EXPECT_TRUE(Has(ITEM_OVER_CURRENT, 2));
    List().DeleteOverCurrentItem("");
    EXPECT_FALSE(Has(ITEM_OVER_CURRENT, 4));
    ClearLogs();
    List().DeleteOverCurrentItem(nullptr);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "devpath:(null)")));
    EXPECT_TRUE(Has(ITEM_OVER_CURRENT, 2));
}

TEST_F(UItemOverCurrentTest, KeepsItsOwnCopyOfAPathOfAnyLength) {
    std::string path = "/devices/" + std::string(4000, 'x');
    Arm(1, path.c_str());
    const std::string same = path;
    path.assign(path.size(), 'y');
    List().DeleteOverCurrentItem((same + "x").c_str());
    EXPECT_TRUE(Has(ITEM_OVER_CURRENT, 1));
    List().DeleteOverCurrentItem(same.c_str());
    EXPECT_FALSE(Has(ITEM_OVER_CURRENT, 1));
}

TEST_F(UItemOverCurrentTest, LeavesOtherItemsAloneWhenItIsCancelled) {
    for (const E_ITEM kind : kAllKinds)
        Add(kind, 1);
    List().DeleteOverCurrentItem("/devices/x");
    for (const E_ITEM kind : kAllKinds)
        EXPECT_EQ(Has(kind, 1), kind != ITEM_OVER_CURRENT) << kind;
}

}  // namespace
}  // namespace test
