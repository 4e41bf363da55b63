#include "storage/UBlkid.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <string>

#include "gmock/gmock.h"
#include "support/Format.h"
#include "support/RecordingPlatform.h"
#include "unit/storage/Processes.h"

namespace {

using dcm::usb::UBlkID;
using test::Format;
using test::Line;
using test::Logs;
using test::processes;
using test::Wrote;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

const std::string kStick = R"(/dev/sda1: LABEL="STICK" UUID="1234-ABCD" TYPE="vfat")";
constexpr std::size_t kChunk = 1023;  // as much as is read at once

class UBlkidTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::ResetPlatform();
        processes = {};
        m_descriptors = test::OpenDescriptors();
    }
    void TearDown() override {
        processes = {};
        EXPECT_EQ(test::OpenDescriptors(), m_descriptors);
    }

    void Parse(std::string text) { m_id.ParseBuf(text.data()); }

    // The tool prints the text, byte by byte as it is.
    void Run(const std::string& text, const char* device = "/dev/sda1") {
        RunScript("printf '%s' '" + text + "'", device);
    }
    void RunScript(const std::string& script, const char* device = "/dev/sda1") {
        processes.script = script;
        m_id.UpdateVolid(device);
    }

    // All of the text waits in the pipe before the first read.
    void ReadAtOnce(const std::string& text) {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        ASSERT_EQ(write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
        close(ends[1]);
        m_id.ReadPipe(ends[0]);
        EXPECT_EQ(ends[0], -1);
    }

    // "label|uuid|type"; "-" for null.
    std::string Values() const {
        const auto text = [](const char* value) { return std::string(value ? value : "-"); };
        return text(m_id.GetLabel()) + "|" + text(m_id.GetUuid()) + "|" + text(m_id.GetType());
    }

    UBlkID m_id;
    int m_descriptors = 0;
};

TEST_F(UBlkidTest, KnowsNothingAtFirst) {
    EXPECT_EQ(Values(), "-|-|-");
}

TEST_F(UBlkidTest, TakesLabelUuidAndTypeOfAVolume) {
    Parse(kStick);
    EXPECT_EQ(Values(), "STICK|1234-ABCD|vfat");
    EXPECT_THAT(Logs(), ElementsAre(Line(64, R"(pos:[LABEL="STICK" UUID="1234-ABCD" TYPE="vfat"])"),
                                    Line(128, R"(start:[STICK" UUID="1234-ABCD" TYPE="vfat"] len:5)"),
                                    Line(64, R"(pos:[UUID="1234-ABCD" TYPE="vfat"])"),
                                    Line(128, R"(start:[1234-ABCD" TYPE="vfat"] len:9)"),
                                    Line(64, R"(pos:[ TYPE="vfat"])"), Line(128, R"(start:[vfat"] len:4)")));
}

TEST_F(UBlkidTest, TheSecondTypeOfAVolumeIsNotItsType) {
    Parse(R"(/dev/sda1: SEC_TYPE="msdos" TYPE="vfat")");
    EXPECT_EQ(Values(), "-|-|vfat");
}

TEST_F(UBlkidTest, TheTypeOfAPartitionTableIsNoFilesystem) {
    Parse(R"(/dev/sda: PTTYPE="dos")");
    EXPECT_EQ(Values(), "-|-|-");
    EXPECT_THAT(Logs(),
                ElementsAre(Line(64, "pos:[(null)]"), Line(64, "pos:[(null)]"), Line(64, "pos:[(null)]")));
}

TEST_F(UBlkidTest, AnEmptyValueIsAnEmptyText) {
    Parse(R"(/dev/sda1: LABEL="" UUID="" TYPE="")");
    EXPECT_EQ(Values(), "||");
    EXPECT_STREQ(m_id.GetLabel(), "");
}

TEST_F(UBlkidTest, AKeyIsFoundInsideALongerOne) {
    Parse(R"(/dev/sda: PTUUID="ab116a06" PTTYPE="dos")");
    EXPECT_EQ(Values(), "-|ab116a06|-");
    Parse(R"(/dev/sda1: PARTLABEL="data" LABEL="STICK" PARTUUID="01" UUID="2" TYPE="ext4")");
    EXPECT_EQ(Values(), "data|01|ext4");
}

