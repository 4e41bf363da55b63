// Hub and ports: which commands run, in which order, under the lock or not.
#include <cerrno>
#include <cstring>

#include "board/UPort.h"
#include "gmock/gmock.h"
#include "support/Format.h"
#include "support/SysTree.h"
#include "unit/access/AccessorBench.h"

#define HOST "/devices/soc/6a00000.ssusb/6a00000.dwc3/xhci-hcd.0.auto"

namespace test {
namespace {

using dcm::usb::E_HUB_MODE;
using dcm::usb::E_KA_HUB_CONTROL;
using dcm::usb::E_KA_TESTMODE;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kStatusPath = HOST "/ka_hub_port_status";

using HubControl = AccessorBench;

TEST_F(HubControl, SelectsThePortBeforeItWritesTheMode) {
    EXPECT_EQ(Accessor().ControlKaHub(dcm::usb::HUB_DEVICE, 2), 0);
    EXPECT_THAT(Deeds(), ElementsAre("locked: echo 2 > /sys" HOST "/port_sel",
                                     "locked: echo 2 > /sys" HOST "/ka_hub_control"));
    EXPECT_THAT(Logs(),
                ElementsAre(Line(128, "port2 mode:HUB_DEVICE"), Line(128, "echo 2 > /sys" HOST "/port_sel"),
                            Line(128, "echo 2 > /sys" HOST "/ka_hub_control")));
    EXPECT_EQ(Locks(), 1);
}

TEST_F(HubControl, WritesAModeAsItsNumberAndLogsItAsItsName) {
    const std::vector<std::pair<int, std::string>> modes = {
        {1, "HUB_HOST"}, {2, "HUB_DEVICE"}, {3, "HUB_OFF"}, {4, "HUB_ON"}};
    for (const auto& [mode, name] : modes) {
        Renew();
        EXPECT_EQ(Accessor().ControlKaHub(static_cast<E_KA_HUB_CONTROL>(mode), 1), 0);
        EXPECT_THAT(Deeds(),
                    ElementsAre("locked: echo 1 > /sys" HOST "/port_sel",
                                "locked: echo " + std::to_string(mode) + " > /sys" HOST "/ka_hub_control"));
        EXPECT_THAT(Logs(), Wrote(128, "port1 mode:" + name));
    }
}

TEST_F(HubControl, RefusesModesThatItDoesNotKnow) {
    for (const int mode : {0, 5, -1, 255, 1 << 30}) {
        ClearLogs();
        EXPECT_EQ(Accessor().ControlKaHub(static_cast<E_KA_HUB_CONTROL>(mode), 1), -1);
        EXPECT_EQ(Accessor().StartHubMode(1, static_cast<E_HUB_MODE>(mode)), -1);
        const LogLine refusal = Line(160, Format("unknown mode:%d", mode));
        EXPECT_THAT(Logs(), ElementsAre(refusal, refusal));
    }
    EXPECT_THAT(Deeds(), IsEmpty());
    EXPECT_EQ(Locks(), 0);
}

TEST_F(HubControl, SetsTheHubModeThatTheEngineeringMenuAsksFor) {
    for (int mode = 1; mode <= 4; ++mode) {
        Renew();
        EXPECT_EQ(Accessor().StartHubMode(2, static_cast<E_HUB_MODE>(mode)), 0);
        EXPECT_THAT(Deeds(),
                    ElementsAre("locked: echo 2 > /sys" HOST "/port_sel",
                                "locked: echo " + std::to_string(mode) + " > /sys" HOST "/ka_hub_control"));
    }
}

TEST_F(HubControl, WritesNoModeWhenThePortCannotBeSelected) {
    FailCommand(0, ENOMEM);
    EXPECT_EQ(Accessor().ControlKaHub(dcm::usb::HUB_OFF, 3), -1);
    EXPECT_THAT(Deeds(), ElementsAre("locked: echo 3 > /sys" HOST "/port_sel"));
    EXPECT_THAT(Logs(),
                ElementsAre(Line(128, "port3 mode:HUB_OFF"), Line(128, "echo 3 > /sys" HOST "/port_sel"),
                            Line(192, "error in port_sel 3 Cannot allocate memory")));
    ExpectAllGivenBack();
}

TEST_F(HubControl, SaysThatTheModeCouldNotBeWritten) {
    FailCommand(1, EAGAIN);
    EXPECT_EQ(Accessor().ControlKaHub(dcm::usb::HUB_OFF, 1), -1);
    EXPECT_THAT(Logs(),
                ElementsAre(Line(128, "port1 mode:HUB_OFF"), Line(128, "echo 1 > /sys" HOST "/port_sel"),
                            Line(128, "echo 3 > /sys" HOST "/ka_hub_control"),
                            Line(192, "error in ka_hub_control 3 Resource temporarily unavailable")));
    ExpectAllGivenBack();
}

TEST_F(HubControl, IsBelowTheControllerOfTheBoardAtHand) {
    dcm::usb::UPort::m_board_type = 3;
    EXPECT_EQ(Accessor().ControlKaHub(dcm::usb::HUB_ON, 1), 0);
    const std::string host = "/devices/soc/7600000.hsusb/7600000.dwc3/xhci-hcd.0.auto";
    EXPECT_THAT(Deeds(), ElementsAre("locked: echo 1 > /sys" + host + "/port_sel",
                                     "locked: echo 4 > /sys" + host + "/ka_hub_control"));
}

using TestMode = AccessorBench;

TEST_F(TestMode, StartsTheEyePatternOnTheSelectedPort) {
    EXPECT_EQ(Accessor().StartEyePattern(2, true), 0);
    EXPECT_THAT(Deeds(), ElementsAre("locked: echo 2 > /sys" HOST "/port_sel",
                                     "locked: echo 4 > /sys" HOST "/testmode"));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "port2 mode:4"), Line(128, "echo 2 > /sys" HOST "/port_sel"),
                                    Line(128, "echo 4 > /sys" HOST "/testmode")));
    EXPECT_EQ(Locks(), 1);
}

