#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "Wraps.h"
#include "gmock/gmock.h"
#include "misc/UMisc.h"
#include "support/RecordingPlatform.h"

namespace {

using dcm::usb::UFile;
using test::Line;
using test::Logs;
using ::testing::ElementsAre;
namespace fs = std::filesystem;

class UFileTest : public ::testing::Test {
protected:
    std::string root;
    mode_t old_mask;

    UFileTest() : old_mask(umask(0)) {
        test::libc = {};
        test::ResetPlatform();
        std::string folder = (fs::temp_directory_path() / "ufile.XXXXXX").string();
        root = mkdtemp(folder.data());
        // A file keeps "innermost first, the whole way up" inside the test's own folder.
        std::ofstream(root + "/keeps-the-folder");
    }
    ~UFileTest() override {
        umask(old_mask);
        fs::remove_all(root);
    }

    static mode_t ModeOf(const std::string& path) {
        struct stat status = {};
        return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
    }
};

TEST_F(UFileTest, CreatesThePathUpToTheLastSlash) {
    EXPECT_EQ(UFile::CreatePath((root + "/a/b/c").c_str()), 0);
    EXPECT_TRUE(fs::is_directory(root + "/a/b"));
    EXPECT_FALSE(fs::exists(root + "/a/b/c"));
    EXPECT_EQ(ModeOf(root + "/a"), 0777U);
    EXPECT_EQ(ModeOf(root + "/a/b"), 0777U);
}

TEST_F(UFileTest, CreatesAPathThatEndsInASlashWhole) {
    EXPECT_EQ(UFile::CreatePath((root + "/USB/PORT1/PART1/").c_str()), 0);
    EXPECT_TRUE(fs::is_directory(root + "/USB/PORT1/PART1"));
}

TEST_F(UFileTest, CreatesWhatIsMissingBelowWhatIsThere) {
    fs::create_directory(root + "/a");
    EXPECT_EQ(UFile::CreatePath((root + "/a/b/").c_str()), 0);
    EXPECT_TRUE(fs::is_directory(root + "/a/b"));
    EXPECT_EQ(UFile::CreatePath((root + "/a/b/").c_str()), 0);
}

TEST_F(UFileTest, AnswersZeroAlsoWhenNothingCanBeCreated) {
    EXPECT_EQ(UFile::CreatePath((root + "/keeps-the-folder/a/").c_str()), 0);
    EXPECT_EQ(UFile::CreatePath(""), 0);
    EXPECT_EQ(UFile::CreatePath("/"), 0);
    EXPECT_EQ(UFile::CreatePath(nullptr), 0);
}

TEST_F(UFileTest, DeletesEmptyDirectoriesInnermostFirst) {
    fs::create_directories(root + "/a/b");
    EXPECT_EQ(UFile::DeletePath((root + "/a/b/c").c_str()), 0);
    EXPECT_FALSE(fs::exists(root + "/a"));
    EXPECT_TRUE(fs::exists(root));
}

TEST_F(UFileTest, DoesNotDeleteThePieceBehindTheLastSlash) {
    fs::create_directories(root + "/a/b/c");
    EXPECT_EQ(UFile::DeletePath((root + "/a/b/c").c_str()), 0);
    EXPECT_TRUE(fs::exists(root + "/a/b/c"));
    EXPECT_EQ(UFile::DeletePath((root + "/a/b/c/").c_str()), 0);
    EXPECT_FALSE(fs::exists(root + "/a"));
}

TEST_F(UFileTest, KeepsDirectoriesThatAreNotEmpty) {
    fs::create_directories(root + "/a/b");
    std::ofstream(root + "/a/file");
    EXPECT_EQ(UFile::DeletePath((root + "/a/b/").c_str()), 0);
    EXPECT_FALSE(fs::exists(root + "/a/b"));
    EXPECT_TRUE(fs::exists(root + "/a/file"));
}

TEST_F(UFileTest, AnswersZeroAlsoWhenThereIsNothingToDelete) {
    EXPECT_EQ(UFile::DeletePath((root + "/none/below/").c_str()), 0);
    EXPECT_EQ(UFile::DeletePath("no-slash"), 0);
    EXPECT_EQ(UFile::DeletePath(""), 0);
    EXPECT_EQ(UFile::DeletePath(nullptr), 0);
}

TEST_F(UFileTest, OpensAPathToEverybody) {
    fs::create_directory(root + "/a");
    fs::permissions(root + "/a", fs::perms::owner_all);
    EXPECT_EQ(UFile::ChangeFullMode((root + "/a").c_str()), 0);
    EXPECT_EQ(ModeOf(root + "/a"), 0777U);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "succeed:" + root + "/a")));
}

TEST_F(UFileTest, SaysWhyAPathCannotBeOpened) {
    EXPECT_EQ(UFile::ChangeFullMode((root + "/none").c_str()), -1);
    EXPECT_EQ(UFile::ChangeFullMode(nullptr), -1);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "chmod err:" + root + "/none, No such file or directory"),
                                    Line(192, "path is null")));
}

TEST(UFileText, OfAChmodErrorNamesThePathAndTheReason) {
    test::ResetPlatform();
    EXPECT_EQ(UFile::ChangeFullMode("/nowhere/at/all"), -1);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "chmod err:/nowhere/at/all, No such file or directory")));
    EXPECT_EQ(Logs()[0].function, "ChangeFullMode");
}

}  // namespace
