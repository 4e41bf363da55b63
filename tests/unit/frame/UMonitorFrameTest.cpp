#include "frame/UMonitorFrame.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "FrameBench.h"
#include "gmock/gmock.h"
#include "item/UItemCutting.h"
#include "item/UItemMountError.h"
#include "item/UItemVoltageSupply.h"
#include "item/UListItem.h"
#include "notify/UNotifier.h"
#include "setting/USetting.h"
#include "support/Format.h"

namespace test {
namespace {

using namespace dcm::usb;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

const Packet kOverCurrentPresent{0x0800000000000000, Hex("01 60 22 24 7C FF")};
const Packet kOverCurrentCleared{0x0800000000000000, Hex("01 60 22 24 7C 00")};

struct UMonitorFrameTest : FrameBench {
    void SetUp() override {
        FrameBench::SetUp();
        UListItem::Release();
        ResetVoltage();
        m_frame = std::make_unique<UMonitorFrame>(Kipc(), Queue(kMonitor));
    }
    void TearDown() override {
        m_frame.reset();
        UListItem::Release();
        ResetVoltage();
        FrameBench::TearDown();
    }
    static void ResetVoltage() {
        UItemVoltageSupply::m_step = UItemVoltageSupply::VOLTAGE_STEP_START;
        UItemVoltageSupply::m_try_temperature = 0;
        UItemVoltageSupply::m_last_ts = {};
        UItemVoltageSupply::m_voltage_section = VOLTAGE_INITIAL;
    }
    void Take(unsigned long src, Bytes message) {
        m_frame->event_handler(src, static_cast<unsigned>(message.size()),
                               reinterpret_cast<char*>(message.data()));
    }
    // As Take, but no item runs.
    void Parse(Bytes message) {
        m_frame->ParseMsg(static_cast<unsigned>(message.size()), reinterpret_cast<char*>(message.data()));
    }
    void TakeNothing() { m_frame->event_handler(0, 0, nullptr); }
    static Bytes Request(std::uint32_t id, std::uint8_t port, std::size_t size = 12) {
        Bytes message(size);
        std::memcpy(&message[4], &id, sizeof id);
        message[8] = port;
        return message;
    }
    // A request with this text at the offset; nothing ends it but the message.
    static Bytes Request(std::uint32_t id, std::uint8_t port, std::size_t offset, const std::string& text) {
        Bytes message = Request(id, port, offset + text.size());
        std::memcpy(&message[offset], text.data(), text.size());
        return message;
    }
    static UItem* Find(E_ITEM kind, std::uint8_t port = 0) {
        return UListItem::GetInstance()->FindItem(kind, port, false);
    }
    std::unique_ptr<UMonitorFrame> m_frame;
};

TEST_F(UMonitorFrameTest, TracesItsBeginningAndItsEnd) {
    const void* const address = m_frame.get();
    EXPECT_THAT(Logs(), ElementsAre(Line(32, Format("constructor ptr:%p", address))));
    ClearLogs();
    m_frame.reset();
    EXPECT_THAT(Logs(), ElementsAre(Line(32, Format("destructor ptr:%p", address))));
}

TEST_F(UMonitorFrameTest, MakesItsNotifierAtTheFirstCall) {
    auto& interface = Kipc();
    const long before = interface.use_count();
    TakeNothing();
    EXPECT_EQ(interface.use_count(), before + 1);
    TakeNothing();
    EXPECT_EQ(interface.use_count(), before + 1);
    m_frame.reset();
    EXPECT_EQ(interface.use_count(), before - 1) << "the frame's own share and its notifier's";
}

TEST_F(UMonitorFrameTest, MakesNoItemWithoutANotifier) {
    TheStage().no_memory_for = {sizeof(UNotifier)};
    TakeNothing();
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "failed to new notifier instance")));
    TheStage().no_memory_for = {};
    ClearLogs();
    for (const std::uint32_t id : {31, 33, 35, 37, 39, 41, 43})
        Take(4096, Request(id, 1, 348));
    EXPECT_THAT(Logs(), ::testing::AllOf(::testing::SizeIs(7), Each(Line(192, "notifier is null"))));
}

TEST_F(UMonitorFrameTest, MakesTheListAtTheFirstCallAndTakesItAway) {
    EXPECT_FALSE(UListItem::m_pInstance);
    TakeNothing();
    EXPECT_TRUE(UListItem::m_pInstance);
    m_frame.reset();
    EXPECT_FALSE(UListItem::m_pInstance);
}

