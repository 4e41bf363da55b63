#include "shm/PersistenceInterface.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <string>

#include "FakeSystem.h"

namespace shm {
namespace {

using ::test::Bytes;
using ::test::DataPath;
using ::test::FileBytes;
using ::test::ModeOf;
using ::test::PutFile;
using ::test::PutSegment;
using ::test::SegmentBytes;
using ::test::SegmentPath;
using ::test::SemaphoreOfAnother;
using ::test::TheSystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr const char* kPath = "/data/sharedmemory/kept";
constexpr MemoryData kMemory{"plain", "/data/sharedmemory/plain", RECORD_MEMORY, 16};
constexpr MemoryData kKept{"kept", kPath, RECORD_PERSISTENT, 4};

// A reader's buffer with room behind the record that nobody may touch.
struct Buffer {
    char bytes[64];
    Buffer() { std::memset(bytes, '.', sizeof bytes); }
    std::string Front(std::size_t count) const { return {bytes, count}; }
    bool IsUntouchedFrom(std::size_t first) const {
        return std::all_of(bytes + first, bytes + sizeof bytes, [](char byte) { return byte == '.'; });
    }
};

class PersistenceInterfaceTest : public ::test::SystemTest {
protected:
    // The semaphore's holder died.
    void HoldForEver(const char* name) {
        ASSERT_EQ(sem_wait(SemaphoreOfAnother(name)), 0);
        TheSystem().time_is_past = true;
    }

