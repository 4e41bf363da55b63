#include "node/UNodeBlock.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "platform/trace.h"
#include "unit/block/BlockBench.h"

namespace {

using namespace dcm::usb;
using namespace test;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Eq;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

const char* const kSkipped = "Zero SW and not Debug Mode, so skip Jar2Target";

class UNodeBlockTest : public BlockBench {
protected:
    // A stick whose kernel counts its partitions, with one vfat volume.
    UNodeBlock* PlugInStick(const std::string& port = kPort1, const std::string& name = "sda") {
        Volume(name + "1", "STICK", "1234-ABCD", "vfat");
        PlugInDevice(port);
        AddDisk(port, "1", name);
        return AddPartition(port, 1, name);
    }
    void PullStick(const std::string& port = kPort1, const std::string& name = "sda") {
        Remove(PartitionPath(port, 1, name));
        Remove(DiskPath(port, name));
        Unplug(port, 1);
    }
    void RefuseMount(const std::string& name, int error) { Kernel().refused["/dev/" + name] = error; }
};

// ---- Sticks

TEST_F(UNodeBlockTest, AStickWithOnePartitionIsInsertedMountedAndEjected) {
    UNodeBlock* const partition = PlugInStick();
    EXPECT_THAT(Told(), ElementsAre("(2, 0, 1) port 1",
                                    "(3, 0, 1) port 1 /tmp/USB/PORT1/PART1/ STICK 1234-ABCD vfat"));
    EXPECT_EQ(partition->GetMountResult(), 0);
    EXPECT_STREQ(partition->GetMountPath(), "/tmp/USB/PORT1/PART1/");
    EXPECT_TRUE(Kernel().IsMounted("/dev/sda1"));

    PullStick();
    EXPECT_THAT(Told(), ElementsAre("(5, 0, 1) port 1 /tmp/USB/PORT1/PART1/ STICK 1234-ABCD vfat"));
    EXPECT_THAT(Kernel().mounts, IsEmpty());
    EXPECT_THAT(Kernel().directories, ElementsAre("/tmp"));
}

TEST_F(UNodeBlockTest, SaysStepByStepWhatItDoesWithAStick) {
    PlugInStick();
    EXPECT_THAT(
        NodeLogs(),
        ElementsAre(
            Line(128, "total partition count is 1"), Line(128, "cmd:2 sub_cmd:0 dev_type:5 port:1 parti:1"),
            Line(128, "mnt_path:(null) label:(null) uuid:(null) fstype:(null) class:8 speed:2"),
            Line(128, "partition num 1"),
            Line(128, "is_notice is true because of last partition and not mounted"),
            Line(128, "vol ret (STICK,1234-ABCD,vfat)"), Line(128, "create path /tmp/USB/PORT1/PART1/"),
            Line(128, "cmd:3 sub_cmd:0 dev_type:5 port:1 parti:1"),
            Line(128,
                 "mnt_path:/tmp/USB/PORT1/PART1/ label:STICK uuid:1234-ABCD fstype:vfat class:8 "
                 "speed:2"),
            Line(128, kSkipped)));
    ClearLogs();
    PullStick();
    EXPECT_THAT(NodeLogs(),
                ElementsAre(Line(128, "cmd:5 sub_cmd:0 dev_type:5 port:1 parti:1"),
                            Line(128,
                                 "mnt_path:/tmp/USB/PORT1/PART1/ label:STICK uuid:1234-ABCD fstype:vfat "
                                 "class:8 speed:2"),
                            Line(128, kSkipped), Line(128, "umount success"),
                            Line(128, "not send the ejected because not notice media"),
                            Line(128, "not need to unmount")));
}

TEST_F(UNodeBlockTest, TheThreeRecordsOfAStickHaveTheirGoldenBytes) {
    PlugInStick();
    PullStick();
    const Bytes volume =
        Hex("2F746D702F5553422F504F5254312F50415254312F 00*11 "  // "/tmp/USB/PORT1/PART1/"
            "535449434B 00*27 "                                  // "STICK"
            "313233342D41424344 00*23 "                          // "1234-ABCD"
            "76666174 00*12 "                                    // "vfat"
            "08 02 00");                                         // class, speed
    std::vector<Packet> packets;
    for (const Packet& packet : Packets())
        if (packet.dest == kDestStorageSet) packets.push_back(packet);
    EXPECT_THAT(packets,
                ElementsAre(Packet{0x00002A4802A04000,
                                   Hex("03000000 02000000 00000000 05000000 01000000 01 00*112 08 02 00")},
                            Packet{0x00002A4802A04000,
                                   Join({Hex("03000000 03000000 00000000 05000000 01000000 01"), volume})},
                            Packet{0x00002A4802A04000,
                                   Join({Hex("03000000 05000000 00000000 05000000 01000000 01"), volume})}));
    EXPECT_THAT(packets, Each(::testing::Field(&Packet::bytes, SizeIs(136))));
}

TEST_F(UNodeBlockTest, WhereTheKernelCountsNoPartitionsTheWholeDiskIsTriedFirst) {
    RefuseMount("sda", EINVAL);
    Volume("sda1", "STICK", "1234-ABCD", "vfat");
    PlugInDevice(kPort1);
    AddDisk(kPort1);
    AddPartition(kPort1, 1);
    EXPECT_THAT(Tried(), ElementsAre("sda USB/PORT1/PART1/ vfat", "sda1 USB/PORT1/PART1/ vfat"));
    EXPECT_THAT(Told(), ElementsAre("(2, 0, 1) port 1",
                                    "(3, 0, 1) port 1 /tmp/USB/PORT1/PART1/ STICK 1234-ABCD vfat"));
    EXPECT_THAT(Logs(), Wrote(192, "failed to get total partition count"));

    ClearLogs();
    PullStick();
    EXPECT_THAT(Told(), ElementsAre("(5, 0, 1) port 1 /tmp/USB/PORT1/PART1/ STICK 1234-ABCD vfat"));
    EXPECT_THAT(NodeLogs(), Wrote(128, "not send the ejected because partition exists"));
    EXPECT_THAT(Kernel().directories, ElementsAre("/tmp"));
}

// Without the kernel's count no partition is known to be the last: its failure is nobody's, and so is its
// end.
TEST_F(UNodeBlockTest, WhereTheKernelCountsNoPartitionsAnUnreadableOneIsNeverEjected) {
    RefuseMount("sda", EINVAL);
    RefuseMount("sda1", EINVAL);
    PlugInDevice(kPort1);
    AddDisk(kPort1);
    AddPartition(kPort1, 1);
    PullStick();
    EXPECT_THAT(Told(), ElementsAre("(2, 0, 1) port 1"));
}

TEST_F(UNodeBlockTest, OfFourPartitionsTheTwoThatCanBeMountedAre) {
    Volume("sda1", "A", "1", "exfat");
    Volume("sda3", "C", "3", "vfat");
    Volume("sda4", "D", "4", "ext4");
    RefuseMount("sda1", ENODEV);
    RefuseMount("sda2", EINVAL);
    PlugInDevice(kPort2);
    AddDisk(kPort2, "4");
    for (int number = 1; number <= 4; ++number)
        AddPartition(kPort2, number);
    EXPECT_THAT(Tried(), ElementsAre("sda1 USB/PORT2/PART1/ texfat", "sda2 USB/PORT2/PART1/ vfat",
                                     "sda3 USB/PORT2/PART1/ vfat", "sda4 USB/PORT2/PART2/ ext4"));
    EXPECT_THAT(Told(), ElementsAre("(2, 0, 4) port 2", "(3, 0, 1) port 2 /tmp/USB/PORT2/PART1/ C 3 vfat",
                                    "(3, 0, 2) port 2 /tmp/USB/PORT2/PART2/ D 4 ext4"));

    for (int number = 4; number >= 1; --number)
        Remove(PartitionPath(kPort2, number));
    Remove(DiskPath(kPort2));
    EXPECT_THAT(Told(), ElementsAre("(5, 0, 2) port 2 /tmp/USB/PORT2/PART2/ D 4 ext4",
                                    "(5, 0, 1) port 2 /tmp/USB/PORT2/PART1/ C 3 vfat"));
    EXPECT_THAT(Kernel().directories, ElementsAre("/tmp"));
}

TEST_F(UNodeBlockTest, AThirdVolumeIsNeverTried) {
    for (const char* name : {"sda1", "sda2", "sda3", "sda4"})
        Volume(name, name, "", "vfat");
    PlugInDevice(kPort1);
    AddDisk(kPort1, "4");
    for (int number = 1; number <= 4; ++number)
        AddPartition(kPort1, number);
    EXPECT_THAT(Tried(), ElementsAre("sda1 USB/PORT1/PART1/ vfat", "sda2 USB/PORT1/PART2/ vfat"));
    EXPECT_THAT(Logs(), Wrote(128, "partition num 4"));
    EXPECT_EQ(static_cast<UNodeBlock*>(Find(PartitionPath(kPort1, 3)))->GetMountResult(), -1);
}

TEST_F(UNodeBlockTest, AFilesystemOnTheWholeDiskIsMountedAsPartOne) {
    Volume("sda", "WHOLE", "77", "vfat");
    PlugInDevice(kPort1);
    for (const char* partno : {"", "0"}) {
        UNodeBlock* const disk = AddDisk(kPort1, partno);
        EXPECT_EQ(disk->GetMountResult(), 0);
        EXPECT_THAT(Told(),
                    ElementsAre("(2, 0, 1) port 1", "(3, 0, 1) port 1 /tmp/USB/PORT1/PART1/ WHOLE 77 vfat"));
        Remove(DiskPath(kPort1));
        EXPECT_THAT(Told(), ElementsAre("(5, 0, 1) port 1 /tmp/USB/PORT1/PART1/ WHOLE 77 vfat"));
        EXPECT_THAT(Kernel().mounts, IsEmpty());
    }
}

TEST_F(UNodeBlockTest, ADiskThatReadsZeroPartitionsDidNotFailToTell) {
    PlugInDevice(kPort1);
    AddDisk(kPort1, "0");
    EXPECT_THAT(Logs(), Wrote(128, "total partition count is 0"));
    EXPECT_THAT(Logs(), Not(Wrote(192, "failed to get total partition count")));
}

TEST_F(UNodeBlockTest, AnUnreadablePartitionCountIsNoCount) {
    PlugInDevice(kPort1);
    for (const char* partno : {"many", "\x01%n\xff", "-3", "ffffffff"}) {
        AddDisk(kPort1, partno);
        Remove(DiskPath(kPort1));
        EXPECT_THAT(Told(), ElementsAre("(2, 0, 1) port 1", HasSubstr("(3, 0, 1)"), HasSubstr("(5, 0, 1)")));
    }
}

TEST_F(UNodeBlockTest, MorePartitionsThanTheRecordCanSayAreCut) {
    PlugInDevice(kPort1);
    AddDisk(kPort1, "104");  // hexadecimal, as all numbers of this kind are read
    EXPECT_THAT(Told(), ElementsAre("(2, 0, 4) port 1"));
}

TEST_F(UNodeBlockTest, TheDataOfTheCdDriveIsMountedAtItsOwnPlace) {
    Volume("sr0", "", "", "");
    Volume("sda1", "MUSIC", "5", "vfat");
    PlugInDevice(kPort1, kCdDrive);
    AddDisk(kPort1, "2");
    AddPartition(kPort1, 1);
    AddPartition(kPort1, 2);
    EXPECT_THAT(Told(), ElementsAre("(2, 0, 2) port 1", "(3, 0, 1) port 1 /tmp/CD/CDROM/PART1/ MUSIC 5 vfat",
                                    "(3, 0, 2) port 1 /tmp/CD/CDROM/PART2/"));
    Remove(PartitionPath(kPort1, 2));
    Remove(PartitionPath(kPort1, 1));
    EXPECT_THAT(Kernel().directories, ElementsAre("/tmp"));
}

TEST_F(UNodeBlockTest, AnotherProductOfTheCdDrivesMakerIsAStick) {
    Volume("sda1", "A", "5", "vfat");
    PlugInDevice(kPort1, {.vid = 0x2166, .pid = 0x000d, .interfaces = {{"08", "06", "50"}}});
    AddDisk(kPort1, "1");
    EXPECT_STREQ(AddPartition(kPort1, 1)->GetMountPath(), "/tmp/USB/PORT1/PART1/");
}

TEST_F(UNodeBlockTest, TenFastReplugsLeaveNothingBehind) {
    Volume("sda1", "STICK", "1234-ABCD", "vfat");
    for (int round = 0; round < 10; ++round) {
        PlugInDevice(kPort1);
        AddDisk(kPort1, "1");
        AddPartition(kPort1, 1);
        EXPECT_THAT(Told(), ElementsAre(HasSubstr("(2, 0, 1)"), HasSubstr("(3, 0, 1)")));
        PullStick();
        EXPECT_THAT(Told(), ElementsAre(HasSubstr("(5, 0, 1)")));
    }
    EXPECT_THAT(Kernel().mounts, IsEmpty());
    EXPECT_THAT(Kernel().directories, ElementsAre("/tmp"));
    EXPECT_EQ(List().GetSize(), 0U);
}

// ---- Other ports and other devices

TEST_F(UNodeBlockTest, TwoSticksBehindAHubShareTheirPortsDirectory) {
    const std::string port12 = kPort2 + "/1-1.2.1";
    Volume("sda1", "A", "1", "vfat");
    Volume("sdb1", "B", "2", "vfat");
    PlugInDevice(port12);
    PlugInDevice(kPort32);
    AddDisk(port12, "1", "sda");
    AddPartition(port12, 1, "sda");
    AddDisk(kPort32, "1", "sdb");
    AddPartition(kPort32, 1, "sdb");
    EXPECT_THAT(Told(), ElementsAre("(2, 0, 1) port 2", "(3, 0, 1) port 2 /tmp/USB/PORT2/PART1/ A 1 vfat",
                                    "(2, 0, 1) port 2", "(3, 0, 1) port 2 /tmp/USB/PORT2/PART1/ B 2 vfat"));
    Remove(PartitionPath(port12, 1, "sda"));
    EXPECT_FALSE(Kernel().IsMounted("/dev/sdb1"));  // the upper one went
    EXPECT_TRUE(Kernel().IsMounted("/dev/sda1"));
}

TEST_F(UNodeBlockTest, OnlyTheUnitsDigitOfAPortCounts) {
    const std::string port12 = kHub + "/1-1.12";  // of a hub with more ports than the vehicle's
    PlugInStick(port12);
    EXPECT_THAT(Told(), ElementsAre("(2, 0, 1) port 2",
                                    "(3, 0, 1) port 2 /tmp/USB/PORT2/PART1/ STICK 1234-ABCD vfat"));
    EXPECT_THAT(NodeLogs(), Wrote(128, "cmd:2 sub_cmd:0 dev_type:5 port:2 parti:1"));
    Drain(kMonitor);
    Change(DiskPath(port12));
    EXPECT_EQ(Drain(kMonitor).at(0).bytes.at(8), 2);
}

TEST_F(UNodeBlockTest, NothingIsMountedOnAPortWithAnMtpDevice) {
    const Device player = {.vid = 0x1234, .pid = 0x5678, .interfaces = {{"ff", "00", "00", "03", "MTP"}}};
    PlugInDevice(kPort32, player);
    PlugInStick(kPort2);
    EXPECT_THAT(Tried(), IsEmpty());
    EXPECT_THAT(Told(), IsEmpty());
    EXPECT_THAT(NodeLogs(), ElementsAre(Line(160, "the port is already MTP, so not mount"),
                                        Line(160, "the port is already MTP, so not mount")));
    Change(PartitionPath(kPort2, 1));
    EXPECT_THAT(NodeLogs(), Wrote(160, "already other supported"));
    EXPECT_THAT(Drain(kMonitor), IsEmpty());
    PullStick(kPort2);
    EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(UNodeBlockTest, NothingIsMountedOnAPortWithAnAppleShuttleDevice) {
    PlugInDevice(kPort1, {.vid = 0x05ac, .pid = 0x1300, .interfaces = {{"08", "06", "50"}}});
    AddDisk(kPort1, "1");
    AddPartition(kPort1, 1);
    EXPECT_THAT(Tried(), IsEmpty());
    EXPECT_THAT(NodeLogs(), ElementsAre(Line(160, "the port is already SHUFFLE_APPLE, so not mount"),
                                        Line(160, "the port is already SHUFFLE_APPLE, so not mount")));
}

TEST_F(UNodeBlockTest, AnMtpDeviceOfTheOtherPortDoesNotMatter) {
    PlugInDevice(kPort1, {.vid = 0x1234, .pid = 0x5678, .interfaces = {{"ff", "00", "00", "03", "MTP"}}});
    PlugInStick(kPort2);
    EXPECT_THAT(Tried(), ElementsAre("sda1 USB/PORT2/PART1/ vfat"));
}

TEST_F(UNodeBlockTest, TheRecordCarriesClassAndSpeedOfTheDevice) {
    Device slow = kStick;
    slow.speed = "12";
    slow.interfaces[0].usb_class = "ff";
    PlugInDevice(kPort1, slow);
    AddDisk(kPort1, "1");
    EXPECT_THAT(NodeLogs(),
                Wrote(128, "mnt_path:(null) label:(null) uuid:(null) fstype:(null) class:ff speed:1"));
}

TEST_F(UNodeBlockTest, ADiskThatHangsOnNoUsbDeviceHasNeitherClassNorSpeed) {
    FakeEvent event = BlockEvent("/devices/virtual/block/loop0", BLOCK_DEVTYPE_DISK);
    Add(event);
    EXPECT_THAT(NodeLogs(),
                AllOf(Wrote(192, "pUsbInterfaceNode is null"), Wrote(192, "pUsbDeviceNode is null"),
                      Wrote(160, "parent search error"), Wrote(128, "create path /tmp/USB/PORT0/PART1/")));
    const Packet packet = Packets().at(0);
    EXPECT_EQ(packet.bytes.at(133), 0);
    EXPECT_EQ(packet.bytes.at(134), 0xff);
}

TEST_F(UNodeBlockTest, APartitionBelowADiskAloneUsesTheUsbLayout) {
    FakeEvent disk = BlockEvent("/devices/virtual/block/loop0", BLOCK_DEVTYPE_DISK);
    FakeEvent partition = BlockEvent("/devices/virtual/block/loop0/loop0p1", BLOCK_DEVTYPE_PARTITION);
    RefuseMount("loop0", EINVAL);
    Add(disk);
    ClearLogs();
    Add(partition);
    EXPECT_THAT(NodeLogs(), Not(Wrote(160, "parent search error")));
    EXPECT_THAT(Kernel().mounts, ElementsAre(std::pair("/tmp/USB/PORT0/PART1", "/dev/loop0p1")));
}

// ---- Failures

TEST_F(UNodeBlockTest, MediaNeverHearsOfAFailedMountButOfTheEnd) {
    struct {
        int error;
        int reason;
    } const rows[] = {{EINVAL, 6}, {ENODEV, 9}, {EIO, 9},  {ENOMEDIUM, 9},
                      {EPERM, 9},  {EACCES, 9}, {ENXIO, 9}};
    Volume("sda1", "A", "1", "vfat");
    PlugInDevice(kPort1);
    for (const auto& [error, reason] : rows) {
        RefuseMount("sda1", error);
        AddDisk(kPort1, "1");
        ClearLogs();
        EXPECT_EQ(AddPartition(kPort1, 1)->GetMountResult(), error);
        EXPECT_THAT(NodeLogs(), Wrote(128, "popup isn't shown in the usbapp"));
        EXPECT_THAT(NodeLogs(), Wrote(64, Format("not sent sub_cmd:%d parti:1", reason)));
        EXPECT_THAT(Told(), ElementsAre("(2, 0, 1) port 1"));
        Kernel().calls.clear();
        ClearLogs();
        Remove(PartitionPath(kPort1, 1));
        EXPECT_THAT(Told(), ElementsAre("(5, 0, 1) port 1 /tmp/USB/PORT1/PART1/ A 1 vfat"));
        EXPECT_THAT(NodeLogs(), Wrote(128, "not need to unmount"));
        EXPECT_THAT(Kernel().calls, IsEmpty());
        EXPECT_THAT(Kernel().directories, ElementsAre("/tmp"));
        Remove(DiskPath(kPort1));
    }
}

TEST_F(UNodeBlockTest, AnUnknownTypeIsTheReasonWhateverTheError) {
    PlugInDevice(kPort1);
    for (const int error : {EINVAL, EBUSY, EIO}) {
        RefuseMount("sda", error);
        ClearLogs();
        EXPECT_EQ(AddDisk(kPort1)->GetMountResult(), error);
        EXPECT_THAT(NodeLogs(), Wrote(128, "vol ret ((null),(null),(null))"));
        EXPECT_THAT(NodeLogs(), Wrote(64, "not sent sub_cmd:2 parti:1"));
        Remove(DiskPath(kPort1));
    }
}

TEST_F(UNodeBlockTest, ABusyVolumeThatWouldBeReportedCountsAsMounted) {
    Volume("sda1", "A", "1", "vfat");
    RefuseMount("sda1", EBUSY);
    PlugInDevice(kPort1);
    AddDisk(kPort1, "1");
    EXPECT_EQ(AddPartition(kPort1, 1)->GetMountResult(), 0);
    EXPECT_THAT(NodeLogs(), Wrote(64, "not sent sub_cmd:10 parti:1"));
    EXPECT_THAT(Kernel().directories, ElementsAre("/tmp"));

    // Nobody was told of it, and somebody else's mount may be there by now: all attempts are made.
    ClearLogs();
    Told();
    Remove(PartitionPath(kPort1, 1));
    EXPECT_THAT(Told(), IsEmpty());
    EXPECT_THAT(NodeLogs(), ElementsAre(Line(128, "not send the ejected because not notice media"),
                                        Line(128, kSkipped), Line(128, "umount success")));
    EXPECT_EQ(Kernel().pauses, std::vector<unsigned>(8, 300000));
}

TEST_F(UNodeBlockTest, ABusyVolumeThatWouldNotBeReportedIsNotMounted) {
    Volume("sda1", "A", "1", "vfat");
    Volume("sda2", "B", "2", "vfat");
    RefuseMount("sda1", EBUSY);
    PlugInDevice(kPort1);
    AddDisk(kPort1, "2");
    EXPECT_EQ(AddPartition(kPort1, 1)->GetMountResult(), EBUSY);
    EXPECT_THAT(NodeLogs(), Wrote(128, "even if mount fail, not notify a block to media"));
    AddPartition(kPort1, 2);
    EXPECT_THAT(Told(), ElementsAre("(2, 0, 2) port 1", "(3, 0, 1) port 1 /tmp/USB/PORT1/PART1/ B 2 vfat"));
}

TEST_F(UNodeBlockTest, OnlyTheLastOfTheUnreadablePartitionsIsTheReason) {
    RefuseMount("sda1", EINVAL);
    RefuseMount("sda2", EINVAL);
    PlugInDevice(kPort1);
    AddDisk(kPort1, "2");
    AddPartition(kPort1, 1);
    EXPECT_THAT(NodeLogs(), Not(Wrote(128, "popup isn't shown in the usbapp")));
    AddPartition(kPort1, 2);
    EXPECT_THAT(NodeLogs(), Wrote(128, "popup isn't shown in the usbapp"));
    Told();
    Remove(PartitionPath(kPort1, 1));
    EXPECT_THAT(Told(), IsEmpty());
    Remove(PartitionPath(kPort1, 2));
    EXPECT_THAT(Told(), ElementsAre("(5, 0, 1) port 1 /tmp/USB/PORT1/PART1/"));
}

TEST_F(UNodeBlockTest, AFailedLastPartitionIsNobodysConcernWhenAnotherIsMounted) {
    Volume("sda1", "A", "1", "vfat");
    RefuseMount("sda2", EINVAL);
    PlugInDevice(kPort1);
    AddDisk(kPort1, "2");
    AddPartition(kPort1, 1);
    AddPartition(kPort1, 2);
    EXPECT_THAT(NodeLogs(), Wrote(128, "even if mount fail, not notify a block to media"));
    Told();
    Remove(PartitionPath(kPort1, 2));
    EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(UNodeBlockTest, AVolumeThatRefusesWritersIsMountedAllTheSame) {
    Kernel().refused_writable["/dev/sda1"] = EROFS;
    EXPECT_EQ(PlugInStick()->GetMountResult(), 0);
    EXPECT_THAT(Told(), Contains("(3, 0, 1) port 1 /tmp/USB/PORT1/PART1/ STICK 1234-ABCD vfat"));
}

TEST_F(UNodeBlockTest, AnEmptyTypeIsNotAnUnknownOne) {
    Volume("sda1", "", "", "");
    PlugInDevice(kPort1);
    AddDisk(kPort1, "1");
    AddPartition(kPort1, 1);
    EXPECT_THAT(Tried(), ElementsAre("sda1 USB/PORT1/PART1/ tfat"));
    EXPECT_THAT(NodeLogs(), Wrote(128, "vol ret (,,)"));
}

TEST_F(UNodeBlockTest, NoTextOfAVolumeLeavesItsField) {
    const std::string evil = "\xff\xfe%n\x01\n" + std::string(2048, '\xc3');
    volumes.emplace_back("/dev/sda1", "UUID=\"" + evil.substr(0, 300) + "\" LABEL=\"" + evil.substr(0, 300) +
                                          "\" TYPE=\"" + std::string(300, 't') + "\"");
    PlugInDevice(kPort1);
    AddDisk(kPort1, "1");
    ClearPackets();
    AddPartition(kPort1, 1);
    const Bytes bytes = Packets().at(0).bytes;
    const std::string cut = evil.substr(0, 31);
    EXPECT_THAT(bytes,
                Eq(Join({Hex("03000000 03000000 00000000 05000000 01000000 01"),
                         test::Field("/tmp/USB/PORT1/PART1/", 32), test::Field(cut, 32), test::Field(cut, 32),
                         test::Field(std::string(15, 't'), 16), Hex("08 02 00")})));
}

TEST_F(UNodeBlockTest, AnEventWithoutANameIsTriedAndFails) {
    PlugInDevice(kPort1);
    RefuseMount("", ENOTBLK);
    FakeEvent event = BlockEvent(DiskPath(kPort1), BLOCK_DEVTYPE_DISK);
    event.devname.clear();
    EXPECT_EQ(static_cast<UNodeBlock*>(Add(event))->GetMountResult(), ENOTBLK);
    EXPECT_THAT(Tried(), ElementsAre(" USB/PORT1/PART1/ vfat"));
}

TEST_F(UNodeBlockTest, APartitionWithoutItsDiskIsNotMounted) {
    PlugInDevice(kPort1);
    AddPartition(kPort1, 1);  // its parent is the interface
    FakeEvent stray = BlockEvent("/devices/virtual/block/sdz/sdz1", BLOCK_DEVTYPE_PARTITION);
    Add(stray);  // it has none
    EXPECT_THAT(Logs(192), AllOf(Contains(Line(192, "parent is null")).Times(2)));
    EXPECT_THAT(Tried(), IsEmpty());
}

TEST_F(UNodeBlockTest, AUsbDeviceIsNoDiskAlthoughItIsADevice) {
    AddDevice(kPort1, kStick);
    FakeEvent partition = BlockEvent(kPort1 + "/block/sda/sda1", BLOCK_DEVTYPE_PARTITION);
    Add(partition);
    EXPECT_THAT(Logs(), Wrote(192, "parent is null"));
    EXPECT_THAT(Tried(), IsEmpty());
}

// Parenthood is the plain beginning of the path.
TEST_F(UNodeBlockTest, TheTenthPartitionHangsOnTheFirstAndIsNotMounted) {
    PlugInStick();
    Told();
    Kernel().calls.clear();
    AddPartition(kPort1, 10);
    EXPECT_THAT(Logs(), Wrote(192, "parent is null"));
    EXPECT_THAT(Tried(), IsEmpty());
}

TEST_F(UNodeBlockTest, EventsOfNoKnownKindAreRefused) {
    PlugInDevice(kPort1);
    FakeEvent event = BlockEvent(DiskPath(kPort1), BLOCK_DEVTYPE_NONE);
    UNode* const node = Add(event);
    EXPECT_THAT(NodeLogs(), Wrote(160, "unknown type:0"));
    ClearLogs();
    node->ActionChange(&event);
    EXPECT_THAT(NodeLogs(), Wrote(160, "unknown type:0"));
    ClearLogs();
    node->ActionAdd(nullptr);
    node->ActionChange(nullptr);
    EXPECT_THAT(NodeLogs(), ElementsAre(Line(192, "event_data is null"), Line(192, "event_data is null")));
    EXPECT_EQ(event.printed_details, 2);
    EXPECT_EQ(event.printed_summary, 0);
    EXPECT_THAT(Tried(), IsEmpty());
}

// ---- Changes

TEST_F(UNodeBlockTest, ACardThatComesLaterIsMountedByTheChange) {
    RefuseMount("sda", ENOMEDIUM);
    PlugInDevice(kPort1);
    AddDisk(kPort1);
    EXPECT_THAT(Told(), ElementsAre("(2, 0, 1) port 1"));
    Kernel().refused.clear();
    Volume("sda", "CARD", "9", "vfat");
    Drain(kMonitor);
    Change(DiskPath(kPort1));
    EXPECT_THAT(Told(), ElementsAre("(3, 0, 1) port 1 /tmp/USB/PORT1/PART1/ CARD 9 vfat"));
    const std::vector<Queued> asked = Drain(kMonitor);
    ASSERT_THAT(asked, SizeIs(1));
    EXPECT_EQ(asked[0].src, 4096U);
    EXPECT_EQ(asked[0].bytes, Hex("00000000 20000000 01 00*139"));

    Kernel().calls.clear();
    Change(DiskPath(kPort1));  // mounted: nothing to do
    EXPECT_THAT(Tried(), IsEmpty());
    EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(UNodeBlockTest, APartitionThatCouldNotBeMountedIsTriedAgainByTheChange) {
    Volume("sda1", "A", "1", "vfat");
    RefuseMount("sda1", EIO);
    PlugInDevice(kPort1);
    AddDisk(kPort1, "1");
    AddPartition(kPort1, 1);
    Kernel().refused.clear();
    ClearLogs();
    Told();
    Change(PartitionPath(kPort1, 1));
    EXPECT_THAT(Told(), ElementsAre("(3, 0, 1) port 1 /tmp/USB/PORT1/PART1/ A 1 vfat"));
    EXPECT_THAT(NodeLogs(), Not(Wrote(128, "partition num 2")));  // only an add counts
}

TEST_F(UNodeBlockTest, TheThirdCardOfAReaderIsNotMounted) {
    RefuseMount("sda", ENOMEDIUM);
    PlugInDevice(kPort1);
    AddDisk(kPort1);
    Volume("sda1", "A", "1", "vfat");
    for (int card = 1; card <= 3; ++card) {
        AddPartition(kPort1, 1);
        Remove(PartitionPath(kPort1, 1));  // the disk stays, and so does its count
    }
    EXPECT_THAT(Tried(), ElementsAre("sda USB/PORT1/PART1/ vfat", "sda1 USB/PORT1/PART1/ vfat",
                                     "sda1 USB/PORT1/PART2/ vfat"));
    EXPECT_THAT(Kernel().directories, ElementsAre("/tmp"));
}

TEST_F(UNodeBlockTest, AnotherCardKeepsWhatTheNewOneDoesNotName) {
    RefuseMount("sda", EIO);
    Volume("sda", "OLD", "1", "vfat");
    PlugInDevice(kPort1);
    AddDisk(kPort1);
    Kernel().refused.clear();
    volumes = {{"/dev/sda", "UUID=\"2\" TYPE=\"vfat\""}};
    Told();
    Change(DiskPath(kPort1));
    EXPECT_THAT(Told(), ElementsAre("(3, 0, 1) port 1 /tmp/USB/PORT1/PART1/ OLD 2 vfat"));
}

// ---- Repeated adds: a device that is plugged in during the scan announces itself twice

TEST_F(UNodeBlockTest, AStickThatIsAddedTwiceIsMountedOnce) {
    PlugInStick();
    Told();
    Kernel().calls.clear();
    AddDisk(kPort1, "1");
    AddPartition(kPort1, 1);
    EXPECT_THAT(Told(), ElementsAre("(2, 0, 1) port 1"));
    EXPECT_THAT(Tried(), IsEmpty());
    PullStick();
    EXPECT_THAT(Told(), ElementsAre("(5, 0, 1) port 1 /tmp/USB/PORT1/PART1/ STICK 1234-ABCD vfat"));
    EXPECT_THAT(Kernel().mounts, IsEmpty());
}

TEST_F(UNodeBlockTest, AfterARepeatedAddNoVolumeLandsOnAnotherOnesDirectory) {
    PlugInStick();
    Volume("sda2", "B", "2", "vfat");
    Volume("sda3", "C", "3", "vfat");
    AddDisk(kPort1, "3");
    AddPartition(kPort1, 1);
    Kernel().calls.clear();
    AddPartition(kPort1, 2);
    AddPartition(kPort1, 3);
    EXPECT_THAT(Tried(), ElementsAre("sda2 USB/PORT1/PART2/ vfat"));
    EXPECT_TRUE(Kernel().IsMountPoint("/tmp/USB/PORT1/PART1"));
    EXPECT_TRUE(Kernel().IsMountPoint("/tmp/USB/PORT1/PART2"));
}

TEST_F(UNodeBlockTest, AMountedWholeDiskThatIsAddedAgainKeepsItsDirectory) {
    Volume("sda", "WHOLE", "7", "vfat");
    Volume("sda1", "A", "1", "vfat");
    PlugInDevice(kPort1);
    AddDisk(kPort1);
    Told();
    Kernel().calls.clear();
    AddDisk(kPort1);
    AddPartition(kPort1, 1);
    EXPECT_THAT(Told(), ElementsAre("(2, 0, 1) port 1 /tmp/USB/PORT1/PART1/ WHOLE 7 vfat",
                                    "(3, 0, 2) port 1 /tmp/USB/PORT1/PART2/ A 1 vfat"));
    EXPECT_THAT(Tried(), ElementsAre("sda1 USB/PORT1/PART2/ vfat"));
}

// ---- The end

TEST_F(UNodeBlockTest, AStickThatSomebodyUsesIsDetachedAndItsDirectoryIsFreeAgain) {
    PlugInStick();
    Kernel().busy.insert("/tmp/USB/PORT1/PART1");
    PullStick();
    EXPECT_EQ(Kernel().pauses, std::vector<unsigned>(8, 300000));
    EXPECT_THAT(Kernel().calls, Contains("umount2 /tmp/USB/PORT1/PART1/ 2"));
    EXPECT_THAT(Kernel().mounts, IsEmpty());
    EXPECT_THAT(Kernel().directories, ElementsAre("/tmp"));
    Kernel().busy.clear();
    EXPECT_EQ(PlugInStick(kPort1, "sdb")->GetMountResult(), 0);
}

TEST_F(UNodeBlockTest, AnUnmountThatCannotBeginIsLoggedWithItsReason) {
    PlugInStick();
    Kernel().chdir_error = EACCES;
    Remove(PartitionPath(kPort1, 1));
    EXPECT_THAT(NodeLogs(), Wrote(192, Format("umount failed %s", std::strerror(EACCES))));
    EXPECT_THAT(NodeLogs(), Not(Wrote(128, "umount success")));
}

TEST_F(UNodeBlockTest, ADiskThatGoesFirstTakesItsPartitionsWithIt) {
    PlugInStick();
    Told();
    Remove(DiskPath(kPort1));
    EXPECT_THAT(Told(), ElementsAre("(5, 0, 1) port 1 /tmp/USB/PORT1/PART1/ STICK 1234-ABCD vfat"));
    EXPECT_THAT(Kernel().mounts, IsEmpty());
    Remove(PartitionPath(kPort1, 1));
    EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(UNodeBlockTest, ANodeThatWasNeverAddedEndsSilently) {
    Insert(SUBSYSTEM_BLOCK, DiskPath(kPort1));
    EXPECT_EQ(static_cast<UNodeBlock*>(Find(DiskPath(kPort1)))->GetMountResult(), -1);
    Remove(DiskPath(kPort1));
    EXPECT_THAT(NodeLogs(), ElementsAre(Line(128, "not send the ejected because not notice media"),
                                        Line(128, "not need to unmount")));
    EXPECT_THAT(Packets(), IsEmpty());
}

// ---- The test interface

TEST_F(UNodeBlockTest, TheTestInterfaceCountsSocketsByThePathAlone) {
    const std::pair<std::string, int> rows[] = {
        {kPort1, 1}, {kPort2, 1}, {kHost + "/usb3/3-1", 2}, {"/devices/x/2-2", 0}};
    for (const auto& [device, port] : rows) {
        const std::string path = DiskPath(device);
        auto* const node = static_cast<UNodeBlock*>(Insert(SUBSYSTEM_BLOCK, path));
        EXPECT_EQ(node->GetPortForTestIface(), port);
        EXPECT_THAT(NodeLogs(), Wrote(128, Format("path:%s so port :%d", path.c_str(), port)));
        Remove(path);
    }
}

TEST_F(UNodeBlockTest, AnotherThreadMayAskForTheMountPathAtAnyTime) {
    PlugInDevice(kPort1);
    ka_log_threshold = 255;  // the record of lines has a lock, which would order the two threads
    std::atomic<bool> done = false;
    std::thread asker([&] {
        char path[64];
        while (!done) {
            List().FindTestMountedBlockNode(1, path, sizeof path);
            const std::string text = path;
            EXPECT_TRUE(text.empty() || text == "/tmp/USB/PORT1/PART1/") << text;
            std::this_thread::yield();  // the list's lock is not fair
        }
    });
    Volume("sda", "A", "1", "vfat");
    for (int round = 0; round < 8; ++round) {
        RefuseMount("sda", ENOMEDIUM);
        AddDisk(kPort1);
        Kernel().refused.clear();
        Change(DiskPath(kPort1));
        AddDisk(kPort1);
        Remove(DiskPath(kPort1));
        ClearLogs();
    }
    done = true;
    asker.join();
}

// ---- What can be missing

struct Probe : UNodeBlock {
    using UNodeBlock::IsAlreadySupported;
    using UNodeBlock::m_lists;
    using UNodeBlock::m_mount;
    using UNodeBlock::UNodeBlock;
};

class UNodeBlockProbeTest : public UNodeBlockTest {
protected:
    FakeEvent m_event = BlockEvent("/devices/virtual/block/loop0", BLOCK_DEVTYPE_DISK);
};

TEST_F(UNodeBlockProbeTest, WithoutTheListADiskIsMountedInTheUsbLayout) {
    Probe node(SUBSYSTEM_BLOCK, m_event.devpath.c_str(), Notifier());
    node.m_lists = nullptr;
    node.ActionAdd(&m_event);
    node.ActionAdd(&m_event);
    EXPECT_THAT(Logs(192), Contains(Line(192, "lists is null")).Times(6));
    EXPECT_THAT(NodeLogs(), Wrote(160, "parent search error"));
    EXPECT_STREQ(node.GetMountPath(), "/tmp/USB/PORT0/PART1/");
}

TEST_F(UNodeBlockProbeTest, WithoutTheMounterNothingIsMounted) {
    Probe node(SUBSYSTEM_BLOCK, m_event.devpath.c_str(), Notifier());
    node.m_mount = nullptr;
    node.ActionAdd(&m_event);
    EXPECT_THAT(NodeLogs(), Wrote(192, "mount is null"));
    EXPECT_EQ(node.GetMountResult(), -1);
}

TEST_F(UNodeBlockProbeTest, WithoutANotifierVolumesAreStillMounted) {
    {
        Probe node(SUBSYSTEM_BLOCK, m_event.devpath.c_str(), nullptr);
        node.ActionAdd(&m_event);
        EXPECT_EQ(node.GetMountResult(), 0);
        node.ActionChange(&m_event);
    }
    EXPECT_THAT(Logs(192), Contains(Line(192, "notifier is null")).Times(4));  // in, mounted, change, out
    EXPECT_THAT(Kernel().mounts, IsEmpty());
}

TEST_F(UNodeBlockTest, TheScriptsAreGivenTheVolumesDirectory) {
    UNodeBlock* const node = PlugInStick();
    node->RunNavTrigger(true);
    node->RunNavTrigger(false);
    node->RunAutoHmiUpdate();
    EXPECT_THAT(shell.commands,
                ElementsAre("/hux/app_ro/navi/naviengine/prepare_dil.sh mount /tmp/USB/PORT1/PART1/",
                            "/hux/app_ro/navi/naviengine/prepare_dil.sh unmount /tmp/USB/PORT1/PART1/",
                            "hx.sh /tmp/USB/PORT1/PART1/"));
}

TEST_F(UNodeBlockTest, AScriptThatCannotBeStartedIsLogged) {
    UNodeBlock* const node = PlugInStick();
    shell.result = -1;
    node->RunAutoHmiUpdate();
    EXPECT_THAT(NodeLogs(),
                Wrote(192, Format("error in hx.sh /tmp/USB/PORT1/PART1/ %s", std::strerror(ENOENT))));
}

TEST_F(UNodeBlockTest, WithoutADirectoryThereIsNothingForAScript) {
    auto* const node = static_cast<UNodeBlock*>(Insert(SUBSYSTEM_BLOCK, DiskPath(kPort1)));
    node->RunNavTrigger(true);
    node->RunAutoHmiUpdate();
    EXPECT_THAT(NodeLogs(), ElementsAre(Line(192, "mount path is null"), Line(192, "mount path is null")));
    EXPECT_THAT(shell.commands, IsEmpty());
}

}  // namespace
