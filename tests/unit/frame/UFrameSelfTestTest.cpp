// The hub's self-test, which vehicle diagnosis asks for.
#include <cerrno>
#include <memory>

#include "FrameBench.h"
#include "board/UPort.h"
#include "frame/UFrame.h"
#include "gmock/gmock.h"
#include "notify/UNotifier.h"
#include "support/Format.h"
#include "support/SysTree.h"

namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr unsigned long kDiagnosis = 0x0800000000000000;
const std::string kHost = dcm::usb::UPort::kBoardUsb2DevPath;

struct UFrameSelfTest : FrameBench {
    void SetUp() override {
        FrameBench::SetUp();
        dcm::usb::UPort::m_board_type = 4;  // the host controller is kHost
        dcm::usb::UPort::m_hub_max_port = 2;
        Make();
    }
    void TearDown() override {
        m_frame.reset();
        dcm::usb::UPort::m_board_type = 0;
        dcm::usb::UPort::m_hub_max_port = 0;
        FrameBench::TearDown();
    }
    void Make() {
        m_frame.reset();
        m_frame = std::make_unique<dcm::usb::UFrame>(Kipc(), Queue(kUsb), std::vector<frame::QueueInfo>());
        ka_log_threshold = 64;
        ClearLogs();
    }
    void Ask(const std::string& hex = "83 60 31 80 AA 03") {
        Bytes request = Hex(hex);
        m_frame->event_handler(kDiagnosis, static_cast<unsigned>(request.size()),
                               reinterpret_cast<char*>(request.data()));
    }
    // What the hub's driver answers.
    void Reads(const std::string& text) { m_sys.Set(kHost + "/ka_hub_diag", text + "\n"); }

    static std::string Command(int value) {
        return "echo " + std::to_string(value) + " > /sys" + kHost + "/ka_hub_diag";
    }
    static Packet Answer(const std::string& hex) { return {kDiagnosis, Hex(hex)}; }

    SysTree m_sys;
    std::unique_ptr<dcm::usb::UFrame> m_frame;
};

TEST_F(UFrameSelfTest, StartsTheTestReadsItAfterASecondAndStopsIt) {
    Reads("240");
    Ask();
    EXPECT_THAT(Deeds(), ElementsAre(Command(1), "sleep 1", Command(0)));
    EXPECT_THAT(Logs(160), IsEmpty());
    EXPECT_THAT(Logs(192), IsEmpty());
    EXPECT_THAT(Logs(), Wrote(128, "result is 0xf0"));
}

TEST_F(UFrameSelfTest, FourSocketsInOrder) {
    Reads("240");
    Ask();
    EXPECT_THAT(
        Packets(),
        ElementsAre(Answer("01 60 19 06 66 00"), Answer("01 60 19 06 67 00"), Answer("01 60 19 06 68 00"),
                    Answer("01 60 19 06 69 00"), Answer("01 60 19 06 6A 00"), Answer("01 60 19 06 6B 00"),
                    Answer("01 60 19 06 6C 00"), Answer("01 60 19 06 6D 00"), Answer("01 60 31 80 AA 01")));
}

TEST_F(UFrameSelfTest, FourSocketsOpen) {
    Reads("0");
    Ask();
    EXPECT_THAT(
        Packets(),
        ElementsAre(Answer("01 60 19 06 66 01"), Answer("01 60 19 06 67 00"), Answer("01 60 19 06 68 01"),
                    Answer("01 60 19 06 69 00"), Answer("01 60 19 06 6A 01"), Answer("01 60 19 06 6B 00"),
                    Answer("01 60 19 06 6C 01"), Answer("01 60 19 06 6D 00"), Answer("01 60 31 80 AA 01")));
}

TEST_F(UFrameSelfTest, ATestThatCouldNotRunTellsNothingOfTheSockets) {
    Reads("255");
    Ask();
    EXPECT_THAT(Packets(), ElementsAre(Answer("01 60 31 80 AA 02")));
    EXPECT_THAT(Logs(), Wrote(128, "result is 0xff"));
    EXPECT_THAT(Deeds(), ElementsAre(Command(1), "sleep 1", Command(0)));
}

