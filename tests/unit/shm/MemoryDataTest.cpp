#include "shm/MemoryData.h"

#include <climits>
#include <set>
#include <string>

#include "FakeSystem.h"

namespace shm {
namespace {

using MemoryDataTest = ::test::SystemTest;

TEST_F(MemoryDataTest, HoldsTheTwoRecordsOfTheUsbService) {
    const MemoryData* cert = get_table_index(ssmID::shm_usb_cert);
    ASSERT_EQ(cert, &get_table()[143]);
    EXPECT_STREQ(cert->name, "shm_usb_cert");
    EXPECT_STREQ(cert->path, "/data/sharedmemory/shm_usb_cert");
    EXPECT_EQ(cert->flag, 0U);
    EXPECT_EQ(cert->size, 16U);
    const MemoryData* persist = get_table_index(ssmID::shm_usb_cert_persist);
    ASSERT_EQ(persist, &get_table()[144]);
    EXPECT_STREQ(persist->name, "shm_usb_cert_persist");
    EXPECT_STREQ(persist->path, "/data/sharedmemory/shm_usb_cert_persist");
    EXPECT_EQ(persist->flag, 1U);
    EXPECT_EQ(persist->size, 4U);
}

TEST_F(MemoryDataTest, EndsWithTheMarkerInRow306) {
    ASSERT_EQ(get_table().size(), 307U);
    EXPECT_STREQ(get_table()[306].name, "SSM_ID_MAX");
    EXPECT_EQ(get_table()[306].flag, 2U);
    EXPECT_EQ(get_table()[306].size, 0U);
}

TEST_F(MemoryDataTest, NamesEachRecordOnceAndNoneLikeTheNotifyTable) {
    std::set<std::string> names{"NotifyTable"};
    for (const MemoryData& row : get_table())
        EXPECT_TRUE(names.insert(row.name).second) << row.name;
}

TEST_F(MemoryDataTest, KeepsEachFileUnderTheRecordsName) {
    for (const MemoryData& row : get_table())
        EXPECT_EQ(row.path, "/data/sharedmemory/" + std::string(row.name));
}

TEST_F(MemoryDataTest, HasNamesThatASemaphoreCanBear) {
    for (const MemoryData& row : get_table())
        EXPECT_LE(std::string(row.name).size(), std::size_t{NAME_MAX} - 4) << row.name;
}

TEST_F(MemoryDataTest, GivesTheRowOfEachRecord) {
    for (unsigned id = 0; id < 306; ++id)
        EXPECT_EQ(get_table_index(static_cast<ssmID::e_SsmID>(id)), &get_table()[id]);
    EXPECT_EQ(Complaints(), "");
}

TEST_F(MemoryDataTest, RefusesIdsThatNameNoRecord) {
    for (const unsigned id : {306U, 307U, 100000U, UINT_MAX}) {
        EXPECT_EQ(get_table_index(static_cast<ssmID::e_SsmID>(id)), nullptr) << id;
        EXPECT_EQ(Complaints(), "[SHM-IF][get_table_index]unvalid index\n") << id;
    }
}

}  // namespace
}  // namespace shm
