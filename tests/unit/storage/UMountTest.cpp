#include "storage/UMount.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "support/Format.h"
#include "support/RecordingPlatform.h"
#include "unit/storage/FakeKernel.h"

namespace {

using dcm::usb::UMount;
using test::Format;
using test::Kernel;
using test::Line;
using test::Logs;
using test::Wrote;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

const char* const kDirectory = "/tmp/USB/PORT1/PART1/";

class UMountTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::ResetPlatform();
        test::ResetKernel();
        UMount::GetInstance();
        test::ClearLogs();
    }
    void TearDown() override { UMount::Release(); }

    static int Mount(const char* type, unsigned long flags = 0) {
        return UMount::GetInstance()->Mount("/dev/sda1", kDirectory, type, flags);
    }
    static int UnMount() {
        std::string directory = kDirectory;
        return UMount::GetInstance()->UnMount(directory.data());
    }
    static std::string Failure(int error) {
        return Format("error in mount %d %s", error, std::strerror(error));
    }
};

TEST_F(UMountTest, ChoosesDriverAndOptionsByTheVolumesType) {
    const char* const kFat = "umask=000,shortname=winnt,utf8";
    const std::vector<std::pair<const char*, std::string>> rows = {
        {nullptr, std::string("vfat 0 ") + kFat},
        {"ext2", "ext2 0 -"},
        {"ext3", "ext3 0 -"},
        {"ext4", "ext4 0 -"},
        {"ntfs", "tntfs 0 umask=000,utf8"},
        {"hfsplus", "thfsplus 0 -"},
        {"exfat", "texfat 0 umask=000,hidden=ignore,utf8"},
        {"fat", std::string("tfat 0 ") + kFat},
        {"fa", std::string("tfat 0 ") + kFat},
        {"f", std::string("tfat 0 ") + kFat},
        {"", std::string("tfat 0 ") + kFat},
        {"vfat", std::string("vfat 0 ") + kFat},
        {"fat32", std::string("fat32 0 ") + kFat},
        {"ext", std::string("ext 0 ") + kFat},
        {"ext4x", std::string("ext4x 0 ") + kFat},
        {"NTFS", std::string("NTFS 0 ") + kFat},
        {"iso9660", std::string("iso9660 0 ") + kFat},
    };
    for (const auto& [type, expected] : rows) {
        test::ResetKernel();
        EXPECT_EQ(Mount(type), 0);
        EXPECT_THAT(Kernel().calls,
                    ElementsAre(std::string("mount /dev/sda1 ") + kDirectory + " " + expected))
            << (type ? type : "(null)");
    }
}

TEST_F(UMountTest, MakesTheDirectoryForEverybodyAndSaysWhatItMounts) {
    EXPECT_EQ(Mount("vfat"), 0);
    EXPECT_THAT(Kernel().made, ElementsAre("/tmp/USB", "/tmp/USB/PORT1", "/tmp/USB/PORT1/PART1"));
    EXPECT_THAT(Kernel().modes, ElementsAre(std::pair("/tmp/USB/PORT1/PART1", 0777)));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, std::string("succeed:") + kDirectory),
                                    Line(128, "ftype:vfat devpath:/dev/sda1")));
}

TEST_F(UMountTest, SaysNothingAboutATypeThatIsNotKnown) {
    EXPECT_EQ(Mount(nullptr), 0);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, std::string("succeed:") + kDirectory)));
}

TEST_F(UMountTest, PassesTheFlagsToTheFirstAttempt) {
    Kernel().refused_writable["/dev/sda1"] = EROFS;
    EXPECT_EQ(Mount("ext4", 2), 0);
    EXPECT_THAT(Kernel().calls, ElementsAre(std::string("mount /dev/sda1 ") + kDirectory + " ext4 2 -",
                                            std::string("mount /dev/sda1 ") + kDirectory + " ext4 1 -"));
}

