#include "board/UPort.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "gmock/gmock.h"
#include "support/RecordingPlatform.h"
#include "support/SysTree.h"

namespace {

using dcm::usb::UPort;
using test::Line;
using test::Logs;
using test::Wrote;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kController = "/devices/soc/7600000.hsusb/7600000.dwc3/xhci-hcd.0.auto";

class UPortTest : public ::testing::Test {
protected:
    UPortTest() { Reset(); }
    ~UPortTest() override { Reset(); }

    static void Reset() {
        test::ResetPlatform();
        UPort::m_hub_max_port = std::uint8_t{0};
        UPort::m_board_type = 0U;
    }

    static int Calc(std::uint8_t topport, const std::string& path) {
        return UPort().CalcUsbPort(topport, path.c_str());
    }
    static int Update(const std::string& path) {
        UPort port;
        port.UpdatePort(path.c_str());
        return port.GetPort();
    }
};

TEST_F(UPortTest, BeginsWithAnUnknownPortAndAnUnknownHub) {
    EXPECT_EQ(UPort().GetPort(), 0);
    EXPECT_EQ(UPort::m_hub_max_port, 0);
    EXPECT_EQ(UPort::m_max_port, 2);
    EXPECT_EQ(UPort::m_max_current, 1U);
    EXPECT_EQ(UPort::m_board_type, 0U);
}

TEST_F(UPortTest, ADeviceOnTheInternalHubHasThatHubsPort) {
    EXPECT_EQ(Calc(1, kController + "/usb1/1-1/1-1.2"), 2);
    EXPECT_THAT(Logs(), ElementsAre(Line(64, "pos:1-1.2 pos2:1-1.2 pos3:(null)")));
}

TEST_F(UPortTest, DeviceBehindASecondHubCarriesItsPortInTheTensDigit) {
    EXPECT_EQ(Calc(1, kController + "/usb1/1-1/1-1.2/1-1.2.3"), 32);
    EXPECT_THAT(Logs(), ElementsAre(Line(64, "pos:1-1.2.3 pos2:1-1.2.3 pos3:.3")));
    EXPECT_EQ(Calc(1, kController + "/usb1/1-1/1-1.2/1-1.2.3/1-1.2.3:1.0"), 32);
}

TEST_F(UPortTest, AThirdHubHasNoDigitOfItsOwn) {
    EXPECT_EQ(Calc(1, kController + "/usb1/1-1/1-1.2/1-1.2.3/1-1.2.3.4"), 32);
}

TEST_F(UPortTest, InterfaceZeroHasThePortOfItsDevice) {
    EXPECT_EQ(Calc(1, kController + "/usb1/1-1/1-1.4/1-1.4:1.0"), 4);
    EXPECT_EQ(Calc(1, kController + "/usb1/1-1/1-1.4/1-1.4.2/1-1.4.2:1.0"), 24);
}

TEST_F(UPortTest, AnInterfaceWithAnotherNumberIsTakenForADeviceBehindAHub) {
    EXPECT_EQ(Calc(1, kController + "/usb1/1-1/1-1.4/1-1.4:1.1"), 14);
    EXPECT_THAT(Logs(), ElementsAre(Line(64, "pos:1-1.4:1.1 pos2:1-1.4:1.1 pos3:.1")));
}

TEST_F(UPortTest, WhatHangsBelowAnInterfaceHasTheUnitsDigitOnly) {
    EXPECT_EQ(Calc(1, kController + "/usb1/1-1/1-1.2/1-1.2:1.0/host0/target0:0:0/0:0:0:0/block/sda"), 2);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "port:2")));
    EXPECT_EQ(Calc(1, kController + "/usb1/1-1/1-1.2/1-1.2.3/1-1.2.3:1.0/net/usb0"), 2);
}

TEST_F(UPortTest, TheInternalHubItselfIsPortOne) {
    EXPECT_EQ(Calc(1, kController + "/usb1/1-1"), 1);
    EXPECT_EQ(Calc(2, kController + "/usb2/2-1"), 1);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "topport, port:1 "), Line(128, "topport, port:1 ")));
}

TEST_F(UPortTest, ADeviceOfAnotherBusHasNoPort) {
    EXPECT_EQ(Calc(1, kController + "/usb2/2-1"), 0);
    EXPECT_EQ(Calc(1, kController + "/usb1"), 0);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "unknown port:0"), Line(128, "unknown port:0")));
}

