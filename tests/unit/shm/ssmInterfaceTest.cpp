#include "shm/ssmInterface.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <stdexcept>
#include <string>

#include "FakeSystem.h"
#include "shm/MemoryData.h"

namespace {

using ::test::Bytes;
using ::test::FileBytes;
using ::test::SegmentBytes;
using ::test::SegmentPath;
using ::test::SemaphoreOfAnother;
using ::test::SystemTest;
using ::test::TheSystem;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr const char* kCertPath = "/data/sharedmemory/shm_usb_cert";
constexpr const char* kPersistPath = "/data/sharedmemory/shm_usb_cert_persist";

constexpr std::size_t kBufferBytes = 4096;

// Objects of records are kept for the life of the process: who needs one that was never used takes it here.
ssmID::e_SsmID UnusedRecord() {
    static unsigned s_next = 145;
    while (shm::get_table()[s_next].size < 4 || shm::get_table()[s_next].size > kBufferBytes)
        ++s_next;
    return static_cast<ssmID::e_SsmID>(s_next++);
}

std::string NameOf(ssmID::e_SsmID id) {
    return shm::get_table()[id].name;
}

using ssmInterfaceTest = SystemTest;

TEST_F(ssmInterfaceTest, CannotReadARecordThatNobodyHasWrittenYet) {
    char buffer[16] = {'x'};
    EXPECT_LT(ssmInterface::read_ssm(ssmID::shm_usb_cert, buffer), 0);
    EXPECT_EQ(buffer[0], 'x');
    const char data[16] = {1, 2, 3};
    EXPECT_GE(ssmInterface::write_ssm(ssmID::shm_usb_cert, data, sizeof data), 0);
    EXPECT_GE(ssmInterface::read_ssm(ssmID::shm_usb_cert, buffer), 0);
    EXPECT_EQ(std::memcmp(buffer, data, sizeof data), 0);
    EXPECT_EQ(Complaints(), "");
}

TEST_F(ssmInterfaceTest, RefusesIdsThatNameNoRecordInEveryOperation) {
    const std::string unvalid = "[SHM-IF][get_table_index]unvalid index\n";
    for (const unsigned number : {306U, 307U, UINT_MAX}) {
        const auto id = static_cast<ssmID::e_SsmID>(number);
        char buffer[16] = {};
        EXPECT_EQ(ssmInterface::write_ssm(id, buffer, 4), -1);
        EXPECT_EQ(Complaints(), unvalid + "[SHM-IF][write_ssm]get_ssm_table_index error\n");
        EXPECT_EQ(ssmInterface::read_ssm(id, buffer), -1);
        EXPECT_EQ(Complaints(), unvalid + "[SHM-IF][read_ssm]get_ssm_table_index error\n");
        EXPECT_EQ(ssmInterface::set_notify(id, 4096), -1);
        EXPECT_EQ(Complaints(), unvalid + "[SHM-IF][set_notify]get_ssm_table_index error\n");
        EXPECT_EQ(ssmInterface::sync_data(id), -1);
        EXPECT_EQ(Complaints(), unvalid + "[SHM-IF][sync_data]get_ssm_table_index error\n");
    }
    EXPECT_THAT(TheSystem().opens, IsEmpty());
}

TEST_F(ssmInterfaceTest, TellsNobodyOfAWriteWhenNobodyAsked) {
    EXPECT_EQ(ssmInterface::write_ssm(ssmID::shm_usb_cert_persist, "abcd", 4), 4);
    EXPECT_THAT(TheSystem().css, IsEmpty());
}

TEST_F(ssmInterfaceTest, TellsEverybodyWhoAskedOfEachWriteOfThatRecord) {
    EXPECT_EQ(ssmInterface::set_notify(ssmID::shm_usb_cert_persist, 4096), 0);
    EXPECT_EQ(ssmInterface::set_notify(ssmID::shm_usb_cert_persist, 4096), 0);
    EXPECT_EQ(ssmInterface::set_notify(ssmID::shm_usb_cert_persist, 0x800000), 0);
    EXPECT_EQ(ssmInterface::write_ssm(ssmID::shm_usb_cert_persist, "abcd", 4), 4);
    ASSERT_THAT(TheSystem().css, SizeIs(1));
    EXPECT_EQ(Bytes(TheSystem().css[0].request.begin() + 8, TheSystem().css[0].request.begin() + 16),
              (Bytes{0, 0x10, 0x80, 0, 0, 0, 0, 0}));
    EXPECT_STREQ(reinterpret_cast<const char*>(TheSystem().css[0].buffer.data()), kPersistPath);
    const char cert[16] = {};
    EXPECT_EQ(ssmInterface::write_ssm(ssmID::shm_usb_cert, cert, 16), 16);
    EXPECT_THAT(TheSystem().css, SizeIs(1));
}

TEST_F(ssmInterfaceTest, TellsNobodyOfAWriteThatFailed) {
    EXPECT_EQ(ssmInterface::set_notify(ssmID::shm_usb_cert, 4096), 0);
    TheSystem().failures = {{"shm_open shm_usb_cert", EACCES}};
    const char cert[16] = {};
    EXPECT_EQ(ssmInterface::write_ssm(ssmID::shm_usb_cert, cert, 16), -1);
    EXPECT_EQ(ssmInterface::write_ssm(ssmID::shm_usb_cert, nullptr, 16), -1);
    EXPECT_THAT(TheSystem().css, IsEmpty());
}

TEST_F(ssmInterfaceTest, WritesTheRecordEvenWhenTheDriverIsAway) {
    EXPECT_EQ(ssmInterface::set_notify(ssmID::shm_usb_cert_persist, 4096), 0);
    TheSystem().failures = {{"ioctl", ENOTCONN}};
    EXPECT_EQ(ssmInterface::write_ssm(ssmID::shm_usb_cert_persist, "abcd", 4), 4);
    EXPECT_EQ(SegmentBytes("shm_usb_cert_persist"), (Bytes{4, 0, 0, 0, 'a', 'b', 'c', 'd'}));
}

TEST_F(ssmInterfaceTest, TellsThatTheNotifyTableIsNotToBeHad) {
    TheSystem().failures = {{"shm_open NotifyTable", EACCES}};
    EXPECT_EQ(ssmInterface::set_notify(ssmID::shm_usb_cert_persist, 4096), -1);
    EXPECT_EQ(Complaints(),
              "[SHM-IF][Map]shm_open NotifyTable: Permission denied\n"
              "[SHM-IF][set_notify]notify table error\n");
    EXPECT_EQ(ssmInterface::write_ssm(ssmID::shm_usb_cert_persist, "abcd", 4), -2);
    EXPECT_EQ(Complaints(),
              "[SHM-IF][Map]shm_open NotifyTable: Permission denied\n"
              "[SHM-IF][write_ssm]notify table error\n");
    EXPECT_EQ(SegmentBytes("shm_usb_cert_persist"), (Bytes{4, 0, 0, 0, 'a', 'b', 'c', 'd'}));
}

TEST_F(ssmInterfaceTest, SavesOnlyWithSync) {
    EXPECT_EQ(ssmInterface::write_ssm(ssmID::shm_usb_cert_persist, "\1\0\0\0", 4), 4);
    EXPECT_EQ(FileBytes(kPersistPath), std::nullopt);
    EXPECT_EQ(ssmInterface::sync_data(ssmID::shm_usb_cert_persist), 0);
    EXPECT_EQ(FileBytes(kPersistPath), (Bytes{4, 0, 0, 0, 1, 0, 0, 0}));
    std::filesystem::remove(SegmentPath("shm_usb_cert_persist"));
    char buffer[4] = {};
    EXPECT_EQ(ssmInterface::read_ssm(ssmID::shm_usb_cert_persist, buffer), 4);
    EXPECT_EQ(buffer[0], 1);
    EXPECT_EQ(Complaints(), "");
}

TEST_F(ssmInterfaceTest, TellsThatARecordCouldNotBeSaved) {
    EXPECT_EQ(ssmInterface::write_ssm(ssmID::shm_usb_cert_persist, "abcd", 4), 4);
    TheSystem().failures = {{"mkdir", EROFS}};
    EXPECT_EQ(ssmInterface::sync_data(ssmID::shm_usb_cert_persist), -1);
    EXPECT_THAT(Complaints(), ::testing::EndsWith("[SHM-IF][sync_data]write_emmc fail\n"));
}

TEST_F(ssmInterfaceTest, NeverMakesAFileForAMemoryRecord) {
    const char cert[16] = {};
    EXPECT_EQ(ssmInterface::write_ssm(ssmID::shm_usb_cert, cert, 16), 16);
    EXPECT_EQ(ssmInterface::sync_data(ssmID::shm_usb_cert), -1);
    EXPECT_EQ(FileBytes(kCertPath), std::nullopt);
}

TEST_F(ssmInterfaceTest, KeepsDifferentRecordsApart) {
    EXPECT_EQ(ssmInterface::write_ssm(ssmID::shm_usb_cert_persist, "abcd", 4), 4);
    EXPECT_EQ(ssmInterface::write_ssm(ssmID::shm_usb_cert, "0123456789abcdef", 16), 16);
    char buffer[16] = {};
    EXPECT_EQ(ssmInterface::read_ssm(ssmID::shm_usb_cert_persist, buffer), 4);
    EXPECT_EQ(std::string(buffer, 4), "abcd");
}

TEST_F(ssmInterfaceTest, FailsWithoutMemoryForARecordAndWorksOnceThereIs) {
    const ssmID::e_SsmID id = UnusedRecord();
    TheSystem().failures = {{"new", ENOMEM, 1}};
    EXPECT_EQ(ssmInterface::write_ssm(id, "abcd", 4), -1);
    EXPECT_EQ(Complaints(), "[SHM-IF][get_record]alloc fail " + NameOf(id) + "\n");
    EXPECT_EQ(ssmInterface::write_ssm(id, "abcd", 4), 4);
}

TEST_F(ssmInterfaceTest, TurnsExceptionsIntoFailures) {
    char buffer[16] = {};
    const auto failures = [&buffer] {
        return std::vector<int>{ssmInterface::write_ssm(ssmID::shm_usb_cert_persist, "abcd", 4),
                                ssmInterface::read_ssm(ssmID::shm_usb_cert_persist, buffer),
                                ssmInterface::set_notify(ssmID::shm_usb_cert_persist, 4096),
                                ssmInterface::sync_data(ssmID::shm_usb_cert_persist)};
    };
    TheSystem().on_shm_open = [] { throw std::runtime_error("out of something"); };
    EXPECT_EQ(failures(), std::vector<int>(4, -1));
    EXPECT_EQ(Complaints(),
              "[SHM-IF][write_ssm]out of something\n[SHM-IF][read_ssm]out of something\n"
              "[SHM-IF][set_notify]out of something\n[SHM-IF][sync_data]out of something\n");
    TheSystem().on_shm_open = [] { throw 1; };
    EXPECT_EQ(failures(), std::vector<int>(4, -1));
    EXPECT_EQ(Complaints(),
              "[SHM-IF][write_ssm]unknown exception\n[SHM-IF][read_ssm]unknown exception\n"
              "[SHM-IF][set_notify]unknown exception\n[SHM-IF][sync_data]unknown exception\n");
    TheSystem().on_shm_open = nullptr;
    EXPECT_EQ(failures(), (std::vector<int>{4, 4, 0, 0}));  // each gave its semaphore back
}

TEST_F(ssmInterfaceTest, DoesNotMakeOthersWaitForARecordWhoseHolderIsDead) {
    const ssmID::e_SsmID stuck = UnusedRecord();
    std::promise<void> waits;
    std::promise<void> dies;
    std::shared_future<void> end = dies.get_future().share();
    TheSystem().on_wait = [&waits, end, name = NameOf(stuck)](const char* waited) {
        if (name != waited) return;
        waits.set_value();
        end.wait();
    };
    TheSystem().failures = {{"sem_timedwait " + NameOf(stuck), ETIMEDOUT}};
    std::future<int> late = std::async(std::launch::async, [stuck] {
        char buffer[kBufferBytes];
        return ssmInterface::read_ssm(stuck, buffer);
    });
    waits.get_future().wait();
    EXPECT_EQ(ssmInterface::write_ssm(UnusedRecord(), "abcd", 4), 4);
    EXPECT_EQ(ssmInterface::set_notify(stuck, 4096), 0);
    dies.set_value();
    EXPECT_EQ(late.get(), -1);
    TheSystem().on_wait = nullptr;
}

TEST_F(ssmInterfaceTest, ServesManyThreadsAtOnce) {
    const ssmID::e_SsmID id = UnusedRecord();
    std::atomic<int> wrong{0};
    const auto work = [id, &wrong] {
        for (int round = 0; round < 50; ++round) {
            char buffer[kBufferBytes];
            if (ssmInterface::write_ssm(id, "abcd", 4) != 4) ++wrong;
            if (ssmInterface::read_ssm(id, buffer) != 4) ++wrong;
            if (ssmInterface::set_notify(id, 4096) != 0) ++wrong;
        }
    };
    std::future<void> first = std::async(std::launch::async, work);
    std::future<void> second = std::async(std::launch::async, work);
    first.wait();
    second.wait();
    EXPECT_EQ(wrong, 0);
    EXPECT_FALSE(TheSystem().css.empty());
}

// The notify table's object is made once in a process, so this story is told in a process of its own.
struct World : SystemTest {
    void TestBody() override {}
    using SystemTest::Complaints;
};

bool NotifyTableFailsWithoutMemoryAndWorksOnceThereIs() {
    World world;
    char buffer[4];
    ssmInterface::read_ssm(ssmID::shm_usb_cert_persist, buffer);  // has the record's own object made
    TheSystem().failures = {{"new", ENOMEM, 2}};
    return ssmInterface::set_notify(ssmID::shm_usb_cert_persist, 4096) == -1 &&
           ssmInterface::write_ssm(ssmID::shm_usb_cert_persist, "abcd", 4) == -2 &&
           ssmInterface::set_notify(ssmID::shm_usb_cert_persist, 4096) == 0 &&
           ssmInterface::write_ssm(ssmID::shm_usb_cert_persist, "abcd", 4) == 4 &&
           world.Complaints() ==
               "[SHM-IF][get_notify_table]alloc fail NotifyTable\n"
               "[SHM-IF][set_notify]notify table error\n"
               "[SHM-IF][get_notify_table]alloc fail NotifyTable\n"
               "[SHM-IF][write_ssm]notify table error\n";
}

TEST(ssmInterfaceDeathTest, FailsWithoutMemoryForTheNotifyTableAndWorksOnceThereIs) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(std::_Exit(NotifyTableFailsWithoutMemoryAndWorksOnceThereIs() ? 0 : 1),
                ::testing::ExitedWithCode(0), "");
}

}  // namespace
