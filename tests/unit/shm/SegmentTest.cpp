#include "shm/Segment.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "FakeSystem.h"

namespace shm {
namespace {

using ::test::Bytes;
using ::test::ModeOf;
using ::test::PutSegment;
using ::test::SegmentBytes;
using ::test::SegmentPath;
using ::test::TheSystem;
using ::testing::SizeIs;

using SegmentTest = ::test::SystemTest;

TEST_F(SegmentTest, IsNotMadeByAReader) {
    Segment segment;
    EXPECT_EQ(segment.Map("a", 20, SEGMENT_EXISTING), SEGMENT_ABSENT);
    EXPECT_EQ(segment.Data(), nullptr);
    EXPECT_EQ(SegmentBytes("a"), std::nullopt);
    ASSERT_THAT(TheSystem().opens, SizeIs(1));
    EXPECT_EQ(TheSystem().opens[0].flags, O_RDWR);
    EXPECT_EQ(Complaints(), "");
}

TEST_F(SegmentTest, IsMadeByAWriterForEverybodyWhateverTheUmask) {
    const mode_t mask = umask(077);
    Segment segment;
    EXPECT_EQ(segment.Map("a", 20, SEGMENT_CREATE), SEGMENT_MAPPED);
    umask(mask);
    EXPECT_EQ(SegmentBytes("a"), Bytes(20, 0));
    EXPECT_EQ(ModeOf(SegmentPath("a")), 0777U);
    std::memcpy(segment.Data(), "abcd", 4);
    EXPECT_EQ(SegmentBytes("a")->at(3), 'd');
}

TEST_F(SegmentTest, IsOpenedForCreationOnlyWhenItIsMissing) {
    {
        Segment segment;
        EXPECT_EQ(segment.Map("a", 20, SEGMENT_CREATE), SEGMENT_MAPPED);
    }
    Segment segment;
    EXPECT_EQ(segment.Map("a", 20, SEGMENT_CREATE), SEGMENT_MAPPED);
    ASSERT_THAT(TheSystem().opens, SizeIs(3));
    EXPECT_EQ(TheSystem().opens[0].flags, O_RDWR);
    EXPECT_EQ(TheSystem().opens[1].flags, O_RDWR | O_CREAT | O_EXCL);
    EXPECT_EQ(TheSystem().opens[1].mode, 0777U);
    EXPECT_EQ(TheSystem().opens[2].flags, O_RDWR);
}

TEST_F(SegmentTest, IsTheOneThatAnotherMadeAtTheSameMoment) {
    int calls = 0;
    TheSystem().on_shm_open = [&calls] {
        if (++calls == 2) PutSegment("a", Bytes(20, 7));
    };
    Segment segment;
    EXPECT_EQ(segment.Map("a", 20, SEGMENT_CREATE), SEGMENT_MAPPED);
    EXPECT_EQ(segment.Data()[19], 7);
    EXPECT_EQ(Complaints(), "");
}

TEST_F(SegmentTest, GrowsForAReaderWhenItIsTooSmall) {
    for (const std::size_t size : {0, 3, 4, 19}) {
        PutSegment("a", Bytes(size, 7));
        Segment segment;
        EXPECT_EQ(segment.Map("a", 20, SEGMENT_EXISTING), SEGMENT_MAPPED);
        EXPECT_EQ(segment.Data()[19], 0);
        Bytes expected(size, 7);
        expected.resize(20);
        EXPECT_EQ(SegmentBytes("a"), expected);
    }
}

TEST_F(SegmentTest, NeverShrinks) {
    for (const E_SEGMENT_OPEN open : {SEGMENT_EXISTING, SEGMENT_CREATE}) {
        PutSegment("a", Bytes(9000, 7));
        Segment segment;
        EXPECT_EQ(segment.Map("a", 20, open), SEGMENT_MAPPED);
        EXPECT_EQ(SegmentBytes("a"), Bytes(9000, 7));
    }
}

TEST_F(SegmentTest, KeepsTheModeThatIsRight) {
    PutSegment("a", Bytes(20, 0));
    ASSERT_EQ(chmod(SegmentPath("a").c_str(), 0777), 0);
    TheSystem().failures = {{"fchmod", EPERM}};
    Segment segment;
    EXPECT_EQ(segment.Map("a", 20, SEGMENT_EXISTING), SEGMENT_MAPPED);
    EXPECT_EQ(Complaints(), "");
}

TEST_F(SegmentTest, IsUsedAlsoWhenItsModeIsAnothersToSet) {
    PutSegment("a", Bytes(20, 7));
    ASSERT_EQ(chmod(SegmentPath("a").c_str(), 0666), 0);
    TheSystem().failures = {{"fchmod", EPERM}};
    Segment segment;
    EXPECT_EQ(segment.Map("a", 20, SEGMENT_EXISTING), SEGMENT_MAPPED);
    EXPECT_EQ(segment.Data()[0], 7);
    EXPECT_EQ(Complaints(), "[SHM-IF][OpenToAll]fchmod a: Operation not permitted\n");
}

TEST_F(SegmentTest, TellsWhyItCannotBeOpened) {
    TheSystem().failures = {{"shm_open", EACCES}};
    for (const E_SEGMENT_OPEN open : {SEGMENT_EXISTING, SEGMENT_CREATE}) {
        Segment segment;
        EXPECT_EQ(segment.Map("a", 20, open), SEGMENT_FAILED);
        EXPECT_EQ(Complaints(), "[SHM-IF][Map]shm_open a: Permission denied\n");
    }
}

// A call on the way from the descriptor to the mapping, and what is told when it fails.
struct Step {
    const char* call;
    int error;
    const char* complaint;
};
constexpr Step kSteps[] = {
    {"fstat", EIO, "[SHM-IF][MapOpened]fstat a: Input/output error\n"},
    {"ftruncate", EFBIG, "[SHM-IF][Grow]ftruncate a: File too large\n"},
    {"posix_fallocate", ENOSPC, "[SHM-IF][Grow]posix_fallocate a: No space left on device\n"},
    {"mmap", ENOMEM, "[SHM-IF][MapOpened]mmap a: Cannot allocate memory\n"},
};

TEST_F(SegmentTest, IsTakenAwayByTheOneWhoCouldNotFinishIt) {
    for (const Step& step : kSteps) {
        TheSystem().failures = {{step.call, step.error}};
        Segment segment;
        EXPECT_EQ(segment.Map("a", 20, SEGMENT_CREATE), SEGMENT_FAILED) << step.call;
        EXPECT_EQ(segment.Data(), nullptr);
        EXPECT_EQ(SegmentBytes("a"), std::nullopt) << step.call;
        EXPECT_EQ(Complaints(), step.complaint);
    }
}

TEST_F(SegmentTest, StaysWhenSomebodyElseCannotMapIt) {
    for (const Step& step : kSteps) {
        PutSegment("a", Bytes(8, 7));
        TheSystem().failures = {{step.call, step.error}};
        Segment segment;
        EXPECT_EQ(segment.Map("a", 20, SEGMENT_CREATE), SEGMENT_FAILED) << step.call;
        ASSERT_NE(SegmentBytes("a"), std::nullopt) << step.call;
        EXPECT_EQ(SegmentBytes("a")->at(7), 7);
        EXPECT_EQ(Complaints(), step.complaint);
    }
}

}  // namespace
}  // namespace shm