TEST_F(UPortTest, KnowsFourRootBuses) {
    EXPECT_EQ(Calc(3, "/x/usb3/3-1/3-1.2"), 2);
    EXPECT_EQ(Calc(4, "/x/usb4/4-1/4-1.2.3"), 32);
    EXPECT_EQ(Calc(0, "/x/usb1/1-1"), 0);
    EXPECT_EQ(Calc(5, "/x/usb5/5-1"), 0);
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "invalid topport:0"), Line(192, "invalid topport:5")));
}

TEST_F(UPortTest, ANullPathHasNoPort) {
    EXPECT_EQ(UPort().CalcUsbPort(1, nullptr), 0);
    EXPECT_EQ(UPort().CalcUsbPort(0, nullptr), 0);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "devpath is null"), Line(192, "devpath is null")));
}

TEST_F(UPortTest, ReadsAPathOf2048CharactersAndNoLongerOne) {
    const std::string end = "/1-1.2";
    const std::string longest = "/" + std::string(2048 - 1 - end.size(), 'a') + end;
    ASSERT_EQ(longest.size(), 2048U);
    EXPECT_EQ(Calc(1, longest), 2);
    test::ClearLogs();
    EXPECT_EQ(Calc(1, "/" + longest), 0);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "unknown port:0")));
}

TEST_F(UPortTest, CutsAPortThatIsTooLargeToEightBits) {
    EXPECT_EQ(Calc(1, "/1-1.300"), 44);
    EXPECT_EQ(Calc(1, "/1-1.4.26"), (4 + 260) % 256);
    EXPECT_EQ(Calc(1, "/1-1.99999999999999.99999999999999"), (276447231U + 10U * 276447231U) % 256);
    EXPECT_EQ(Calc(1, "/1-1.300/sda"), 44);
    EXPECT_EQ(Calc(1, "/1-1."), 0);
    EXPECT_EQ(Calc(1, "/1-1.x.y"), 0);
}

TEST_F(UPortTest, ASinglePortTakesEveryPath) {
    UPort::m_hub_max_port = std::uint8_t{1};
    EXPECT_EQ(Update("/devices/virtual/block/loop0"), 1);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "1 port hub, port: 1")));
    EXPECT_EQ(Update(kController + "/usb1/1-1/1-1.2/1-1.2.3"), 1);
    UPort port;
    port.UpdatePort(nullptr);
    EXPECT_EQ(port.GetPort(), 1);
}

TEST_F(UPortTest, FindsTheRootBusInThePath) {
    EXPECT_EQ(Update(kController + "/usb1/1-1/1-1.2"), 2);
    EXPECT_EQ(Update(kController + "/usb2/2-1/2-1.1"), 1);
    EXPECT_EQ(Update("/devices/xhci-hcd.1.auto/usb3/3-1/3-1.4"), 4);
    EXPECT_EQ(Update("/devices/xhci-hcd.1.auto/usb4/4-1/4-1.3.2"), 23);
    EXPECT_THAT(Logs(128),
                ElementsAre(Line(128, "usb1, 0 port hub, port: 2"), Line(128, "usb2, 0 port hub, port: 1"),
                            Line(128, "usb3, 0 port hub, port: 4"), Line(128, "usb4, 0 port hub, port: 23")));
}

TEST_F(UPortTest, TakesTheFirstRootBusByNumber) {
    EXPECT_EQ(Update(kController + "/usb2/2-1.4/usb1/1-1.3"), 3);
    EXPECT_THAT(Logs(), Wrote(128, "usb1, 0 port hub, port: 3"));
}

TEST_F(UPortTest, LeavesThePortAloneOnAnotherController) {
    UPort port;
    port.UpdatePort((kController + "/usb1/1-1/1-1.2").c_str());
    test::ClearLogs();
    port.UpdatePort("/devices/ehci/usb1/1-1/1-1.4");
    EXPECT_EQ(port.GetPort(), 2);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "Not a hub : /devices/ehci/usb1/1-1/1-1.4")));
    EXPECT_EQ(Update("/devices/ehci/usb1/1-1/1-1.4"), 0);
}

TEST_F(UPortTest, AsksForNoControllerOnceTheTwoPortHubIsKnown) {
    UPort::m_hub_max_port = std::uint8_t{2};
    EXPECT_EQ(Update("/devices/ehci/usb1/1-1/1-1.4"), 4);
    EXPECT_THAT(Logs(), Wrote(128, "usb1, 2 port hub, port: 4"));
}

