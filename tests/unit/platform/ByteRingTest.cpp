#include "ByteRing.h"

#include <random>
#include <string>
#include <vector>

#include <deque>

#include "gtest/gtest.h"

namespace platform {
namespace {

std::string PopText(ByteRing* ring) {
    std::string text(ring->Front().length, '\0');
    ring->Pop(text.data());
    return text;
}

TEST(ByteRing, GivesBackWhatAListWouldGiveBackWhateverTheLengths) {
    ByteRing ring(64 * 1024, 100000);
    std::deque<std::pair<std::uint64_t, std::string>> list;
    std::mt19937 random(1);
    for (int step = 0; step < 20000; ++step) {
        if (random() % 5 < 3) {
            const std::string text(random() % 700, static_cast<char>('a' + random() % 26));
            const std::size_t cut = text.empty() ? 0 : random() % text.size();
            if (ring.Push(step, {text.data(), cut}, {text.data() + cut, text.size() - cut}))
                list.emplace_back(step, text);
            else
                ASSERT_GT(ring.bytes() + text.size() + ByteRing::kHeadBytes + 8, 64u * 1024);
        } else if (!list.empty()) {
            ASSERT_EQ(ring.Front().tag, list.front().first);
            ASSERT_EQ(PopText(&ring), list.front().second);
            list.pop_front();
        }
        ASSERT_EQ(ring.records(), list.size());
    }
    for (; !list.empty(); list.pop_front())
        ASSERT_EQ(PopText(&ring), list.front().second);
    EXPECT_EQ(ring.bytes(), 0u);
}

TEST(ByteRing, CountsHeadsAndPaddingAgainstItsLimit) {
    ByteRing ring(64, 100);
    EXPECT_TRUE(ring.Push(1, {"x", 1}));          // 16 + 8
    EXPECT_TRUE(ring.Push(2, {"123456789", 9}));  // 16 + 16
    EXPECT_EQ(ring.bytes(), 56u);
    EXPECT_FALSE(ring.Push(3, {}));
    ring.Pop(nullptr);
    EXPECT_TRUE(ring.Push(3, {}));
    EXPECT_EQ(PopText(&ring), "123456789");
    EXPECT_EQ(PopText(&ring), "");
}

TEST(ByteRing, HoldsNoMoreRecordsThanItMay) {
    ByteRing ring(1 << 20, 2);
    EXPECT_TRUE(ring.Push(1, {"a", 1}));
    EXPECT_TRUE(ring.Push(2, {"b", 1}));
    EXPECT_FALSE(ring.Push(3, {"c", 1}));
    ring.Clear();
    EXPECT_TRUE(ring.Push(3, {"c", 1}));
    EXPECT_EQ(PopText(&ring), "c");
}

}  // namespace
}  // namespace platform