TEST_F(UMonitorFrameTest, UsesTheListThatIsThere) {
    UListItem* const list = UListItem::GetInstance();
    TakeNothing();
    EXPECT_EQ(UListItem::m_pInstance, list);
}

TEST_F(UMonitorFrameTest, LeavesAListAloneThatItNeverUsed) {
    UListItem* const list = UListItem::GetInstance();
    m_frame.reset();
    EXPECT_EQ(UListItem::m_pInstance, list);
}

TEST_F(UMonitorFrameTest, LetsItemsSayTheirLastWordsWhenItEnds) {
    TakeNothing();
    Take(4096, Request(33, 1, 9, "/devices/x"));
    ClearPackets();
    ClearLogs();
    const void* const address = m_frame.get();
    m_frame.reset();
    EXPECT_THAT(Packets(), ElementsAre(kOverCurrentCleared));
    EXPECT_THAT(Logs(),
                ElementsAre(Line(32, Format("destructor ptr:%p", address)), Line(128, "over_current[0]")));
}

TEST_F(UMonitorFrameTest, SleepsATenthOfASecondAfterEachCall) {
    TakeNothing();
    TakeNothing();
    Take(4096, Request(33, 1, 140));
    EXPECT_THAT(Deeds(), ElementsAre("usleep 100000", "usleep 100000", "usleep 100000"));
}

TEST_F(UMonitorFrameTest, TakesAMessageAtItsVeryFirstCallButRunsItemsFromTheSecondOn) {
    USetting::GetInstance();  // else the notifier makes it, with many words
    ClearLogs();
    Take(4096, Request(39, 2));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "ParseMsg in E_STATE_INIT "), Line(128, "port:2 list_size:1")));
    ClearLogs();
    TakeNothing();
    ASSERT_EQ(Logs().size(), 1u);
    EXPECT_THAT(Logs().front().text, ::testing::StartsWith("STEP_NONE port2 m_last_ts:"));
}

TEST_F(UMonitorFrameTest, RunsANewItemInTheCallThatMadeIt) {
    TakeNothing();
    ClearLogs();
    Take(4096, Request(39, 2));
    ASSERT_EQ(Logs().size(), 2u);
    EXPECT_EQ(Logs().front(), Line(128, "port:2 list_size:1"));
    EXPECT_THAT(Logs().back().text, ::testing::StartsWith("STEP_NONE port2 m_last_ts:"));
}

struct Supervision {
    std::uint32_t arm;
    std::uint32_t cancel;
    E_ITEM kind;
};
const Supervision kSupervisions[] = {{31, 32, ITEM_MOUNT_ERROR},    {33, 34, ITEM_OVER_CURRENT},
                                     {35, 36, ITEM_VOLTAGE_SUPPLY}, {37, 38, ITEM_CUTTING},
                                     {39, 40, ITEM_CH_TIMEOUT},     {41, 42, ITEM_CARPLAY_TIMEOUT},
                                     {43, 44, ITEM_CARPLAY_CAPA}};

TEST_F(UMonitorFrameTest, ArmsAndCancelsEachItemByItsOwnMessages) {
    TakeNothing();
    for (const Supervision& one : kSupervisions) {
        SCOPED_TRACE(one.arm);
        Take(4096, Request(one.arm, 32, 348));
        for (const Supervision& other : kSupervisions)
            EXPECT_EQ(Find(other.kind) != nullptr, other.kind == one.kind) << other.kind;
        ASSERT_TRUE(Find(one.kind, 32));
        for (const Supervision& other : kSupervisions)
            if (other.kind != one.kind) Parse(Request(other.cancel, 32, 348));
        if (one.kind != ITEM_OVER_CURRENT) {
            Parse(Request(one.cancel, 2));
            EXPECT_TRUE(Find(one.kind, 32)) << "another port was cancelled";
        }
        ClearLogs();
        Parse(Request(one.cancel, 32, 348));
        EXPECT_FALSE(Find(one.kind));
        const std::string cancelled =
            Format("item:%d port:32 terminated list_size:0", static_cast<int>(one.kind));
        EXPECT_THAT(Logs(),
                    Wrote(128, one.kind == ITEM_OVER_CURRENT ? "port:32 terminated list_size:0" : cancelled));
    }
}