TEST_F(UFrameSelfTest, EveryResultTellsOfEachSocketByItsTwoBits) {
    for (int result = 0; result < 255; ++result) {
        Reads(std::to_string(result));
        ClearPackets();
        Ask();
        std::vector<Packet> expected;
        for (int socket = 0; socket < 4; ++socket) {
            const bool open = (result & (0x80 >> socket)) == 0;
            const bool shorted = (result & (0x08 >> socket)) != 0;
            expected.push_back(Answer(Format("01 60 19 06 %02X %02X", 0x66 + 2 * socket, open)));
            expected.push_back(Answer(Format("01 60 19 06 %02X %02X", 0x67 + 2 * socket, shorted)));
        }
        expected.push_back(Answer("01 60 31 80 AA 01"));
        ASSERT_EQ(Packets(), expected) << "result " << result;
    }
}

TEST_F(UFrameSelfTest, WithoutTheTwoPortHubThereIsNothingToTest) {
    Reads("240");
    for (const std::uint8_t ports : {0, 1, 3}) {
        dcm::usb::UPort::m_hub_max_port = ports;
        ClearPackets();
        ClearLogs();
        Ask();
        EXPECT_THAT(Packets(), ElementsAre(Answer("01 60 31 80 AA 02")));
        EXPECT_THAT(Logs(192), ElementsAre(Line(192, "the ka hub doesn't exist.")));
    }
    EXPECT_THAT(Deeds(), IsEmpty());
}

TEST_F(UFrameSelfTest, ATestThatCannotBeStartedIsStoppedAllTheSame) {
    TheStage().failing_command = ENOENT;
    TheStage().failing_text = "echo 1";
    Ask();
    EXPECT_THAT(Deeds(), ElementsAre(Command(1), Command(0)));
    EXPECT_THAT(Packets(), ElementsAre(Answer("01 60 31 80 AA 02")));
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "error in diag start No such file or directory")));
}

TEST_F(UFrameSelfTest, ATestThatCannotBeStoppedIsToldAsItWas) {
    Reads("240");
    TheStage().failing_command = EAGAIN;
    TheStage().failing_text = "echo 0";
    Ask();
    ASSERT_EQ(Packets().size(), 9u);
    EXPECT_EQ(Packets()[8], Answer("01 60 31 80 AA 01"));
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "error in diag stop Resource temporarily unavailable")));
}

TEST_F(UFrameSelfTest, AHubThatAnswersNothingReadsAsZero) {
    Ask();
    ASSERT_EQ(Packets().size(), 9u);
    EXPECT_EQ(Packets()[0], Answer("01 60 19 06 66 01"));
    EXPECT_THAT(Logs(), Wrote(128, "result is 0x0"));
}

TEST_F(UFrameSelfTest, NeedsItsNotifier) {
    TheStage().no_memory_for = {sizeof(dcm::usb::UNotifier)};
    Make();
    Ask();
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "notifier is null")));
    EXPECT_THAT(Deeds(), IsEmpty());
}

TEST_F(UFrameSelfTest, OnlyTheWholeRequestStartsIt) {
    for (const char* request :
         {"83 60 31 80 AA 02", "83 60 31 80 AA", "83 60 31 80 AB 03", "83 60 31 81 AA 03",
          "83 60 22 80 AA 03", "83 61 31 80 AA 03", "82 60 31 80 AA 03"})
        Ask(request);
    EXPECT_THAT(Deeds(), IsEmpty());
    EXPECT_THAT(Packets(), IsEmpty());
    EXPECT_EQ(Logs().size(), 7u);
    EXPECT_EQ(Logs()[0], Line(128, "unknown diag packet cmd:83 subcmd:60,31 rdid:80,aa"));
}

}  // namespace
}  // namespace test
