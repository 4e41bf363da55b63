#include "platform/mtp.h"

#include <tuple>

#include "Table.h"
#include "gtest/gtest.h"

namespace mtp {
namespace {

TEST(MtpTable, IsSortedAndNamesEachPairOfIdsOnce) {
    ASSERT_GT(kRowCount, 500u);
    for (std::size_t i = 1; i < kRowCount; ++i)
        ASSERT_LT(std::make_tuple(kRows[i - 1].vendor_id, kRows[i - 1].product_id),
                  std::make_tuple(kRows[i].vendor_id, kRows[i].product_id));
}

TEST(MtpTable, EveryRowIsFoundWithItsNamesAndFlags) {
    for (std::size_t i = 0; i < kRowCount; ++i) {
        const char* vendor = nullptr;
        const char* product = nullptr;
        unsigned int flags = ~kRows[i].flags;
        ASSERT_EQ(get_vendor_product_flag(kRows[i].vendor_id, kRows[i].product_id, &vendor, &product, &flags),
                  0);
        ASSERT_STREQ(vendor, kTexts + kRows[i].vendor);
        ASSERT_STREQ(product, kTexts + kRows[i].product);
        ASSERT_EQ(flags, kRows[i].flags);
        ASSERT_NE(vendor, nullptr);
        ASSERT_NE(product, nullptr);
    }
}

TEST(MtpTable, KnowsAPhoneThatSpeaksMtpOnly) {
    const char* vendor = nullptr;
    const char* product = nullptr;
    ASSERT_EQ(get_vendor_product_flag(0x18d1, 0x4ee1, &vendor, &product, nullptr), 0);
    EXPECT_EQ(std::string(vendor).substr(0, 6), "Google");
    EXPECT_NE(std::string(product).find("Nexus"), std::string::npos) << product;
}

TEST(MtpTable, UnknownDeviceSetsNothing) {
    for (const auto& [vendor_id, product_id] :
         {std::pair{0x0000, 0x0000}, {0xFFFF, 0xFFFF}, {0x18d1, 0xFFFF}}) {
        const char* vendor = "kept";
        const char* product = "kept";
        unsigned int flags = 7;
        EXPECT_NE(get_vendor_product_flag(static_cast<unsigned short>(vendor_id),
                                          static_cast<unsigned short>(product_id), &vendor, &product, &flags),
                  0);
        EXPECT_STREQ(vendor, "kept");
        EXPECT_STREQ(product, "kept");
        EXPECT_EQ(flags, 7u);
    }
}

TEST(MtpTable, NullOutPointersAreLeftOut) {
    const char* product = nullptr;
    EXPECT_EQ(get_vendor_product_flag(kRows[0].vendor_id, kRows[0].product_id, nullptr, &product, nullptr),
              0);
    EXPECT_STREQ(product, kTexts + kRows[0].product);
    EXPECT_EQ(get_vendor_product_flag(kRows[0].vendor_id, kRows[0].product_id, nullptr, nullptr, nullptr), 0);
}

}  // namespace
}  // namespace mtp