TEST_F(UMonitorFrameTest, HandsOnTheFailedMountAsItIs) {
    TakeNothing();
    Bytes message = Request(31, 2, 148);
    for (std::size_t at = 12; at < 148; ++at)
        message[at] = static_cast<std::uint8_t>(at);
    Parse(message);
    static_cast<UItemMountError*>(Find(ITEM_MOUNT_ERROR, 2))->SendMountError();
    Bytes packet(message.begin() + 12, message.end());
    packet[52] = packet[84] = packet[116] = packet[132] = 0;  // texts that had no end
    ASSERT_EQ(Packets().size(), 1u);
    EXPECT_EQ(Packets().front().bytes, packet);
}

TEST_F(UMonitorFrameTest, HandsOnTheRemovalAsItIs) {
    TakeNothing();
    Bytes message = Request(37, 32, 348);
    for (std::size_t at = 12; at < 348; ++at)
        message[at] = static_cast<std::uint8_t>(at % 255 + 1);
    Parse(message);
    static_cast<UItemCutting*>(Find(ITEM_CUTTING, 32))->CheckEjection();
    Bytes posted = message;
    posted[0] = 4;
    posted[4] = 21;
    posted[21] = posted[22] = posted[23] = 0;
    posted[91] = posted[155] = posted[219] = posted[347] = 0;  // texts that had no end
    EXPECT_THAT(Drain(kUsb), ElementsAre(Queued{4096, posted}));
}

TEST_F(UMonitorFrameTest, TakesTheDevicePathOfAnOverCurrent) {
    TakeNothing();
    ClearLogs();
    Parse(Request(33, 2, 9, "/devices/x"));
    EXPECT_EQ(Logs().back(), Line(128, "port:2 devpath:/devices/x list_size:1"));
    EXPECT_THAT(Packets(), ElementsAre(kOverCurrentPresent));
    ClearLogs();
    ClearPackets();
    Parse(Request(34, 2, 9, "/devices/y"));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "devpath:/devices/y")));
    Parse(Request(34, 1, 9, "/devices/x"));
    EXPECT_EQ(Logs().at(2), Line(128, "port:2 terminated list_size:0")) << "whatever port was named";
    EXPECT_THAT(Packets(), ElementsAre(kOverCurrentCleared));
}

TEST_F(UMonitorFrameTest, CutsADevicePathThatHasNoEnd) {
    TakeNothing();
    const std::string path(127, 'd');
    for (const std::size_t length : {127u, 128u, 131u, 300u}) {
        ClearLogs();
        Parse(Request(33, 2, 9, std::string(length, 'd')));
        EXPECT_EQ(Logs().back(), Line(128, Format("port:2 devpath:%s list_size:1", path.c_str())));
        Parse(Request(34, 2, 9, std::string(length, 'd')));
        EXPECT_FALSE(Find(ITEM_OVER_CURRENT));
    }
}

TEST_F(UMonitorFrameTest, TakesAnyFlagButZeroForAHubThatWasFound) {
    TakeNothing();
    for (const std::uint8_t flag : {0, 1, 2, 0x80, 0xFF}) {
        ClearLogs();
        Bytes message = Request(35, 2);
        message[9] = flag;
        Parse(message);
        EXPECT_EQ(Logs().back(), Line(128, Format("port:2 isHubDetect:%d list_size:1", flag != 0)));
        Parse(Request(36, 2));
    }
}

TEST_F(UMonitorFrameTest, CancelsAllItemsOfAKindForPortZero) {
    TakeNothing();
    for (const std::uint8_t port : {1, 2, 3})
        Parse(Request(41, port));
    Parse(Request(39, 1));
    Parse(Request(42, 0));
    EXPECT_FALSE(Find(ITEM_CARPLAY_TIMEOUT));
    EXPECT_TRUE(Find(ITEM_CH_TIMEOUT));
}