TEST_F(UPortTest, LeavesThePortAloneOnAnUnknownBus) {
    UPort port;
    port.UpdatePort((kController + "/usb1/1-1/1-1.2").c_str());
    test::ClearLogs();
    port.UpdatePort((kController + "/usb5/5-1").c_str());
    EXPECT_EQ(port.GetPort(), 2);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "0 port hub, port: 2 ")));
}

TEST_F(UPortTest, LeavesThePortAloneWithoutAPath) {
    UPort port;
    port.UpdatePort(nullptr);
    EXPECT_EQ(port.GetPort(), 0);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "devpath is null")));
}

TEST_F(UPortTest, ForgetsThePortWhenTheKnownBusHasNone) {
    UPort port;
    port.UpdatePort((kController + "/usb1/1-1/1-1.2").c_str());
    port.UpdatePort((kController + "/usb1/9-9").c_str());
    EXPECT_EQ(port.GetPort(), 0);
}

class BoardTest : public UPortTest {
protected:
    test::SysTree sys;

    void SetBoard(const std::string& text) const {
        sys.Set("/devices/soc/soc:common_gpio_default/board_id", text);
    }
};

struct BoardCase {
    const char* id;
    const char* log;
    unsigned type;
    const char* path;
};

TEST_F(BoardTest, TheBoardDecidesWhereTheHostControllerIs) {
    const char* first = "/devices/soc/6a00000.ssusb/6a00000.dwc3/xhci-hcd.0.auto";
    const char* second = "/devices/soc/7600000.hsusb/7600000.dwc3/xhci-hcd.0.auto";
    const BoardCase cases[] = {
        {"X51", "X51 B0", 1, first}, {"T51", "T51 PRE_B1", 2, second}, {"X52", "X52 B1", 3, second},
        {"X53", "X53 B", 4, second}, {"Y99", "Y99 B0", 4, second},     {"X5", "X5 B0", 4, second},
    };
    for (const BoardCase& board : cases) {
        Reset();
        SetBoard(std::string(board.id) + "\n");
        EXPECT_STREQ(UPort::GetBoardHostPath(), board.path) << board.id;
        EXPECT_EQ(UPort::m_board_type, board.type) << board.id;
        EXPECT_THAT(Logs(128), ElementsAre(Line(128, board.log)));
    }
}

TEST_F(BoardTest, AMissingBoardIsTheFirstOneForTheWholeProcess) {
    EXPECT_STREQ(UPort::GetBoardHostPath(), UPort::kBoardUsb1DevPath);
    EXPECT_EQ(UPort::m_board_type, 1U);
    EXPECT_THAT(Logs(128), ElementsAre(Line(128, "board not exist. so B0")));
    SetBoard("X53\n");
    test::ClearLogs();
    EXPECT_STREQ(UPort::GetBoardHostPath(), UPort::kBoardUsb1DevPath);
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(BoardTest, AnEmptyBoardIsAMissingOne) {
    SetBoard("\n");
    EXPECT_STREQ(UPort::GetBoardHostPath(), UPort::kBoardUsb1DevPath);
    EXPECT_THAT(Logs(128), ElementsAre(Line(128, "board not exist. so B0")));
}

TEST_F(BoardTest, IsReadOnceHoweverManyThreadsAsk) {
    // A pipe in the attribute's place: whoever opens it waits for the writer, and only one finds something in
    // it.
    SetBoard("");
    const std::string attribute = sys.Root() + "/devices/soc/soc:common_gpio_default/board_id";
    ASSERT_EQ(unlink(attribute.c_str()), 0);
    ASSERT_EQ(mkfifo(attribute.c_str(), 0600), 0);

    std::vector<const char*> paths(3, nullptr);
    std::atomic<std::size_t> asking = 0;
    std::vector<std::thread> threads;
    for (const char*& path : paths)
        threads.emplace_back([&path, &asking] {
            ++asking;
            path = UPort::GetBoardHostPath();
        });
    const int writer = open(attribute.c_str(), O_WRONLY | O_CLOEXEC);
    while (asking < threads.size())
        std::this_thread::yield();
    for (int turn = 0; turn < 1000; ++turn)
        std::this_thread::yield();  // time for those who wrongly open the attribute as well
    EXPECT_EQ(write(writer, "X53\n", 4), 4);
    close(writer);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_THAT(paths,
                ElementsAre(UPort::kBoardUsb2DevPath, UPort::kBoardUsb2DevPath, UPort::kBoardUsb2DevPath));
    EXPECT_THAT(Logs(), ElementsAre(Line(64, "GetInterfaceString [X53]"), Line(128, "X53 B")));
}

}  // namespace