TEST_F(TestMode, EndsTheEyePatternWithZero) {
    EXPECT_EQ(Accessor().StartEyePattern(1, false), 0);
    EXPECT_THAT(Deeds(), ElementsAre("locked: echo 1 > /sys" HOST "/port_sel",
                                     "locked: echo 0 > /sys" HOST "/testmode"));
    EXPECT_THAT(Logs(), Wrote(128, "port1 mode:0"));
}

TEST_F(TestMode, IsNotWrittenWhenThePortCannotBeSelected) {
    FailCommand(0, ENOMEM);
    EXPECT_EQ(Accessor().ControlTestMode(dcm::usb::TESTMODE_EYE_PATTERN, 1), -1);
    EXPECT_THAT(Deeds(), ElementsAre("locked: echo 1 > /sys" HOST "/port_sel"));
    EXPECT_THAT(Logs(), Wrote(192, "error in port_sel 1 Cannot allocate memory"));
    ExpectAllGivenBack();
}

TEST_F(TestMode, FailsWithTheTextOfTheHubControl) {
    FailCommand(1, ENOMEM);
    EXPECT_EQ(Accessor().StartEyePattern(1, true), -1);
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "error in ka_hub_control 4 Cannot allocate memory")));
    ExpectAllGivenBack();
}

class PortStatus : public AccessorBench {
protected:
    // The result when the attribute holds this; the last log line follows the reader's own.
    int Status(const std::string& attribute) {
        ClearLogs();
        m_tree.Set(kStatusPath, attribute);
        return Accessor().DiscernPortStatus(2);
    }

    SysTree m_tree;
};

TEST_F(PortStatus, OfOneIsConnected) {
    EXPECT_EQ(Status("1\n"), 1);
    EXPECT_THAT(Deeds(), ElementsAre("locked: echo 2 > /sys" HOST "/port_sel"));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "echo 2 > /sys" HOST "/port_sel"),
                                    Line(128, "E_HUB_PORT_STATUS_CONNECTED")));
}

TEST_F(PortStatus, OfZeroIsDisconnected) {
    EXPECT_EQ(Status("0\n"), 2);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "echo 2 > /sys" HOST "/port_sel"),
                                    Line(128, "E_HUB_PORT_STATUS_DISCONNECTED")));
}

TEST_F(PortStatus, OfAnythingElseIsAnError) {
    for (const char* attribute : {"5\n", "2\n", "10\n", "01f\n", "-1\n"}) {
        EXPECT_EQ(Status(attribute), 0) << attribute;
        EXPECT_THAT(Logs(), ElementsAre(Line(128, "echo 2 > /sys" HOST "/port_sel"),
                                        Line(192, "error in ka_hub_port_status port:2")));
    }
    ExpectAllGivenBack();
}

TEST_F(PortStatus, IsAnErrorWithoutTheAttribute) {
    EXPECT_EQ(Accessor().DiscernPortStatus(1), 0);
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "open fail " + m_tree.Root() + kStatusPath),
                                       Line(192, "error in ka_hub_port_status port:1")));
    ExpectAllGivenBack();
}