TEST_F(UMonitorFrameTest, RefusesEveryOtherMessage) {
    TakeNothing();
    ClearLogs();
    for (const std::uint32_t id : {0u, 1u, 12u, 20u, 21u, 29u, 30u, 45u, 46u, 47u, 100u, 287u})
        Take(4096, Request(id, 1, 348));
    EXPECT_THAT(Logs(), ElementsAre(Line(160, "unknown msgID:0"), Line(160, "unknown msgID:1"),
                                    Line(160, "unknown msgID:12"), Line(160, "unknown msgID:20"),
                                    Line(160, "unknown msgID:21"), Line(160, "unknown msgID:29"),
                                    Line(160, "unknown msgID:30"), Line(160, "unknown msgID:45"),
                                    Line(160, "unknown msgID:46"), Line(160, "unknown msgID:47"),
                                    Line(160, "unknown msgID:100"), Line(160, "unknown msgID:287")));
}

TEST_F(UMonitorFrameTest, PassesOverMessagesOfStrangers) {
    Take(0, Request(39, 1));
    Take(0x800000, Request(39, 1));
    EXPECT_FALSE(Find(ITEM_CH_TIMEOUT));
    EXPECT_THAT(Logs(128), Not(Wrote(128, "ParseMsg in E_STATE_INIT ")));
    Take(4096, Request(39, 1));
    EXPECT_TRUE(Find(ITEM_CH_TIMEOUT));
}

TEST_F(UMonitorFrameTest, ReadsNothingBehindAShortMessage) {
    TakeNothing();
    ClearLogs();
    Take(4096, Hex("00"));
    EXPECT_THAT(Logs(), ElementsAre(Line(160, "unknown msgID:0")));
    ClearLogs();
    Parse(Hex("00*4 27"));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "port:0 list_size:1")));
    ClearLogs();
    Parse(Hex("00*4 25 00*3 02"));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "port:2 list_size:2")));
    static_cast<UItemCutting*>(Find(ITEM_CUTTING, 2))->CheckEjection();
    EXPECT_THAT(Drain(kUsb), ElementsAre(Queued{4096, Hex("04 00*3 15 00*3 02 00*339")}));
}

// Each message is as large as it says and no larger: who reads behind it is found out by the sanitizer.
TEST_F(UMonitorFrameTest, SurvivesMessagesOfEveryLength) {
    TakeNothing();
    for (const std::uint8_t filling : {0x00, 0x02, 0x78, 0xFF}) {
        for (std::uint32_t id = 0; id <= 60; ++id) {
            for (std::size_t length = 0; length <= 400; ++length) {
                const auto message = std::make_unique<char[]>(length);
                std::memset(message.get(), filling, length);
                if (length > 4) std::memcpy(&message[4], &id, std::min<std::size_t>(length - 4, sizeof id));
                m_frame->event_handler(4096, static_cast<unsigned>(length), message.get());
            }
            ClearLogs();
            ClearPackets();
        }
        // All of it is forgotten when it is cancelled, and the frame is as good as new.
        for (const Supervision& one : kSupervisions)
            UListItem::GetInstance()->DeleteItem(one.kind, 0);
        Drain(kUsb);
        ClearLogs();
        Parse(Request(39, 1));
        EXPECT_THAT(Logs(), ElementsAre(Line(128, "port:1 list_size:1")));
        Parse(Request(40, 1));
    }
}

TEST_F(UMonitorFrameTest, RefusesToReadNoMessage) {
    char byte = 0;
    const void* const address = &byte;
    TakeNothing();
    const void* const list = UListItem::m_pInstance;
    ClearLogs();
    m_frame->ParseMsg(0, &byte);
    m_frame->ParseMsg(12, nullptr);
    EXPECT_THAT(Logs(),
                ElementsAre(Line(192, Format("error len(0) or str(%p) or m_list_item(%p)", address, list)),
                            Line(192, Format("error len(12) or str((nil)) or m_list_item(%p)", list))));
    ClearLogs();
    m_frame->event_handler(4096, 12, nullptr);
    EXPECT_THAT(Logs(),
                ElementsAre(Line(192, Format("error len(12) or str((nil)) or m_list_item(%p)", list))));
}

TEST_F(UMonitorFrameTest, SaysWhenItHasNoList) {
    Bytes message = Request(39, 1);
    const void* const address = message.data();
    ClearLogs();
    m_frame->ParseMsg(12, reinterpret_cast<char*>(message.data()));
    m_frame->Process();
    EXPECT_THAT(Logs(),
                ElementsAre(Line(192, Format("error len(12) or str(%p) or m_list_item((nil))", address)),
                            Line(192, "list_item is null")));
}

}  // namespace
}  // namespace test