TEST_F(UBlkidTest, AValueWithoutAClosingQuoteEndsWithTheChunk) {
    Parse(R"(/dev/sda1: UUID="1234)");
    EXPECT_EQ(Values(), "-|1234|-");
    Parse(R"(/dev/sda1: LABEL=")");
    EXPECT_EQ(Values(), "|1234|-");
}

TEST_F(UBlkidTest, WhatIsNotPrintedAgainStays) {
    Parse(kStick);
    Parse(R"(/dev/sda1: LABEL="OTHER")");
    EXPECT_EQ(Values(), "OTHER|1234-ABCD|vfat");
    Parse("");
    EXPECT_EQ(Values(), "OTHER|1234-ABCD|vfat");
}

TEST_F(UBlkidTest, RefusesANullChunk) {
    m_id.ParseBuf(nullptr);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "inbuf is null")));
}

TEST_F(UBlkidTest, KeepsForeignBytesOfALabelAsTheyAre) {
    const std::string label = "\x01%n\xff\xfe\n\xc3";
    Parse("LABEL=\"" + label + "\"");
    EXPECT_EQ(m_id.GetLabel(), label);
}

TEST_F(UBlkidTest, RunsTheToolOnTheDeviceFile) {
    RunScript(R"(printf 'LABEL="%s %s %s %s"' "$#" "$0" "$1" "$2")", "/dev/sda 1;$x");
    EXPECT_STREQ(m_id.GetLabel(), "2 /usr/bin/blkid2 -d /dev/sda 1;$x");
    EXPECT_EQ(processes.pipe_flags, O_CLOEXEC);
    EXPECT_EQ(processes.waits, 1);
    EXPECT_THAT(Logs(), Wrote(32, "devpath:/dev/sda 1;$x"));
}

TEST_F(UBlkidTest, TakesWhatTheToolPrints) {
    Run(kStick + "\n");
    EXPECT_EQ(Values(), "STICK|1234-ABCD|vfat");
    EXPECT_THAT(Logs(192), IsEmpty());
}

TEST_F(UBlkidTest, AToolThatPrintsNothingLeavesEverythingUnknown) {
    RunScript("exit 2");
    EXPECT_EQ(Values(), "-|-|-");
    EXPECT_EQ(processes.waits, 1);
}

TEST_F(UBlkidTest, AMissingToolLeavesEverythingUnknown) {
    processes.tool_missing = true;
    RunScript("");
    EXPECT_EQ(Values(), "-|-|-");
    EXPECT_EQ(processes.waits, 1);
}

TEST_F(UBlkidTest, HalfAValueIsTaken) {
    Run(R"(/dev/sda1: LABEL="STI)");
    EXPECT_EQ(Values(), "STI|-|-");
}

TEST_F(UBlkidTest, OneMebibyteOfOutputIsReadToItsEnd) {
    RunScript(R"(head -c 1048576 /dev/zero | tr '\0' x; printf ' LABEL="END" UUID="1" TYPE="vfat"')");
    EXPECT_EQ(processes.waits, 1);
    EXPECT_GE(processes.selects, 1025);
    EXPECT_EQ(Values(), "END|1|vfat");
}

TEST_F(UBlkidTest, ALabelOfTwoKibibytesLastsToTheEndOfItsChunk) {
    ReadAtOnce("/dev/sda1: LABEL=\"" + std::string(2048, 'x') + "\" UUID=\"1\" TYPE=\"vfat\"");
    EXPECT_EQ(m_id.GetLabel(), std::string(kChunk - std::strlen("/dev/sda1: LABEL=\""), 'x'));
    EXPECT_STREQ(m_id.GetType(), "vfat");
}

TEST_F(UBlkidTest, WaitsForAToolThatHangsUpEarly) {
    std::string folder = (std::filesystem::temp_directory_path() / "blkid.XXXXXX").string();
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    const std::string done = folder + "/done";
    RunScript("printf 'LABEL=\"A\"'; exec >&-; i=0; while [ $i -lt 2000 ]; do i=$((i+1)); done; : > " + done);
    EXPECT_TRUE(std::filesystem::exists(done));
    std::filesystem::remove_all(folder);
    EXPECT_EQ(Values(), "A|-|-");
}

TEST_F(UBlkidTest, AToolThatDiesInTheMiddleLosesOnlyWhatItDidNotPrint) {
    RunScript(R"(printf '/dev/sda1: LABEL="A" UUI'; kill -9 $$)");
    EXPECT_EQ(Values(), "A|-|-");
    EXPECT_EQ(processes.waits, 1);
}

TEST_F(UBlkidTest, ASecondRunDoesNotClearWhatTheFirstFound) {
    Run(kStick);
    Run(R"(/dev/sda1: UUID="9")");
    EXPECT_EQ(Values(), "STICK|9|vfat");
    RunScript("exit 2");
    EXPECT_EQ(Values(), "STICK|9|vfat");
}

TEST_F(UBlkidTest, NoDeviceMeansNoRun) {
    m_id.UpdateVolid(nullptr);
    m_id.UpdateVolid("");
    EXPECT_EQ(processes.pipe_flags, -1);
    EXPECT_THAT(Logs(), ElementsAre(Line(32, "devpath:(null)"), Line(192, "no arguments for blkid"),
                                    Line(32, "devpath:"), Line(192, "no arguments for blkid")));
}

TEST_F(UBlkidTest, AChunkIsOneThousandAndTwentyThreeBytes) {
    // The value ends with the first chunk; what follows belongs to nothing.
    const std::string key = "LABEL=\"";
    ReadAtOnce(std::string(kChunk - key.size() - 3, ' ') + key + "abcdef\"");
    EXPECT_EQ(Values(), "abc|-|-");
}

TEST_F(UBlkidTest, AKeyThatIsCutByTheChunkIsNotFound) {
    ReadAtOnce(std::string(kChunk - 3, ' ') + R"(LABEL="a" UUID="b" TYPE="c")");
    EXPECT_EQ(Values(), "-|b|c");
}

TEST_F(UBlkidTest, AKeyAtTheEndOfAChunkHasAnEmptyValue) {
    const std::string key = "UUID=\"";
    ReadAtOnce(std::string(kChunk - key.size(), ' ') + key + "abc\"");
    EXPECT_EQ(Values(), "-||-");
}

TEST_F(UBlkidTest, AValueOfALaterChunkReplacesTheEarlier) {
    std::string first = R"(LABEL="a" TYPE="x")";
    first.resize(kChunk, ' ');
    ReadAtOnce(first + R"(LABEL="b")");
    EXPECT_EQ(m_id.GetLabel(), std::string("b"));
}

TEST_F(UBlkidTest, AChunkEndsAtItsFirstZeroByte) {
    ReadAtOnce(std::string("UUID=\"1\"\0LABEL=\"a\"", 18));
    EXPECT_EQ(Values(), "-|1|-");
}

TEST_F(UBlkidTest, AnInterruptedWaitIsTakenUpAgain) {
    processes.select_interruptions = 2;
    ReadAtOnce(kStick);
    EXPECT_EQ(Values(), "STICK|1234-ABCD|vfat");
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "Not exec select"), Line(192, "Not exec select")));
}