TEST_F(PortStatus, IsNotReadWhenThePortCannotBeSelected) {
    FailCommand(0, ENOMEM);
    EXPECT_EQ(Status("1\n"), 0);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "echo 2 > /sys" HOST "/port_sel"),
                                    Line(192, "error in port_sel 2 Cannot allocate memory")));
    ExpectAllGivenBack();
}

using PortReset = AccessorBench;

TEST_F(PortReset, UnbindsTheDeviceAndBindsItASecondLaterWithoutTheLockBetween) {
    EXPECT_EQ(Accessor().ResetPortGeneral(2), 0);
    EXPECT_THAT(Deeds(),
                ElementsAre("locked: echo 1-1.2 > /sys/bus/usb/drivers/usb/unbind", "unlocked: sleep 1 s",
                            "locked: echo 1-1.2 > /sys/bus/usb/drivers/usb/bind"));
    EXPECT_THAT(Logs(),
                ElementsAre(Line(128, "port2"), Line(128, "echo 1-1.2 > /sys/bus/usb/drivers/usb/unbind"),
                            Line(128, "echo 1-1.2 > /sys/bus/usb/drivers/usb/bind")));
    EXPECT_EQ(Locks(), 2);
}

TEST_F(PortReset, BindsAlsoWhenTheDeviceCouldNotBeUnbound) {
    FailCommand(0, ENOMEM);
    EXPECT_EQ(Accessor().ResetPortGeneral(1), 0);
    EXPECT_THAT(Deeds(),
                ElementsAre("locked: echo 1-1.1 > /sys/bus/usb/drivers/usb/unbind", "unlocked: sleep 1 s",
                            "locked: echo 1-1.1 > /sys/bus/usb/drivers/usb/bind"));
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "error in str_off 1 Cannot allocate memory")));
    ExpectAllGivenBack();
}

TEST_F(PortReset, FailsWhenTheDeviceCouldNotBeBound) {
    FailCommand(1, ENOMEM);
    EXPECT_EQ(Accessor().ResetPortGeneral(1), -1);
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "error in str_on 1 Cannot allocate memory")));
    ExpectAllGivenBack();
}

using PowerReset = AccessorBench;

struct Reset {
    const char* name;
    const char* pause;
    int (*run)(dcm::usb::UDevAccessor&, std::uint8_t port);
};
const Reset kResets[] = {
    {"CarPlay", "unlocked: sleep 500000 us",
     [](dcm::usb::UDevAccessor& accessor, std::uint8_t port) {
         return accessor.StartCPPortReset(1, 2, port);
     }},
    {"CarLife", "unlocked: sleep 1 s",
     [](dcm::usb::UDevAccessor& accessor, std::uint8_t port) {
         return accessor.StartCLPortReset(1, 2, port);
     }},
    {"Android Auto", "unlocked: sleep 1 s",
     [](dcm::usb::UDevAccessor& accessor, std::uint8_t port) {
         return accessor.StartAAPortReset(1, 2, port);
     }},
    {"MirrorLink", "unlocked: sleep 1 s",
     [](dcm::usb::UDevAccessor& accessor, std::uint8_t port) { return accessor.StartMLPortReset(port); }},
};

TEST_F(PowerReset, CutsThePowerOfThePortOnTheTwoPortHub) {
    for (const Reset& reset : kResets) {
        SCOPED_TRACE(reset.name);
        Renew();
        SetHubPorts(2);
        EXPECT_EQ(reset.run(Accessor(), 2), 0);
        EXPECT_THAT(Deeds(), ElementsAre("locked: echo 2 > /sys" HOST "/port_sel",
                                         "locked: echo 3 > /sys" HOST "/ka_hub_control", reset.pause,
                                         "locked: echo 2 > /sys" HOST "/port_sel",
                                         "locked: echo 4 > /sys" HOST "/ka_hub_control"));
        EXPECT_THAT(Logs(),
                    ElementsAre(Line(128, "port2 mode:HUB_OFF"), Line(128, "echo 2 > /sys" HOST "/port_sel"),
                                Line(128, "echo 3 > /sys" HOST "/ka_hub_control"),
                                Line(128, "port2 mode:HUB_ON"), Line(128, "echo 2 > /sys" HOST "/port_sel"),
                                Line(128, "echo 4 > /sys" HOST "/ka_hub_control")));
        EXPECT_THAT(UsbCalls(), IsEmpty());
        EXPECT_EQ(Locks(), 2);
    }
}

