#include <gmock/gmock.h>

#include <sstream>

#include "monitor/CaptureReader.h"
#include "monitor/CaptureWriter.h"
#include "unit/kipcmon/Bytes.h"

namespace kipcmon {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;

std::string HexOf(std::string_view bytes) {
    return Hex({reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()});
}

// Digits, with blanks wherever they help.
std::string BytesOf(std::string hex) {
    std::string bytes;
    std::erase_if(hex, [](char one) { return one == ' '; });
    for (std::size_t i = 0; i < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return bytes;
}

// type, length, body, length
const std::string kSection =
    "0a0d0d0a 2c000000 4d3c2b1a 0100 0000 ffffffffffffffff 0400 0700 6b6970636d6f6e00 00000000 2c000000";
const std::string kInterface =
    "01000000 28000000 9300 0000 00000000 0200 0300 74617000 0900 0100 09000000 00000000 28000000";
const std::string kPacket =
    "06000000 28000000 00000000 efcdab89 67452301 05000000 05000000 0102030405000000 28000000";
const std::string kPacketAfterALoss =
    "06000000 34000000 00000000 00000000 01000000 01000000 01000000 07000000 0400 0800 0300000000000000 "
    "00000000 34000000";

TEST(CaptureFile, BeginsWithASectionAndAnInterfaceOfLinkTypeUser0InNanoseconds) {
    EXPECT_EQ(HexOf(CaptureHead()), HexOf(BytesOf(kSection + kInterface)));
}

TEST(CaptureFile, HoldsADatagramWithItsTimePaddedToFourBytes) {
    const test::Octets datagram = {1, 2, 3, 4, 5};
    EXPECT_EQ(HexOf(CapturePacket(datagram, 0x89abcdef01234567, 0)), HexOf(BytesOf(kPacket)));
}

TEST(CaptureFile, SaysHowManyRecordsWereLostBefore) {
    const test::Octets datagram = {7};
    EXPECT_EQ(HexOf(CapturePacket(datagram, 1, 3)), HexOf(BytesOf(kPacketAfterALoss)));
}

TEST(CaptureFile, SaysThatOneWasLost) {
    std::istringstream file(CaptureHead() + CapturePacket({}, 1, 1));
    CaptureReader reader(&file);
    CapturedPacket packet;
    ASSERT_EQ(reader.Next(&packet), CAPTURE_PACKET);
    EXPECT_EQ(packet.lost, 1u);
    EXPECT_TRUE(packet.bytes.empty());
}

// All packets of a file, and how the reading ended.
struct Captured {
    std::vector<test::Octets> packets = {};
    std::vector<std::uint64_t> lost = {};
    std::string complaint = {};
};

Captured ReadAll(const std::string& bytes) {
    std::istringstream file(bytes);
    CaptureReader reader(&file);
    Captured captured;
    CapturedPacket packet;
    E_CAPTURE found = CAPTURE_PACKET;
    while ((found = reader.Next(&packet)) == CAPTURE_PACKET) {
        captured.packets.push_back(packet.bytes);
        captured.lost.push_back(packet.lost);
    }
    if (found == CAPTURE_BROKEN) captured.complaint = reader.what();
    return captured;
}

TEST(CaptureFile, IsReadBack) {
    const std::string file = BytesOf(kSection + kInterface + kPacket + kPacketAfterALoss);
    const Captured captured = ReadAll(file);
    EXPECT_EQ(captured.complaint, "");
    EXPECT_THAT(captured.packets, ElementsAre(ElementsAre(1, 2, 3, 4, 5), ElementsAre(7)));
    EXPECT_THAT(captured.lost, ElementsAre(0, 3));
}

TEST(CaptureFile, MayHaveBlocksOptionsAndSectionsOfOthers) {
    const std::string comment = "0100 0500 68656c6c6f000000";
    const std::string packet = "06000000 34000000 01000000 0000000000000000 01000000 01000000 09000000" +
                               comment + "00000000 34000000";
    const std::string statistics = "05000000 10000000 00000000 10000000";
    const std::string other_interface = "01000000 14000000 0100 0000 00000000 14000000";
    const Captured captured = ReadAll(BytesOf(kSection + statistics + other_interface + kInterface + packet +
                                              kSection + kInterface + kPacket));
    EXPECT_EQ(captured.complaint, "");
    EXPECT_THAT(captured.packets, ElementsAre(ElementsAre(9), ElementsAre(1, 2, 3, 4, 5)));
}

TEST(CaptureFile, ThatIsCutKeepsThePacketsBefore) {
    const std::string head = CaptureHead();
    const std::string packet = BytesOf(kPacket);
    const std::string file = head + packet + packet;
    for (std::size_t length = 0; length < file.size(); ++length) {
        const Captured captured = ReadAll(file.substr(0, length));
        const std::size_t section = BytesOf(kSection).size();
        const bool between_blocks =
            length == section || length == head.size() || length == head.size() + packet.size();
        const std::string complaint = length == 0        ? "it is empty"
                                      : between_blocks   ? ""
                                      : length < section ? "it is no pcapng file"
                                                         : "it ends within a block";
        EXPECT_EQ(captured.complaint, complaint) << length;
        EXPECT_EQ(captured.packets.size(), length >= head.size() + packet.size() ? 1u : 0u) << length;
    }
}

TEST(CaptureFile, OfAnotherKindIsRefused) {
    const auto complaint = [](const std::string& hex) { return ReadAll(BytesOf(hex)).complaint; };
    EXPECT_EQ(complaint("d4c3b2a1020004000000000000000000"), "it is no pcapng file");  // pcap
    EXPECT_EQ(complaint(kInterface), "it is no pcapng file");
    EXPECT_EQ(complaint("0a0d0d0a0000001c1a2b3c4d00010000ffffffffffffffff0000001c"),
              "it is from a machine of the other byte order");
    EXPECT_EQ(complaint("0a0d0d0a1c000000deadbeef01000000ffffffffffffffff1c000000"), "it is no pcapng file");
    EXPECT_EQ(complaint("0a0d0d0a1c0000004d3c2b1a02000000ffffffffffffffff1c000000"),
              "it is pcapng of version 2");
    EXPECT_EQ(complaint(kSection + "01000000 14000000 0100 0000 00000000 14000000" + kPacket),
              "it holds packets of link type 1: the tap's are 147");
}

TEST(CaptureFile, WhoseBlocksLieIsRefused) {
    const auto complaint = [](const std::string& hex) {
        return ReadAll(BytesOf(kSection + kInterface + hex)).complaint;
    };
    EXPECT_EQ(complaint("06000000 00000000"), "a block of 0 bytes");
    EXPECT_EQ(complaint("06000000 0b000000"), "a block of 11 bytes");
    EXPECT_EQ(complaint("06000000 0d000000 00000000"), "a block of 13 bytes");
    EXPECT_EQ(complaint("06000000 fcffffff"), "a block of 4294967292 bytes");
    EXPECT_EQ(complaint("06000000 0c000000 10000000"), "a block of 12 bytes that ends as one of 16");
    EXPECT_EQ(complaint("06000000 0c000000 0c000000"), "a packet without a head");
    EXPECT_EQ(complaint("06000000 20000000 01000000 0000000000000000 00000000 00000000 20000000"),
              "a packet of an interface that is not there");
    EXPECT_EQ(complaint("06000000 20000000 00000000 0000000000000000 01000000 01000000 20000000"),
              "a packet that is longer than its block");
    EXPECT_EQ(complaint("06000000 20000000 00000000 0000000000000000 ffffffff 01000000 20000000"),
              "a packet that is longer than its block");
    EXPECT_EQ(complaint("06000000 24000000 00000000 0000000000000000 00000000 00000000 04000800 24000000"),
              "options that do not fit their block");
    EXPECT_EQ(
        complaint("06000000 28000000 00000000 0000000000000000 00000000 00000000 04000400 01000000 28000000"),
        "options that do not fit their block");
    EXPECT_EQ(
        complaint("06000000 28000000 00000000 0000000000000000 00000000 00000000 05000800 00000000 28000000"),
        "options that do not fit their block");
    EXPECT_EQ(complaint("01000000 0c000000 0c000000"), "an interface without a link type");
    EXPECT_EQ(complaint("0a0d0d0a 0c000000 4d3c2b1a"), "a block of 12 bytes");
    EXPECT_EQ(complaint("0a0d0d0a 10000000 4d3c2b1a 10000000"), "a section without a version");
}

}  // namespace
}  // namespace kipcmon
