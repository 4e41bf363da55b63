// Reports that are held back: a removal, a failed mount.
#include <cstring>

#include "ItemBench.h"
#include "item/UItemCutting.h"
#include "item/UItemMountError.h"

using namespace dcm::usb;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace test {
namespace {

struct UItemCuttingTest : ItemBench {
    // As it comes from the port: with anything in the bytes that nobody reads.
    static UMsgNode Removal() {
        UMsgNode msg;
        std::memset(&msg, 0xA5, sizeof msg);
        msg.id = 37;
        msg.port = 32;
        msg.dev_type = 9;
        msg.vid = 0x18D1;
        msg.pid = 0x4EE1;
        msg.usb_class = 0xFF;
        msg.speed = 480;
        CopyText(msg.serial, "SERIAL");
        CopyText(msg.product, "Phone");
        CopyText(msg.manufacturer, "Maker");
        CopyText(msg.devpath, "/devices/usb1/1-1/1-1.2");
        return msg;
    }
    static Queued Posted(unsigned port) {
        return {
            4096,
            Join({Hex(Format("04 000000 15000000 %02X 000000 09000000 D118 E14E FF 000000 E0010000", port)),
                  Field("SERIAL", 64), Field("Phone", 64), Field("Maker", 64),
                  Field("/devices/usb1/1-1/1-1.2", 128)})};
    }
    void Arm(std::uint8_t port) {
        UMsgNode msg = Removal();
        List().AddCuttingItem(Notifier(), port, &msg);
        std::memset(&msg, 0, sizeof msg);  // the item has its own copy
    }
};

TEST_F(UItemCuttingTest, PostsTheRemovalOfADeviceThatStayedAwayForThreeSeconds) {
    Arm(32);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "port:32 list_size:1")));
    MoveClock(1500);
    ClearLogs();
    Pass();
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "m_last_ts:1001:500000000")));
    ClearLogs();
    PassAfter(2999);
    EXPECT_THAT(Logs(), IsEmpty());
    PassAfter(1);
    EXPECT_THAT(Logs(),
                ElementsAre(Line(128, "diff_ms:3000 m_last_ts:1001:500000000 cur_ts:1004:500000000")));
    EXPECT_THAT(Drain(kUsb), IsEmpty());
    ClearLogs();
    Pass();
    EXPECT_THAT(Logs(),
                ElementsAre(Line(128, "deferred ejection"), Line(128, "port32 terminated list_size:0")));
    const auto posted = Drain(kUsb);
    EXPECT_THAT(posted, ElementsAre(Posted(32)));
    EXPECT_EQ(posted.at(0).bytes.size(), 348u);
    PassAfter(10000);
    EXPECT_THAT(Drain(kUsb), IsEmpty());
}

TEST_F(UItemCuttingTest, PostsThePortItWasMadeFor) {
    Arm(1);
    Pass();
    PassAfter(3000);
    Pass();
    EXPECT_THAT(Drain(kUsb), ElementsAre(Posted(1)));
}

TEST_F(UItemCuttingTest, PostsNothingWhenTheDeviceIsBackAtAnyStep) {
    for (int passes = 0; passes <= 2; ++passes) {
        SCOPED_TRACE(passes);
        Arm(2);
        for (int pass = 0; pass < passes; ++pass)
            PassAfter(3000);
        ClearLogs();
        List().DeleteItem(ITEM_CUTTING, 2);
        EXPECT_THAT(Logs(), ElementsAre(Line(128, "item:4 port:2 terminated list_size:0")));
        for (int pass = 0; pass < 3; ++pass)
            PassAfter(3000);
        EXPECT_THAT(Drain(kUsb), IsEmpty());
    }
}

TEST_F(UItemCuttingTest, CutsTextsThatHaveNoEnd) {
    UMsgNode msg{};
    std::memset(msg.serial, 's', sizeof msg.serial);
    std::memset(msg.product, 'p', sizeof msg.product);
    std::memset(msg.manufacturer, 'm', sizeof msg.manufacturer);
    std::memset(msg.devpath, 'd', sizeof msg.devpath);
    UItemCutting item(Notifier(), 1, msg);
    EXPECT_EQ(item.CheckEjection(), -1);
    EXPECT_THAT(
        Drain(kUsb),
        ElementsAre(Queued{4096, Join({Hex("04 000000 15000000 01 00*19"), Field(std::string(63, 's'), 64),
                                       Field(std::string(63, 'p'), 64), Field(std::string(63, 'm'), 64),
                                       Field(std::string(127, 'd'), 128)})}));
}

TEST_F(UItemCuttingTest, SaysWhenItHasNobodyToTell) {
    UItemCutting item(nullptr, 1, Removal());
    EXPECT_EQ(item.CheckEjection(), -1);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "notifier is null")));
    EXPECT_THAT(Drain(kUsb), IsEmpty());
}