TEST_F(PowerReset, SwitchesOnWhateverBecameOfSwitchingOff) {
    for (const Reset& reset : kResets) {
        for (int failing = 0; failing < 4; ++failing) {
            SCOPED_TRACE(Format("%s, command %d", reset.name, failing));
            Renew();
            SetHubPorts(2);
            FailCommand(failing, ENOMEM);
            // After a selection that failed no mode is written, so that off or on is one command shorter.
            static const std::size_t kDeeds[] = {4, 5, 4, 5};
            const bool off_failed = failing == 0 || failing == 1;
            EXPECT_EQ(reset.run(Accessor(), 1), off_failed ? 0 : -1);
            EXPECT_THAT(Deeds(), ::testing::SizeIs(kDeeds[failing]));
            EXPECT_EQ(Deeds().back(), failing == 2 ? "locked: echo 1 > /sys" HOST "/port_sel"
                                                   : "locked: echo 4 > /sys" HOST "/ka_hub_control");
            EXPECT_THAT(Deeds(), ::testing::Contains(reset.pause));
            EXPECT_THAT(Logs(192), ::testing::SizeIs(1));
            ExpectAllGivenBack();
        }
    }
}

TEST_F(PowerReset, OfMirrorLinkIsTheGeneralOneWithoutTheTwoPortHub) {
    for (const std::uint8_t ports : {0, 1, 3}) {
        Renew();
        SetHubPorts(ports);
        EXPECT_EQ(Accessor().StartMLPortReset(1), 0);
        EXPECT_THAT(Deeds(),
                    ElementsAre("locked: echo 1-1.1 > /sys/bus/usb/drivers/usb/unbind", "unlocked: sleep 1 s",
                                "locked: echo 1-1.1 > /sys/bus/usb/drivers/usb/bind"));
    }
}

using RemoveUsb = AccessorBench;

TEST_F(RemoveUsb, ForgetsTheDeviceWhoseFolderThePortNumberNames) {
    const std::vector<std::pair<std::uint8_t, std::string>> rows = {
        {1, "1-1.1"},          {2, "1-1.2"},          {9, "1-1.9"},          {10, "1-1.0/1-1.0.1"},
        {12, "1-1.2/1-1.2.1"}, {32, "1-1.2/1-1.2.3"}, {99, "1-1.9/1-1.9.9"},
    };
    for (const auto& [port, folder] : rows) {
        Renew();
        EXPECT_EQ(Accessor().StartRemoveUsb(port), 0);
        const std::string command = "echo 1 > /sys" HOST "/usb1/1-1/" + folder + "/remove";
        EXPECT_THAT(Deeds(), ElementsAre("locked: " + command));
        EXPECT_THAT(Logs(), ElementsAre(Line(128, command)));
    }
}

TEST_F(RemoveUsb, RefusesPortsThatCannotBe) {
    for (const std::uint8_t port : {0, 100, 255}) {
        ClearLogs();
        EXPECT_EQ(Accessor().StartRemoveUsb(port), -1);
        EXPECT_THAT(Logs(), ElementsAre(Line(192, Format("port:%d is invalid", port))));
    }
    EXPECT_THAT(Deeds(), IsEmpty());
    EXPECT_EQ(Locks(), 0);
}

TEST_F(RemoveUsb, SaysThatTheCommandFailed) {
    FailCommand(0, ENOMEM);
    EXPECT_EQ(Accessor().StartRemoveUsb(32), -1);
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "error in remove Cannot allocate memory")));
    ExpectAllGivenBack();
}

using HubPower = AccessorBench;

TEST_F(HubPower, IsCutForHalfASecondWithoutTheLock) {
    Accessor().ResetHubPower();
    EXPECT_THAT(Deeds(),
                ElementsAre("unlocked: echo 1 > /sys/class/gpio/gpio70/value", "unlocked: sleep 500000 us",
                            "unlocked: echo 0 > /sys/class/gpio/gpio70/value"));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "hub 5v off and on"),
                                    Line(128, "echo 1 > /sys/class/gpio/gpio70/value"),
                                    Line(128, "echo 0 > /sys/class/gpio/gpio70/value")));
    EXPECT_EQ(Locks(), 0);
}

TEST_F(HubPower, IsSwitchedOnAlsoWhenItCouldNotBeSwitchedOff) {
    FailCommand(0, ENOMEM);
    Accessor().ResetHubPower();
    EXPECT_EQ(Deeds().size(), 3u);
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "error in hub_off Cannot allocate memory")));
}

TEST_F(HubPower, SaysThatItCouldNotBeSwitchedOn) {
    FailCommand(1, ENOMEM);
    Accessor().ResetHubPower();
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "error in hub_on Cannot allocate memory")));
}

}  // namespace
}  // namespace test