TEST_F(UBlkidTest, AWaitThatCannotSucceedIsGivenUp) {
    processes.select_error = EBADF;
    ReadAtOnce(kStick);
    EXPECT_EQ(Values(), "-|-|-");
    EXPECT_EQ(processes.selects, 1);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "Not exec select")));
}

TEST_F(UBlkidTest, ADescriptorThatNoSetCanHoldIsClosed) {
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit enough = before;
    enough.rlim_cur = FD_SETSIZE + 16;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &enough), 0);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    int high = fcntl(ends[0], F_DUPFD_CLOEXEC, FD_SETSIZE);
    ASSERT_GE(high, FD_SETSIZE);
    close(ends[0]);
    close(ends[1]);

    m_id.ReadPipe(high);
    EXPECT_EQ(high, -1);
    EXPECT_EQ(processes.selects, 0);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "Not exec select")));
    EXPECT_EQ(test::OpenDescriptors(), m_descriptors);
    setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(UBlkidTest, DescriptorsBelowOneAreNotRead) {
    int none = -1;
    m_id.ReadPipe(none);
    int zero = 0;
    m_id.ReadPipe(zero);
    EXPECT_EQ(none, -1);
    EXPECT_EQ(zero, 0);
    EXPECT_EQ(processes.selects, 0);
}

