#include "shm/NotifyTable.h"

#include <cerrno>
#include <climits>
#include <cstring>

#include "FakeSystem.h"

namespace shm {
namespace {

using ::test::Bytes;
using ::test::PutSegment;
using ::test::SegmentBytes;
using ::test::SemaphoreOfAnother;
using ::test::TheSystem;

class NotifyTableTest : public ::test::SystemTest {
protected:
    NotifyMask MaskOf(ssmID::e_SsmID id) {
        NotifyMask mask = 12345;
        EXPECT_EQ(m_table.Read(id, &mask), 0);
        return mask;
    }

    NotifyTable m_table;
};

TEST_F(NotifyTableTest, IsASegmentOf306MasksWithoutALength) {
    EXPECT_EQ(m_table.Write(ssmID::shm_usb_cert, 0x0800000000001000), 0);
    Bytes expected(2448, 0);
    expected[143 * 8 + 1] = 0x10;
    expected[143 * 8 + 7] = 0x08;
    EXPECT_EQ(SegmentBytes("NotifyTable"), expected);
    EXPECT_EQ(Complaints(), "");
}

TEST_F(NotifyTableTest, HasAPlaceForTheFirstAndTheLastRecord) {
    EXPECT_EQ(m_table.Write(static_cast<ssmID::e_SsmID>(0), 1), 0);
    EXPECT_EQ(m_table.Write(static_cast<ssmID::e_SsmID>(305), 2), 0);
    EXPECT_EQ(SegmentBytes("NotifyTable")->at(0), 1);
    EXPECT_EQ(SegmentBytes("NotifyTable")->at(305 * 8), 2);
    EXPECT_EQ(SegmentBytes("NotifyTable")->size(), 2448U);
}

TEST_F(NotifyTableTest, HoldsAReceiverOnceHoweverOftenItAsks) {
    EXPECT_EQ(m_table.Write(ssmID::shm_usb_cert, 4096), 0);
    EXPECT_EQ(m_table.Write(ssmID::shm_usb_cert, 4096), 0);
    EXPECT_EQ(MaskOf(ssmID::shm_usb_cert), 4096U);
}

TEST_F(NotifyTableTest, HoldsAllReceiversOfARecord) {
    EXPECT_EQ(m_table.Write(ssmID::shm_usb_cert, 4096), 0);
    EXPECT_EQ(m_table.Write(ssmID::shm_usb_cert, 0x800000), 0);
    EXPECT_EQ(MaskOf(ssmID::shm_usb_cert), 0x801000U);
    EXPECT_EQ(MaskOf(ssmID::shm_usb_cert_persist), 0U);
}

TEST_F(NotifyTableTest, IsEmptyAndNotMadeAsLongAsNobodyAsks) {
    EXPECT_EQ(MaskOf(ssmID::shm_usb_cert), 0U);
    EXPECT_EQ(SegmentBytes("NotifyTable"), std::nullopt);
    EXPECT_EQ(Complaints(), "");
}

TEST_F(NotifyTableTest, RefusesIdsThatNameNoRecord) {
    for (const unsigned number : {306U, 307U, UINT_MAX}) {
        const auto id = static_cast<ssmID::e_SsmID>(number);
        NotifyMask mask = 5;
        EXPECT_EQ(m_table.Write(id, 4096), -1);
        EXPECT_EQ(m_table.Read(id, &mask), -1);
        EXPECT_EQ(mask, 5U);
    }
    EXPECT_EQ(SegmentBytes("NotifyTable"), std::nullopt);
}

TEST_F(NotifyTableTest, IsNotToBeHadWhenTheSegmentFails) {
    TheSystem().failures = {{"shm_open", EACCES}};
    NotifyMask mask = 5;
    EXPECT_EQ(m_table.Write(ssmID::shm_usb_cert, 4096), -1);
    EXPECT_EQ(m_table.Read(ssmID::shm_usb_cert, &mask), -1);
    EXPECT_EQ(mask, 5U);
}

TEST_F(NotifyTableTest, IsNotToBeHadWhenItsHolderIsDead) {
    ASSERT_EQ(sem_wait(SemaphoreOfAnother("NotifyTable")), 0);
    TheSystem().time_is_past = true;
    NotifyMask mask = 5;
    EXPECT_EQ(m_table.Write(ssmID::shm_usb_cert, 4096), -1);
    EXPECT_EQ(m_table.Read(ssmID::shm_usb_cert, &mask), -1);
    EXPECT_EQ(SegmentBytes("NotifyTable"), std::nullopt);
}

TEST_F(NotifyTableTest, GrowsFromATableThatIsTooSmall) {
    PutSegment("NotifyTable", Bytes{1, 2, 3});
    EXPECT_EQ(MaskOf(ssmID::shm_usb_cert), 0U);
    EXPECT_EQ(MaskOf(static_cast<ssmID::e_SsmID>(0)), 0x030201U);
}

}  // namespace
}  // namespace shm