constexpr unsigned long kAllListeners = 0x00002A4802A04000;
constexpr unsigned long kListenersNeverGated = 0x00002A0800204000;

struct UItemMountErrorTest : ItemBench {
    static st_storage_pkt Failure() {
        st_storage_pkt packet{};
        packet.kind = 3;
        packet.cmd = 6;
        packet.sub_cmd = 9;
        packet.dev_type = 5;
        packet.port = 2;
        packet.partition = 1;
        CopyText(packet.mount_path, "/tmp/USB/PORT2/PART1/");
        CopyText(packet.label, "STICK");
        CopyText(packet.uuid, "1234-ABCD");
        CopyText(packet.fs_type, "vfat");
        packet.usb_class = 0x08;
        packet.speed = 3;
        packet.unused = 0x77;
        return packet;
    }
    static Bytes Golden() {
        return Join({Hex("03000000 06000000 09000000 05000000 02000000 01"),
                     Field("/tmp/USB/PORT2/PART1/", 32), Field("STICK", 32), Field("1234-ABCD", 32),
                     Field("vfat", 16), Hex("08 03 77")});
    }
    void Arm(std::uint8_t port) {
        st_storage_pkt packet = Failure();
        List().AddMountErrorItem(Notifier(), port, &packet);
        std::memset(&packet, 0, sizeof packet);  // the item has its own copy
    }
};

TEST_F(UItemMountErrorTest, IsSentWhenItStandsForASecond) {
    Arm(2);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "port:2 list_size:1")));
    ClearLogs();
    Pass();
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "m_last_ts:1000:0")));
    ClearLogs();
    PassAfter(999);
    EXPECT_THAT(Logs(), IsEmpty());
    PassAfter(1);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "diff_ms:1000 m_last_ts:1000:0 cur_ts:1001:0")));
    EXPECT_THAT(Packets(), IsEmpty());
    ClearLogs();
    Pass();
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "cmd:6 sub_cmd:9 dev_type:5 port:2 parti:1"),
                                    Line(128,
                                         "mnt_path:/tmp/USB/PORT2/PART1/ label:STICK uuid:1234-ABCD "
                                         "fstype:vfat class:8 speed:3"),
                                    Line(128, "port2 terminated list_size:0")));
    EXPECT_THAT(Packets(), ElementsAre(Packet{kAllListeners, Golden()}));
    EXPECT_EQ(Golden().size(), 136u);
    PassAfter(10000);
    EXPECT_EQ(Packets().size(), 1u);
}

TEST_F(UItemMountErrorTest, IsNotSentWhenItIsTakenBackAtAnyStep) {
    for (int passes = 0; passes <= 2; ++passes) {
        SCOPED_TRACE(passes);
        Arm(2);
        for (int pass = 0; pass < passes; ++pass)
            PassAfter(1000);
        ClearLogs();
        List().DeleteItem(ITEM_MOUNT_ERROR, 2);
        EXPECT_THAT(Logs(), ElementsAre(Line(128, "item:1 port:2 terminated list_size:0")));
        for (int pass = 0; pass < 3; ++pass)
            PassAfter(1000);
        EXPECT_THAT(Packets(), IsEmpty());
    }
}

TEST_F(UItemMountErrorTest, IsGatedLikeEveryStorageEvent) {
    Arm(2);
    SetAdaption(2, 2);
    Pass();
    PassAfter(1000);
    Pass();
    EXPECT_THAT(Packets(), ElementsAre(Packet{kListenersNeverGated, Golden()}));
}

TEST_F(UItemMountErrorTest, CutsTextsThatHaveNoEnd) {
    st_storage_pkt packet{};
    std::memset(packet.mount_path, 'm', sizeof packet.mount_path);
    std::memset(packet.label, 'l', sizeof packet.label);
    std::memset(packet.uuid, 'u', sizeof packet.uuid);
    std::memset(packet.fs_type, 'f', sizeof packet.fs_type);
    UItemMountError item(Notifier(), 1, packet);
    EXPECT_EQ(item.SendMountError(), -1);
    const std::string m(31, 'm'), l(31, 'l'), u(31, 'u'), f(15, 'f');
    EXPECT_EQ(Logs().at(1), Line(128, Format("mnt_path:%s label:%s uuid:%s fstype:%s class:0 speed:0",
                                             m.c_str(), l.c_str(), u.c_str(), f.c_str())));
    EXPECT_THAT(Packets(),
                ElementsAre(Packet{kAllListeners, Join({Hex("00*21"), Field(m, 32), Field(l, 32),
                                                        Field(u, 32), Field(f, 16), Hex("00*3")})}));
}

TEST_F(UItemMountErrorTest, SaysWhenItHasNobodyToTell) {
    UItemMountError item(nullptr, 1, Failure());
    EXPECT_EQ(item.SendMountError(), -1);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "notifier is null")));
    EXPECT_THAT(Packets(), IsEmpty());
}

}  // namespace
}  // namespace test