TEST_F(UBlkidTest, AFailedPipeIsLoggedAndChangesNothing) {
    Run(kStick);
    test::ClearLogs();
    processes.pipe_error = EMFILE;
    Run(R"(LABEL="other")");
    EXPECT_EQ(Values(), "STICK|1234-ABCD|vfat");
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, Format("pipe failed %s", std::strerror(EMFILE)))));
}

TEST_F(UBlkidTest, AFailedForkIsLoggedAndLeavesNoDescriptor) {
    Run(kStick);
    test::ClearLogs();
    processes.fork_error = EAGAIN;
    Run(R"(LABEL="other")");
    EXPECT_EQ(Values(), "STICK|1234-ABCD|vfat");
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, Format("fork failed %s", std::strerror(EAGAIN)))));
}

TEST_F(UBlkidTest, AnInterruptedWaitForTheToolIsTakenUpAgain) {
    processes.waitpid_interruptions = 3;
    Run(kStick);
    EXPECT_EQ(processes.waits, 1);
    EXPECT_EQ(Values(), "STICK|1234-ABCD|vfat");
    EXPECT_THAT(Logs(192), IsEmpty());
}

TEST_F(UBlkidTest, AWaitForTheToolThatFailsIsLogged) {
    processes.waitpid_error = ECHILD;
    Run(kStick);
    EXPECT_EQ(Values(), "STICK|1234-ABCD|vfat");
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, Format("waitpid failed %s", std::strerror(ECHILD)))));
}

// What the child does, played in this process: its log lines are seen here.
class UBlkidChildTest : public UBlkidTest {
protected:
    int Play() {
        processes.play_child = true;
        try {
            m_id.UpdateVolid("/dev/sda1");
        } catch (const test::Exited& exited) {
            return exited.status;
        }
        return -1;
    }
};

TEST_F(UBlkidChildTest, StartsTheToolAndEndsWithOneWhenItCannot) {
    EXPECT_EQ(Play(), 1);
    EXPECT_EQ(processes.executed, "/usr/bin/blkid2 [/usr/bin/blkid2] [-d] [/dev/sda1]");
    EXPECT_THAT(Logs(), ElementsAre(Line(32, "devpath:/dev/sda1"), Line(192, "result of blkid:-1")));
}

TEST_F(UBlkidChildTest, SaysWhenItsOutputCannotBeLedAway) {
    processes.dup2_error = EBADF;
    EXPECT_EQ(Play(), 1);
    EXPECT_THAT(Logs(192),
                ElementsAre(Line(192, "dup2 STDOUT_FILENO error"), Line(192, "result of blkid:-1")));
}

TEST_F(UBlkidChildTest, SaysWhenThereIsNoWayForItsOutput) {
    processes.pipe_without_write_end = true;
    EXPECT_EQ(Play(), 1);
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "write pipe is failed"), Line(192, "result of blkid:-1")));
}

TEST_F(UBlkidTest, RandomOutputNeverGivesAValueThatWasNotThere) {
    std::mt19937 random(4711);
    const std::string words[] = {"LABEL=\"", "UUID=\"", " TYPE=\"", "\"", "x", " ", "PT", "\n", "%n", "\xff"};
    for (int round = 0; round < 2000; ++round) {
        std::string text;
        for (unsigned count = random() % 40; count > 0; --count)
            text += words[random() % std::size(words)];
        UBlkID id;
        const std::unique_ptr<char[]> exact(
            new char[text.size() + 1]);  // a read behind it is a crash under asan
        std::memcpy(exact.get(), text.c_str(), text.size() + 1);
        id.ParseBuf(exact.get());
        const char* const values[] = {id.GetLabel(), id.GetUuid(), id.GetType()};
        for (int index = 0; index < 3; ++index) {
            const auto at = text.find(UBlkID::kStringBlkid[index]);
            ASSERT_EQ(values[index] == nullptr, at == std::string::npos) << text;
            if (!values[index]) continue;
            const std::string rest = text.substr(at + std::strlen(UBlkID::kStringBlkid[index]));
            ASSERT_EQ(values[index], rest.substr(0, rest.find('"'))) << text;
        }
    }
}

}  // namespace