    PersistenceInterface m_memory{kMemory};
    PersistenceInterface m_kept{kKept};
};

TEST_F(PersistenceInterfaceTest, LaysARecordOutAsLengthAndData) {
    EXPECT_EQ(m_memory.Write("0123456789abcdef", 16, WRITE_MEMORY), 16);
    EXPECT_EQ(SegmentBytes("plain"), (Bytes{16,  0,   0,   0,   '0', '1', '2', '3', '4', '5',
                                            '6', '7', '8', '9', 'a', 'b', 'c', 'd', 'e', 'f'}));
    EXPECT_EQ(ModeOf(SegmentPath("plain")), 0777U);
}

TEST_F(PersistenceInterfaceTest, MarksOnlyWhatWasWrittenAsValid) {
    EXPECT_EQ(m_kept.Write("abcd", 4, WRITE_MEMORY), 4);
    EXPECT_EQ(m_kept.Write("xy", 2, WRITE_MEMORY), 2);
    EXPECT_EQ(SegmentBytes("kept"), (Bytes{2, 0, 0, 0, 'x', 'y', 'c', 'd'}));
    Buffer buffer;
    EXPECT_EQ(m_kept.Read(buffer.bytes), 2);
    EXPECT_EQ(buffer.Front(2), "xy");
    EXPECT_TRUE(buffer.IsUntouchedFrom(2));
}

TEST_F(PersistenceInterfaceTest, ReadsWhatAnotherWrote) {
    EXPECT_EQ(m_memory.Write("0123456789abcdef", 16, WRITE_MEMORY), 16);
    PersistenceInterface other(kMemory);
    Buffer buffer;
    EXPECT_EQ(other.Read(buffer.bytes), 16);
    EXPECT_EQ(buffer.Front(16), "0123456789abcdef");
    EXPECT_TRUE(buffer.IsUntouchedFrom(16));
    EXPECT_EQ(Complaints(), "");
}

TEST_F(PersistenceInterfaceTest, CutsWhatDoesNotFitIntoTheRecord) {
    EXPECT_EQ(m_kept.Write("abcdefgh", 8, WRITE_MEMORY), 4);
    EXPECT_EQ(SegmentBytes("kept"), (Bytes{4, 0, 0, 0, 'a', 'b', 'c', 'd'}));
    EXPECT_EQ(Complaints(), "[SHM-IF][is_len_valid]kept size overflow # len :8 # max :4\n");
}

TEST_F(PersistenceInterfaceTest, DoesNotBelieveALengthBeyondTheRecord) {
    PutSegment("kept", Bytes{5, 0, 0, 0, 'a', 'b', 'c', 'd', 'e', 'f'});
    Buffer buffer;
    EXPECT_EQ(m_kept.Read(buffer.bytes), 4);
    EXPECT_EQ(buffer.Front(4), "abcd");
    EXPECT_TRUE(buffer.IsUntouchedFrom(4));
    EXPECT_EQ(Complaints(), "[SHM-IF][is_len_valid]kept size overflow # len :5 # max :4\n");
    PutSegment("kept", Bytes{255, 255, 255, 255, 'a', 'b', 'c', 'd'});
    EXPECT_EQ(m_kept.Read(buffer.bytes), 4);
    EXPECT_TRUE(buffer.IsUntouchedFrom(4));
    EXPECT_EQ(Complaints(), "[SHM-IF][is_len_valid]kept size overflow # len :-1 # max :4\n");
}

TEST_F(PersistenceInterfaceTest, ReadsASegmentThatIsTooSmallWithoutABusError) {
    Buffer buffer;
    PutSegment("plain", {});
    EXPECT_EQ(m_memory.Read(buffer.bytes), 0);
    EXPECT_TRUE(buffer.IsUntouchedFrom(0));
    PutSegment("plain", Bytes{8, 0, 0, 0, 'a'});
    EXPECT_EQ(m_memory.Read(buffer.bytes), 8);
    EXPECT_EQ(buffer.Front(8), std::string("a\0\0\0\0\0\0\0", 8));
    EXPECT_TRUE(buffer.IsUntouchedFrom(8));
}

TEST_F(PersistenceInterfaceTest, RefusesNull) {
    EXPECT_EQ(m_kept.Write(nullptr, 4, WRITE_MEMORY), -1);
    EXPECT_EQ(Complaints(), "[SHM-IF][Write]kept: data is null\n");
    EXPECT_EQ(m_kept.Read(nullptr), -1);
    EXPECT_EQ(Complaints(), "[SHM-IF][Read]kept: buffer is null\n");
    EXPECT_EQ(SegmentBytes("kept"), std::nullopt);
}

TEST_F(PersistenceInterfaceTest, HasNothingToReadBeforeTheFirstWrite) {
    Buffer buffer;
    EXPECT_EQ(m_memory.Read(buffer.bytes), -1);
    EXPECT_EQ(m_kept.Read(buffer.bytes), -1);
    EXPECT_TRUE(buffer.IsUntouchedFrom(0));
    EXPECT_EQ(SegmentBytes("plain"), std::nullopt);
    EXPECT_EQ(SegmentBytes("kept"), std::nullopt);
    EXPECT_EQ(Complaints(), "");
}

TEST_F(PersistenceInterfaceTest, ReadsTheFileWhenThereIsNoSegment) {
    PutFile(kPath, Bytes{4, 0, 0, 0, 'a', 'b', 'c', 'd'});
    Buffer buffer;
    EXPECT_EQ(m_kept.Read(buffer.bytes), 4);
    EXPECT_EQ(buffer.Front(4), "abcd");
    EXPECT_TRUE(buffer.IsUntouchedFrom(4));
    EXPECT_EQ(SegmentBytes("kept"), std::nullopt);
    EXPECT_EQ(TheSystem().opens.back().path, kPath);
    EXPECT_EQ(TheSystem().opens.back().flags, O_RDONLY | O_SYNC | O_CLOEXEC);
}

TEST_F(PersistenceInterfaceTest, PrefersTheSegmentToTheFile) {
    PutFile(kPath, Bytes{4, 0, 0, 0, 'a', 'b', 'c', 'd'});
    EXPECT_EQ(m_kept.Write("news", 4, WRITE_MEMORY), 4);
    Buffer buffer;
    EXPECT_EQ(m_kept.Read(buffer.bytes), 4);
    EXPECT_EQ(buffer.Front(4), "news");
}

TEST_F(PersistenceInterfaceTest, TakesNothingFromAFileThatIsCutShort) {
    const Bytes whole{4, 0, 0, 0, 'a', 'b', 'c', 'd'};
    for (const std::size_t size : {0, 3, 4, 7}) {
        PutFile(kPath, Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
        Buffer buffer;
        EXPECT_EQ(m_kept.Read(buffer.bytes), -1) << size;
        EXPECT_TRUE(buffer.IsUntouchedFrom(0)) << size;
        EXPECT_EQ(Complaints(), "[SHM-IF][read_emmc]/data/sharedmemory/kept is cut short: " +
                                    std::to_string(size) + " bytes\n");
    }
}

TEST_F(PersistenceInterfaceTest, DoesNotBelieveALengthBeyondTheRecordInTheFileEither) {
    PutFile(kPath, Bytes{0, 1, 0, 0, 'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'});
    Buffer buffer;
    EXPECT_EQ(m_kept.Read(buffer.bytes), 4);
    EXPECT_EQ(buffer.Front(4), "abcd");
    EXPECT_TRUE(buffer.IsUntouchedFrom(4));
    EXPECT_EQ(Complaints(), "[SHM-IF][is_len_valid]kept size overflow # len :256 # max :4\n");
}

TEST_F(PersistenceInterfaceTest, ReadsAFileThatHoldsLessThanTheRecordTakes) {
    PutFile(kPath, Bytes{2, 0, 0, 0, 'a', 'b'});
    Buffer buffer;
    EXPECT_EQ(m_kept.Read(buffer.bytes), 2);
    EXPECT_EQ(buffer.Front(2), "ab");
    EXPECT_TRUE(buffer.IsUntouchedFrom(2));
}

TEST_F(PersistenceInterfaceTest, ReadsAFileThatASignalInterruptsOnce) {
    PutFile(kPath, Bytes{4, 0, 0, 0, 'a', 'b', 'c', 'd'});
    TheSystem().failures = {{"read", EINTR, 1}};
    Buffer buffer;
    EXPECT_EQ(m_kept.Read(buffer.bytes), 4);
}

TEST_F(PersistenceInterfaceTest, TellsWhyTheFileCannotBeRead) {
    PutFile(kPath, Bytes{4, 0, 0, 0, 'a', 'b', 'c', 'd'});
    Buffer buffer;
    TheSystem().failures = {{"read", EIO}};
    EXPECT_EQ(m_kept.Read(buffer.bytes), -1);
    EXPECT_EQ(Complaints(), "[SHM-IF][read_emmc]read /data/sharedmemory/kept: Input/output error\n");
    TheSystem().failures = {{"open", EACCES}};
    EXPECT_EQ(m_kept.Read(buffer.bytes), -1);
    EXPECT_EQ(Complaints(), "[SHM-IF][OpenFile]open /data/sharedmemory/kept: Permission denied\n");
    EXPECT_TRUE(buffer.IsUntouchedFrom(0));
}

TEST_F(PersistenceInterfaceTest, DoesNotReadTheFileWhenTheSegmentIsThereButFails) {
    PutFile(kPath, Bytes{4, 0, 0, 0, 'a', 'b', 'c', 'd'});
    TheSystem().failures = {{"shm_open", EACCES}};
    Buffer buffer;
    EXPECT_EQ(m_kept.Read(buffer.bytes), -1);
    EXPECT_TRUE(buffer.IsUntouchedFrom(0));
    TheSystem().failures.clear();
}

TEST_F(PersistenceInterfaceTest, LeavesTheFileToSync) {
    EXPECT_EQ(m_kept.Write("abcd", 4, WRITE_MEMORY), 4);
    EXPECT_EQ(FileBytes(kPath), std::nullopt);
    EXPECT_EQ(m_kept.Sync(), 0);
    EXPECT_EQ(FileBytes(kPath), (Bytes{4, 0, 0, 0, 'a', 'b', 'c', 'd'}));
    EXPECT_EQ(Complaints(), "");
}

TEST_F(PersistenceInterfaceTest, WritesTheFileAsWellWhenAskedTo) {
    EXPECT_EQ(m_kept.Write("abc", 3, WRITE_THROUGH), 3);
    EXPECT_EQ(FileBytes(kPath), (Bytes{3, 0, 0, 0, 'a', 'b', 'c'}));
    TheSystem().failures = {{"write", EIO}};
    EXPECT_EQ(m_kept.Write("abc", 3, WRITE_THROUGH), -1);
    EXPECT_EQ(Complaints(), "[SHM-IF][write_emmc]write /data/sharedmemory/kept: Input/output error\n");
    TheSystem().failures.clear();
    EXPECT_EQ(m_memory.Write("abc", 3, WRITE_THROUGH), 3);
    EXPECT_EQ(FileBytes(kMemory.path), std::nullopt);
}

TEST_F(PersistenceInterfaceTest, OpensTheFileForSynchronousWritesAndNeverEmptiesIt) {
    EXPECT_EQ(m_kept.Write("abcd", 4, WRITE_MEMORY), 4);
    EXPECT_EQ(m_kept.Sync(), 0);
    EXPECT_EQ(TheSystem().opens.back().path, kPath);
    EXPECT_EQ(TheSystem().opens.back().flags, O_WRONLY | O_CREAT | O_SYNC | O_CLOEXEC);
    EXPECT_EQ(TheSystem().opens.back().mode, 0777U);
}

TEST_F(PersistenceInterfaceTest, MakesTheFoldersOfTheFileOutermostFirst) {
    const mode_t mask = umask(0);
    EXPECT_EQ(m_kept.Write("abcd", 4, WRITE_MEMORY), 4);
    EXPECT_THAT(TheSystem().folders, IsEmpty());
    EXPECT_EQ(m_kept.Sync(), 0);
    umask(mask);
    EXPECT_THAT(TheSystem().folders, ElementsAre("/data", "/data/sharedmemory"));
    EXPECT_EQ(ModeOf(DataPath("/data")), 0775U);
    EXPECT_EQ(ModeOf(DataPath("/data/sharedmemory")), 0775U);
}

TEST_F(PersistenceInterfaceTest, OutlivesAPowerCycleInItsFile) {
    EXPECT_EQ(m_kept.Write("long", 4, WRITE_MEMORY), 4);
    EXPECT_EQ(m_kept.Sync(), 0);
    EXPECT_EQ(m_kept.Write("xy", 2, WRITE_MEMORY), 2);
    EXPECT_EQ(m_kept.Sync(), 0);
    std::filesystem::remove(SegmentPath("kept"));
    Buffer buffer;
    EXPECT_EQ(m_kept.Read(buffer.bytes), 2);
    EXPECT_EQ(buffer.Front(2), "xy");
}

TEST_F(PersistenceInterfaceTest, WritesTheFileInAsManyPiecesAsItTakes) {
    EXPECT_EQ(m_kept.Write("abcd", 4, WRITE_MEMORY), 4);
    TheSystem().most_per_write = 3;
    TheSystem().failures = {{"write", EINTR, 1}};
    EXPECT_EQ(m_kept.Sync(), 0);
    EXPECT_EQ(FileBytes(kPath), (Bytes{4, 0, 0, 0, 'a', 'b', 'c', 'd'}));
}

TEST_F(PersistenceInterfaceTest, TellsThatItCouldNotBeSaved) {
    EXPECT_EQ(m_kept.Write("abcd", 4, WRITE_MEMORY), 4);
    TheSystem().failures = {{"write", ENOSPC}};
    EXPECT_EQ(m_kept.Sync(), -1);
    EXPECT_EQ(Complaints(),
              "[SHM-IF][write_emmc]write /data/sharedmemory/kept: No space left on device\n"
              "[SHM-IF][sync_data]write_emmc fail\n");
}

TEST_F(PersistenceInterfaceTest, WorksInMemoryWhenDataIsReadOnly) {
    TheSystem().failures = {{"mkdir", EROFS}};
    Buffer buffer;
    EXPECT_EQ(m_kept.Read(buffer.bytes), -1);
    EXPECT_EQ(Complaints(), "[SHM-IF][MakeFolders]mkdir /data: Read-only file system\n");
    EXPECT_EQ(m_kept.Write("abcd", 4, WRITE_MEMORY), 4);
    EXPECT_EQ(m_kept.Read(buffer.bytes), 4);
    EXPECT_EQ(m_kept.Sync(), -1);
    EXPECT_EQ(Complaints(),
              "[SHM-IF][MakeFolders]mkdir /data: Read-only file system\n"
              "[SHM-IF][sync_data]write_emmc fail\n");
    TheSystem().failures = {{"open", EROFS}};
    EXPECT_EQ(m_kept.Sync(), -1);
    EXPECT_EQ(Complaints(),
              "[SHM-IF][OpenFile]open /data/sharedmemory/kept: Read-only file system\n"
              "[SHM-IF][sync_data]write_emmc fail\n");
}

TEST_F(PersistenceInterfaceTest, HasNothingToSaveBeforeTheFirstWrite) {
    EXPECT_EQ(m_kept.Sync(), -1);
    EXPECT_EQ(FileBytes(kPath), std::nullopt);
}

TEST_F(PersistenceInterfaceTest, KeepsAMemoryRecordOutOfFiles) {
    PutFile(kMemory.path, Bytes{1, 0, 0, 0, 'a'});
    Buffer buffer;
    EXPECT_EQ(m_memory.Read(buffer.bytes), -1);
    EXPECT_TRUE(buffer.IsUntouchedFrom(0));
    EXPECT_EQ(m_memory.Write("b", 1, WRITE_MEMORY), 1);
    EXPECT_EQ(m_memory.Sync(), -1);
    EXPECT_EQ(Complaints(), "[SHM-IF][Sync]plain is kept in memory only\n");
    EXPECT_EQ(FileBytes(kMemory.path), (Bytes{1, 0, 0, 0, 'a'}));
}

TEST_F(PersistenceInterfaceTest, GivesUpEachAccessWhoseHolderIsDead) {
    PutSegment("kept", Bytes{4, 0, 0, 0, 'a', 'b', 'c', 'd'});
    HoldForEver("kept");
    Buffer buffer;
    EXPECT_EQ(m_kept.Read(buffer.bytes), -1);
    EXPECT_EQ(m_kept.Write("news", 4, WRITE_MEMORY), -1);
    EXPECT_EQ(m_kept.Sync(), -1);
    EXPECT_TRUE(buffer.IsUntouchedFrom(0));
    EXPECT_EQ(SegmentBytes("kept"), (Bytes{4, 0, 0, 0, 'a', 'b', 'c', 'd'}));
    EXPECT_EQ(FileBytes(kPath), std::nullopt);
    EXPECT_THAT(TheSystem().deadlines, SizeIs(3));
}

TEST_F(PersistenceInterfaceTest, GivesTheSemaphoreBackOnEveryPath) {
    sem_t* other = SemaphoreOfAnother("kept");
    Buffer buffer;
    m_kept.Read(buffer.bytes);
    m_kept.Write("abcd", 4, WRITE_MEMORY);
    m_kept.Read(buffer.bytes);
    m_kept.Sync();
    for (const char* call : {"shm_open", "fstat", "mmap", "write", "open", "mkdir"}) {
        TheSystem().failures = {{call, EIO}};
        m_kept.Write("abcd", 4, WRITE_THROUGH);
        m_kept.Read(buffer.bytes);
        m_kept.Sync();
        int value = 0;
        ASSERT_EQ(sem_getvalue(other, &value), 0);
        EXPECT_EQ(value, 1) << call;
    }
}

TEST_F(PersistenceInterfaceTest, IsReadWholeWhileAnotherProcessWritesIt) {
    EXPECT_EQ(m_memory.Write(std::string(16, 'a').data(), 16, WRITE_MEMORY), 16);
    const pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
        for (int round = 0; round < 200; ++round)
            m_memory.Write(std::string(round % 2 ? 16 : 8, round % 2 ? 'a' : 'b').data(), round % 2 ? 16 : 8,
                           WRITE_MEMORY);
        _exit(0);
    }
    for (int round = 0; round < 200; ++round) {
        Buffer buffer;
        const int length = m_memory.Read(buffer.bytes);
        const std::string expected(length > 0 ? static_cast<std::size_t>(length) : 0,
                                   length == 16 ? 'a' : 'b');
        ASSERT_TRUE(length == 8 || length == 16) << length;
        ASSERT_EQ(buffer.Front(static_cast<std::size_t>(length)), expected);
    }
    int status = -1;
    ASSERT_EQ(waitpid(writer, &status, 0), writer);
    EXPECT_EQ(status, 0);
}

TEST_F(PersistenceInterfaceTest, FindsTheDataInWhatAFileHolds) {
    const char file[] = {3, 0, 0, 0, 'a', 'b', 'c'};
    unsigned int length = 99;
    EXPECT_EQ(TakeRecord(kKept, file, 7, &length), file + 4);
    EXPECT_EQ(length, 3U);
    EXPECT_EQ(TakeRecord(kKept, file, 6, &length), nullptr);
    EXPECT_EQ(TakeRecord(kKept, file, 0, &length), nullptr);
    const char none[] = {0, 0, 0, 0};
    EXPECT_EQ(TakeRecord(kKept, none, 4, &length), none + 4);
    EXPECT_EQ(length, 0U);
}

}  // namespace
}  // namespace shm
