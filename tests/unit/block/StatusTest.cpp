// What tools see of the mounted volumes.
#include "record/StatusRecord.h"
#include "unit/block/BlockBench.h"

namespace {

using namespace dcm::usb;
using namespace test;
using ::testing::IsEmpty;
using ::testing::SizeIs;

std::vector<MountStatus> Mounts() {
    return Shown<MountStatus>(STATUS_MOUNT);
}

using MountStatusRow = BlockBench;

TEST_F(MountStatusRow, IsThereWhileAPartitionIsMounted) {
    Volume("sda1", "STICK", "1234-ABCD", "vfat");
    PlugInDevice(kPort1);
    AddDisk(kPort1, "1");
    EXPECT_THAT(Mounts(), IsEmpty());
    AddPartition(kPort1, 1);
    ASSERT_THAT(Mounts(), SizeIs(1));
    EXPECT_EQ(Mounts()[0].port, 1);
    EXPECT_EQ(Mounts()[0].partition, 1);
    EXPECT_STREQ(Mounts()[0].mount_path, "/tmp/USB/PORT1/PART1/");
    EXPECT_STREQ(Mounts()[0].fs_type, "vfat");
    EXPECT_STREQ(Mounts()[0].label, "STICK");
    EXPECT_STREQ(Mounts()[0].uuid, "1234-ABCD");
    EXPECT_EQ(Mounts()[0].devpath, PartitionPath(kPort1, 1));
    Remove(PartitionPath(kPort1, 1));
    EXPECT_THAT(Mounts(), IsEmpty());
}

TEST_F(MountStatusRow, IsThereForAFilesystemOnTheWholeDisk) {
    Volume("sda", "DISK", "5678", "exfat");
    PlugInDevice(kPort2);
    AddDisk(kPort2, "0");
    ASSERT_THAT(Mounts(), SizeIs(1));
    EXPECT_EQ(Mounts()[0].port, 2);
    EXPECT_EQ(Mounts()[0].partition, 1);
    EXPECT_STREQ(Mounts()[0].label, "DISK");
    Remove(DiskPath(kPort2));
    EXPECT_THAT(Mounts(), IsEmpty());
}

TEST_F(MountStatusRow, IsNotThereForAVolumeThatCannotBeMountedAndComesWhenItCan) {
    Volume("sda1", "STICK", "1234-ABCD", "vfat");
    Kernel().refused["/dev/sda1"] = EINVAL;
    PlugInDevice(kPort1);
    AddDisk(kPort1, "1");
    AddPartition(kPort1, 1);
    EXPECT_THAT(Mounts(), IsEmpty());
    Kernel().refused.clear();
    Change(PartitionPath(kPort1, 1));
    EXPECT_THAT(Mounts(), SizeIs(1));
}

TEST_F(MountStatusRow, TwoPartitionsAreTwoWithTheirSlots) {
    Volume("sda1", "ONE", "1", "vfat");
    Volume("sda2", "TWO", "2", "vfat");
    PlugInDevice(kPort1);
    AddDisk(kPort1, "2");
    AddPartition(kPort1, 1);
    AddPartition(kPort1, 2);
    ASSERT_THAT(Mounts(), SizeIs(2));
    EXPECT_EQ(Mounts()[0].partition, 1);
    EXPECT_EQ(Mounts()[1].partition, 2);
    Remove(PartitionPath(kPort1, 1));
    ASSERT_THAT(Mounts(), SizeIs(1));
    EXPECT_STREQ(Mounts()[0].label, "TWO");
}

}  // namespace
