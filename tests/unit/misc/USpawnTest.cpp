#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "Wraps.h"
#include "gmock/gmock.h"
#include "misc/UMisc.h"
#include "support/RecordingPlatform.h"

namespace {

using dcm::usb::USpawn;
using test::libc;
using test::Line;
using test::Logs;
using ::testing::ElementsAre;

class USpawnTest : public ::testing::Test {
protected:
    std::string root;

    USpawnTest() {
        libc = {};
        test::ResetPlatform();
        std::string folder = (std::filesystem::temp_directory_path() / "uspawn.XXXXXX").string();
        root = mkdtemp(folder.data());
    }
    ~USpawnTest() override {
        libc = {};
        std::filesystem::remove_all(root);
    }

    std::string Output(const std::string& name) const {
        std::ifstream in(root + "/" + name);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
};

TEST_F(USpawnTest, RunsACommandWithTheShellAndWaitsForIt) {
    EXPECT_EQ(USpawn::RunCmd(("echo a $((1 + 1)) > " + root + "/out").c_str()), 0);
    EXPECT_EQ(Output("out"), "a 2\n");
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "child exited with status 0")));
}

TEST_F(USpawnTest, ACommandThatFailsHasRunAllTheSame) {
    EXPECT_EQ(USpawn::RunCmd("exit 1"), 0);
    EXPECT_EQ(USpawn::RunCmd("kill -9 $$"), 0);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "child exited with status 256"),
                                    Line(128, "child exited with status 9")));
}

TEST_F(USpawnTest, GivesTheCommandNothingOfItsOwnEnvironment) {
    setenv("USPAWN_TEST", "seen", 1);
    USpawn::RunCmd(("echo \"[$USPAWN_TEST]\" > " + root + "/out").c_str());
    unsetenv("USPAWN_TEST");
    EXPECT_EQ(Output("out"), "[]\n");
}

TEST_F(USpawnTest, SaysWhyNoShellCouldBeStarted) {
    libc.spawn_error = ENOENT;
    errno = 0;
    EXPECT_EQ(USpawn::RunCmd("true"), -1);
    EXPECT_EQ(errno, ENOENT) << "callers log it";
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "failed to posix_spawn:No such file or directory")));
}

TEST_F(USpawnTest, GoesOnWaitingWhenASignalInterruptsIt) {
    libc.waitpid_interruptions = 3;
    EXPECT_EQ(USpawn::RunCmd("exit 2"), 0);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "child exited with status 512")));
}

TEST_F(USpawnTest, FailsWhenTheChildCannotBeWaitedFor) {
    libc.waitpid_fails = true;
    EXPECT_EQ(USpawn::RunCmd("true"), -1);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "failed to waitpid")));
}

TEST_F(USpawnTest, RefusesToRunNothing) {
    EXPECT_EQ(USpawn::RunCmd(nullptr), -1);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "cmd is null")));
}

TEST_F(USpawnTest, LeavesNoChildBehind) {
    USpawn::RunCmd("true");
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

}  // namespace
