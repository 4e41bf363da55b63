#include "monitor/Datagram.h"

#include <gmock/gmock.h>

#include "unit/kipcmon/Bytes.h"

namespace kipcmon {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string RefusalOf(const test::Octets& bytes) {
    std::string refusal;
    return ReadDatagram(bytes, &refusal) ? "" : refusal;
}

TEST(TapDatagram, SaysWhoSentWhatToWhomAndWhatBecameOfIt) {
    const test::Sent sent{.record = {1, 2, 3}, .outcome = kipc::TAP_FULL, .lost = 7};
    const test::Octets bytes = sent.Datagram();
    std::string refusal;
    const auto datagram = ReadDatagram(bytes, &refusal);
    ASSERT_TRUE(datagram);
    EXPECT_EQ(datagram->monotonic_ns, test::kMonotonicNs);
    EXPECT_EQ(datagram->wall_ns, test::kWallNs);
    EXPECT_EQ(datagram->lost, 7u);
    EXPECT_EQ(DirectionWord(datagram->direction), "out");
    EXPECT_EQ(OutcomeWord(datagram->outcome), "full");
    EXPECT_EQ(datagram->sender, "usb");
    EXPECT_EQ(datagram->receiver, "media");
    EXPECT_THAT(datagram->record, ElementsAre(1, 2, 3));
    EXPECT_THAT(datagram->faults, IsEmpty());
}

TEST(TapDatagram, ThatIsShorterThanItsHeadIsRefused) {
    const test::Octets whole = test::Sent{}.Datagram();
    for (std::size_t length = 0; length < whole.size(); ++length)
        EXPECT_EQ(RefusalOf(test::Octets(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length))),
                  std::to_string(length) + (length == 1 ? " byte are" : " bytes are") + " less than a head");
    EXPECT_EQ(RefusalOf(whole), "");
}

TEST(TapDatagram, OfAnotherKindOrVersionIsRefused) {
    const test::Sent sent;
    kipc::TapHead head = sent.Head();
    head.magic = 0x4B544150;
    EXPECT_EQ(RefusalOf(sent.Datagram(head)), "it is not the tap's: another magic number");
    head = sent.Head();
    head.version = 2;
    EXPECT_EQ(RefusalOf(sent.Datagram(head)), "the tap speaks version 2, this program version 1");
}

TEST(TapDatagram, WhoseHeadEndsNowhereIsRefused) {
    const test::Sent sent{.record = {1, 2, 3}};
    kipc::TapHead head = sent.Head();
    head.head_bytes = 95;
    EXPECT_EQ(RefusalOf(sent.Datagram(head)), "a head of 95 bytes in a datagram of 99 bytes");
    head.head_bytes = 100;
    EXPECT_EQ(RefusalOf(sent.Datagram(head)), "a head of 100 bytes in a datagram of 99 bytes");
}

TEST(TapDatagram, OfALongerHeadHasItsRecordBehindIt) {
    const test::Sent sent{.record = {9, 9, 1, 2}};
    kipc::TapHead head = sent.Head();
    head.head_bytes = 98;
    head.length = 2;
    const test::Octets bytes = sent.Datagram(head);
    std::string refusal;
    const auto datagram = ReadDatagram(bytes, &refusal);
    ASSERT_TRUE(datagram);
    EXPECT_THAT(datagram->record, ElementsAre(1, 2));
    EXPECT_THAT(datagram->faults, IsEmpty());
}

TEST(TapDatagram, ThatLiesKeepsItsRecordAndIsMarked) {
    const test::Sent sent{.record = {1, 2, 3},
                          .sender = std::string(24, 's'),
                          .receiver = std::string(24, 'r'),
                          .direction = 0,
                          .outcome = 3};
    kipc::TapHead head = sent.Head();
    head.length = 0xffffffff;
    const test::Octets bytes = sent.Datagram(head);
    std::string refusal;
    const auto datagram = ReadDatagram(bytes, &refusal);
    ASSERT_TRUE(datagram);
    EXPECT_THAT(datagram->record, ElementsAre(1, 2, 3));
    EXPECT_EQ(datagram->sender, std::string(24, 's'));
    EXPECT_EQ(datagram->receiver, std::string(24, 'r'));
    EXPECT_THAT(datagram->faults,
                ElementsAre("sender's name is not terminated", "receiver's name is not terminated",
                            "the head says 4294967295 bytes, 3 bytes came", "direction 0", "outcome 3"));
}

TEST(TapDatagram, MayHaveNamesThatATerminalWouldObey) {
    const test::Octets bytes = test::Sent{.sender = "\033[2J\x7f", .receiver = "a\\\x9b\n"}.Datagram();
    std::string refusal;
    const auto datagram = ReadDatagram(bytes, &refusal);
    ASSERT_TRUE(datagram);
    EXPECT_EQ(datagram->sender, "\\x1b[2J\\x7f");
    EXPECT_EQ(datagram->receiver, "a\\x5c\\x9b\\x0a");
}

TEST(TapDatagram, OfSixtyFourKibibytesIsTakenWhole) {
    const test::Octets bytes = test::Sent{.record = test::Octets(65536, 0xee)}.Datagram();
    std::string refusal;
    const auto datagram = ReadDatagram(bytes, &refusal);
    ASSERT_TRUE(datagram);
    EXPECT_EQ(datagram->record.size(), 65536u);
    EXPECT_LE(bytes.size(), kMostDatagramBytes);
}

}  // namespace
}  // namespace kipcmon