TEST_F(UMountTest, AVolumeThatRefusesWritersIsMountedReadOnly) {
    Kernel().refused_writable["/dev/sda1"] = EACCES;
    EXPECT_EQ(Mount("ntfs"), 0);
    EXPECT_THAT(Kernel().calls,
                ElementsAre(std::string("mount /dev/sda1 ") + kDirectory + " tntfs 0 umask=000,utf8",
                            std::string("mount /dev/sda1 ") + kDirectory + " tntfs 1 umask=000,utf8"));
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, Failure(EACCES))));
    EXPECT_THAT(Kernel().directories, Contains("/tmp/USB/PORT1/PART1"));
}

TEST_F(UMountTest, ReturnsTheErrorOfTheLastAttemptAndLeavesNoDirectory) {
    for (const int error : {EBUSY, EINVAL, ENODEV, EIO, ENOMEDIUM, EPERM, ENOTBLK, ENXIO}) {
        test::ResetKernel();
        test::ClearLogs();
        Kernel().refused["/dev/sda1"] = error;
        EXPECT_EQ(Mount("vfat"), error);
        EXPECT_THAT(Logs(192), ElementsAre(Line(192, Failure(error)), Line(192, Failure(error))));
        EXPECT_THAT(Kernel().directories, ElementsAre("/tmp"));
        EXPECT_THAT(Kernel().calls, SizeIs(2));
    }
}

TEST_F(UMountTest, TheSecondErrorCountsWhenTheTwoDiffer) {
    Kernel().refused_writable["/dev/sda1"] = EROFS;
    Kernel().refused["/dev/sda1"] = ENODEV;
    EXPECT_EQ(Mount("vfat"), ENODEV);
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, Failure(EROFS)), Line(192, Failure(ENODEV))));
}

TEST_F(UMountTest, AMissingDeviceOrDirectoryIsAnErrorLikeAnother) {
    UMount& mount = *UMount::GetInstance();
    EXPECT_EQ(mount.Mount(nullptr, kDirectory, "vfat", 0), EFAULT);
    EXPECT_THAT(Logs(), Wrote(128, "ftype:vfat devpath:(null)"));
    EXPECT_EQ(mount.Mount("/dev/sda1", nullptr, "vfat", 0), EFAULT);
    EXPECT_THAT(Logs(), Wrote(192, "path is null"));
    EXPECT_THAT(Kernel().directories, ElementsAre("/tmp"));
}

TEST_F(UMountTest, AFailedMountLeavesTheOtherVolumesDirectoryAlone) {
    EXPECT_EQ(Mount("vfat"), 0);
    Kernel().refused["/dev/sda2"] = ENODEV;
    EXPECT_EQ(UMount::GetInstance()->Mount("/dev/sda2", "/tmp/USB/PORT1/PART2/", "exfat", 0), ENODEV);
    EXPECT_THAT(Kernel().directories,
                ElementsAre("/tmp", "/tmp/USB", "/tmp/USB/PORT1", "/tmp/USB/PORT1/PART1"));
}

TEST_F(UMountTest, UnmountsAtOnceWhenNobodyHoldsTheVolume) {
    Mount("vfat");
    Kernel().calls.clear();
    test::ClearLogs();
    EXPECT_EQ(UnMount(), 0);
    EXPECT_THAT(Kernel().calls, ElementsAre("chdir /", std::string("umount ") + kDirectory));
    EXPECT_THAT(Kernel().pauses, IsEmpty());
    EXPECT_THAT(Kernel().mounts, IsEmpty());
    EXPECT_THAT(Kernel().directories, ElementsAre("/tmp"));
    EXPECT_THAT(Logs(),
                ElementsAre(Line(128, std::string("umount processing ") + kDirectory),
                            Line(128, std::string("um pass p[") + kDirectory + "]"), Line(64, "umount 0")));
}

