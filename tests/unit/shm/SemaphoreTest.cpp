#include "shm/Semaphore.h"

#include <sys/stat.h>
#include <time.h>

#include <cerrno>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "FakeSystem.h"

namespace shm {
namespace {

using ::test::ModeOf;
using ::test::SemaphoreOfAnother;
using ::test::SemaphorePath;
using ::test::TheSystem;
using ::testing::SizeIs;

using SemaphoreTest = ::test::SystemTest;

bool IsFree(sem_t* semaphore) {
    int value = 0;
    EXPECT_EQ(sem_getvalue(semaphore, &value), 0);
    return value == 1;
}

TEST_F(SemaphoreTest, IsMadeFreeAndForEverybodyWhateverTheUmask) {
    const mode_t mask = umask(077);
    Semaphore semaphore("a");
    EXPECT_TRUE(semaphore.Wait());
    umask(mask);
    EXPECT_EQ(ModeOf(SemaphorePath("a")), 0777U);
    sem_t* other = SemaphoreOfAnother("a");
    EXPECT_FALSE(IsFree(other));
    semaphore.Post();
    EXPECT_TRUE(IsFree(other));
    EXPECT_EQ(Complaints(), "");
}

TEST_F(SemaphoreTest, IsTheOneThatAnotherProcessMade) {
    sem_t* other = SemaphoreOfAnother("a");
    Semaphore semaphore("a");
    EXPECT_TRUE(semaphore.Wait());
    EXPECT_FALSE(IsFree(other));
    semaphore.Post();
    EXPECT_TRUE(IsFree(other));
}

TEST_F(SemaphoreTest, DoesNotMindThatItsFileIsSomewhereElse) {
    TheSystem().failures = {{"chmod", ENOENT}};
    Semaphore semaphore("a");
    EXPECT_TRUE(semaphore.Wait());
    EXPECT_EQ(Complaints(), "");
}

TEST_F(SemaphoreTest, TellsThatItsFileKeepsItsMode) {
    TheSystem().failures = {{"chmod", EPERM}};
    Semaphore semaphore("a");
    EXPECT_TRUE(semaphore.Wait());
    EXPECT_EQ(Complaints(), "[SHM-IF][OpenToAll]chmod /dev/shm/sem.a: Operation not permitted\n");
}

TEST_F(SemaphoreTest, WaitsForFifteenSecondsOfTheRealTimeClock) {
    timespec before{};
    timespec after{};
    Semaphore semaphore("a");
    clock_gettime(CLOCK_REALTIME, &before);
    EXPECT_TRUE(semaphore.Wait());
    clock_gettime(CLOCK_REALTIME, &after);
    ASSERT_THAT(TheSystem().deadlines, SizeIs(1));
    EXPECT_GE(TheSystem().deadlines[0].tv_sec, before.tv_sec + 15);
    EXPECT_LE(TheSystem().deadlines[0].tv_sec, after.tv_sec + 15);
}

TEST_F(SemaphoreTest, GivesUpWhenTheHolderNeverPosts) {
    ASSERT_EQ(sem_wait(SemaphoreOfAnother("a")), 0);
    TheSystem().time_is_past = true;
    Semaphore semaphore("a");
    EXPECT_FALSE(semaphore.Wait());
    EXPECT_EQ(Complaints(), "[SHM-IF][Wait]sem_timedwait a: Connection timed out\n");
}

TEST_F(SemaphoreTest, KeepsItsDeadlineWhenASignalInterruptsTheWait) {
    TheSystem().failures = {{"sem_timedwait", EINTR, 3}};
    Semaphore semaphore("a");
    EXPECT_TRUE(semaphore.Wait());
    ASSERT_THAT(TheSystem().deadlines, SizeIs(4));
    for (const timespec& deadline : TheSystem().deadlines) {
        EXPECT_EQ(deadline.tv_sec, TheSystem().deadlines[0].tv_sec);
        EXPECT_EQ(deadline.tv_nsec, TheSystem().deadlines[0].tv_nsec);
    }
    EXPECT_EQ(Complaints(), "");
}

TEST_F(SemaphoreTest, IsNotTakenWithoutAClock) {
    TheSystem().failures = {{"clock_gettime", EINVAL}};
    Semaphore semaphore("a");
    EXPECT_FALSE(semaphore.Wait());
    EXPECT_EQ(Complaints(), "[SHM-IF][Wait]failed to get time\n");
    EXPECT_TRUE(IsFree(SemaphoreOfAnother("a")));
}

TEST_F(SemaphoreTest, IsOpenedByTheNextWaitThatCan) {
    TheSystem().failures = {{"sem_open", EMFILE, 1}};
    Semaphore semaphore("a");
    EXPECT_FALSE(semaphore.Wait());
    EXPECT_EQ(Complaints(), "[SHM-IF][Open]sem_open a: Too many open files\n");
    EXPECT_TRUE(semaphore.Wait());
}

TEST_F(SemaphoreTest, IsNotWaitedForWhenItsFileIsCutShort) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{3}, sizeof(sem_t) - 1}) {
        std::ofstream(SemaphorePath("a"), std::ios::binary) << std::string(size, '\1');
        Semaphore semaphore("a");
        EXPECT_FALSE(semaphore.Wait()) << size;
        EXPECT_EQ(Complaints(), "[SHM-IF][Open]sem_open a: Invalid argument\n");
    }
}

TEST_F(SemaphoreTest, IsOpenedAlsoWhenItsFileCannotBeLookedAt) {
    SemaphoreOfAnother("a");
    TheSystem().failures = {{"stat", ENOENT}};
    Semaphore semaphore("a");
    EXPECT_TRUE(semaphore.Wait());
    EXPECT_EQ(Complaints(), "");
}

TEST_F(SemaphoreTest, TellsThatItCouldNotBeGivenBack) {
    Semaphore semaphore("a");
    EXPECT_TRUE(semaphore.Wait());
    TheSystem().failures = {{"sem_post", EOVERFLOW}};
    semaphore.Post();
    EXPECT_EQ(Complaints(), "[SHM-IF][Post]sem_post a: Value too large for defined data type\n");
}

TEST_F(SemaphoreTest, IsGivenBackAtTheEndOfTheBlockOnlyWhenItWasTaken) {
    sem_t* other = SemaphoreOfAnother("a");
    Semaphore semaphore("a");
    {
        const Hold hold(semaphore);
        EXPECT_TRUE(hold.Held());
        EXPECT_FALSE(IsFree(other));
        TheSystem().time_is_past = true;
        const Hold second(semaphore);
        EXPECT_FALSE(second.Held());
    }
    EXPECT_TRUE(IsFree(other));
}

TEST_F(SemaphoreTest, KeepsTheThreadsOfAProcessApartFromTheirFirstWaitOn) {
    Semaphore semaphore("a");
    int count = 0;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&semaphore, &count] {
            for (int round = 0; round < 100; ++round) {
                const Hold hold(semaphore);
                ASSERT_TRUE(hold.Held());
                ++count;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(count, 400);
}

}  // namespace
}  // namespace shm