TEST_F(UMountTest, WaitsForAVolumeThatIsReleasedInTime) {
    Mount("vfat");
    Kernel().busy.insert("/tmp/USB/PORT1/PART1");
    Kernel().busy_attempts = 7;
    EXPECT_EQ(UnMount(), 0);
    EXPECT_THAT(Kernel().pauses, ElementsAre(300000, 300000, 300000, 300000, 300000, 300000, 300000));
    EXPECT_THAT(Logs(), Wrote(128, std::string("um pass p[") + kDirectory + "]"));
    EXPECT_THAT(Logs(), Not(Wrote(128, "UnMountForcibly")));
    EXPECT_THAT(Kernel().directories, ElementsAre("/tmp"));
}

TEST_F(UMountTest, DetachesABusyVolumeAfterTwoPointFourSeconds) {
    Mount("vfat");
    Kernel().busy.insert("/tmp/USB/PORT1/PART1");
    Kernel().calls.clear();
    test::ClearLogs();
    EXPECT_EQ(UnMount(), 0);
    std::vector<std::string> calls(8, std::string("umount ") + kDirectory);
    calls.insert(calls.begin(), "chdir /");
    calls.push_back(std::string("umount2 ") + kDirectory + " 2");
    EXPECT_EQ(Kernel().calls, calls);
    EXPECT_EQ(Kernel().pauses, std::vector<unsigned>(8, 300000));
    EXPECT_THAT(Kernel().mounts, IsEmpty());
    EXPECT_THAT(Kernel().directories, ElementsAre("/tmp"));
    EXPECT_THAT(
        Logs(),
        ElementsAre(Line(128, std::string("umount processing ") + kDirectory), Line(128, "UnMountForcibly"),
                    Line(160, "ghost /tmp/USB/PORT1/PART1/ mount alive ret: 0"), Line(64, "umount 0")));
}

TEST_F(UMountTest, ADirectoryThatIsNotMountedCostsAllAttemptsAndIsRemoved) {
    Kernel().directories.insert({"/tmp/USB", "/tmp/USB/PORT1", "/tmp/USB/PORT1/PART1"});
    EXPECT_EQ(UnMount(), 0);
    EXPECT_THAT(Kernel().pauses, SizeIs(8));
    EXPECT_THAT(Logs(), Wrote(192, "ghost /tmp/USB/PORT1/PART1/ mount alive ret: -1"));
    EXPECT_THAT(Kernel().directories, ElementsAre("/tmp"));
}

TEST_F(UMountTest, UnmountsOnlyTheUppermostOfTwoVolumesOnOneDirectory) {
    Mount("vfat");
    UMount::GetInstance()->Mount("/dev/sdb1", kDirectory, "vfat", 0);
    EXPECT_EQ(UnMount(), 0);
    EXPECT_THAT(Kernel().mounts, ElementsAre(std::pair("/tmp/USB/PORT1/PART1", "/dev/sda1")));
    EXPECT_THAT(Kernel().directories, Contains("/tmp/USB/PORT1/PART1"));
}

TEST_F(UMountTest, RefusesToUnmountFromAWorkingDirectoryThatItCannotLeave) {
    Mount("vfat");
    Kernel().calls.clear();
    test::ClearLogs();
    Kernel().chdir_error = EACCES;
    errno = 0;
    EXPECT_EQ(UnMount(), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_THAT(Kernel().calls, ElementsAre("chdir /"));
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "fail to find umount path")));
}

TEST_F(UMountTest, WithoutAPathThereIsNothingToUnmount) {
    EXPECT_EQ(UMount::GetInstance()->UnMount(nullptr), -1);
    EXPECT_EQ(UMount::GetInstance()->UnMountForcibly(nullptr), -1);
    EXPECT_THAT(Kernel().calls, ElementsAre("chdir /"));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "umount processing (null)"), Line(64, "umount -1"),
                                    Line(128, "UnMountForcibly")));
}

TEST_F(UMountTest, IsMadeAndReleasedWithATrace) {
    UMount::Release();
    test::ClearLogs();
    UMount* const mount = UMount::GetInstance();
    UMount::Release();
    EXPECT_THAT(Logs(), ElementsAre(Line(32, Format("constructor ptr:%p", static_cast<void*>(mount))),
                                    Line(32, Format("destructor ptr:%p", static_cast<void*>(mount)))));
}

}  // namespace
