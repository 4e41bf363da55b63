#include "port/UListPortState.h"

#include "PortBench.h"
#include "board/UPort.h"
#include "support/FailingMutex.h"

namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using namespace dcm::usb;

// The private vector, so that an entry can be missing.
std::vector<dcm::usb::UPortState*>& StatesOf(dcm::usb::UListPortState& list);
template <std::vector<dcm::usb::UPortState*> dcm::usb::UListPortState::*member>
struct Opened {
    friend std::vector<dcm::usb::UPortState*>& StatesOf(dcm::usb::UListPortState& list) {
        return list.*member;
    }
};
template struct Opened<&dcm::usb::UListPortState::m_port_lists>;

const std::string kBus = "/devices/soc/7600000.hsusb/7600000.dwc3/xhci-hcd.0.auto/usb1";

Phone PhoneAt(const std::string& place, E_DEV_TYPE type = DEV_TYPE_PHONE) {
    Phone phone;
    phone.type = type;
    phone.devpath = kBus + place;
    return phone;
}
const Phone kPhone = PhoneAt("/1-1/1-1.2");
const Phone kApple = PhoneAt("/1-1/1-1.2", DEV_TYPE_APPLE);

class UListPortState : public PortBench {
protected:
    void SetUp() override {
        PortBench::SetUp();
        fail_mutex_init = fail_mutex_destroy = false;
        List().SetNotifier(&Notifier());
        Forget();
    }
    void TearDown() override {
        fail_mutex_init = fail_mutex_destroy = false;
        PortBench::TearDown();
    }

    static dcm::usb::UListPortState& List() { return *dcm::usb::UListPortState::GetInstance(); }

    // The state of a port that was seen before, in `state`.
    dcm::usb::UPortState& Seen(unsigned char port, E_CON_STATE state = STATE_DETACH,
                               const Phone& phone = kPhone) {
        dcm::usb::UPortState& known = *List().GetPortState(port, &Notifier());
        UMsgNode message = NodeMessage(dcm::MSGID_USB_ADD, phone, port);
        known.UpdateNode(&message);
        known.SetState(state);
        Forget();
        return known;
    }

    static E_CON_STATE StateOf(unsigned char port) { return List().GetPortState(port)->GetState(); }

    static void ProcessUsb(std::uint32_t id, unsigned char port) {
        UMsgNode message = NodeMessage(static_cast<dcm::E_MSGID>(id), kPhone, port);
        List().ProcessUsbDetection(&message);
    }
    static void ProcessMode(std::uint32_t id, const Phone& phone, unsigned char port) {
        UMsgChMode message = ModeRequest(static_cast<dcm::E_MSGID>(id), phone, port, "dev-7");
        List().ProcessMode(&message);
    }
    static UMsgHeader Short(std::uint32_t id, unsigned char port, std::uint8_t argument = 0) {
        return ShortMessage(static_cast<dcm::E_MSGID>(id), port, argument);
    }
};

// --- the list itself ---

TEST_F(UListPortState, ExistsOnceFromItsFirstUseToItsRelease) {
    dcm::usb::UListPortState::Release();
    auto* const list = dcm::usb::UListPortState::GetInstance();
    EXPECT_EQ(dcm::usb::UListPortState::GetInstance(), list);
    dcm::usb::UListPortState::Release();
    EXPECT_EQ(dcm::usb::UListPortState::m_pInstance, nullptr);
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UListPortState, LogsThePortOnWhichCarPlayWasStarted) {
    List().SetCarplayPort(2);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "carplay port set 2")));
}

TEST_F(UListPortState, SaysThatItsMutexCannotBeMade) {
    dcm::usb::UListPortState::Release();
    fail_mutex_init = true;
    dcm::usb::UListPortState::GetInstance();
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "failed to init mutex")));
}

TEST_F(UListPortState, SaysThatItsMutexCannotBeDestroyed) {
    fail_mutex_destroy = true;
    dcm::usb::UListPortState::Release();
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "failed to destroy mutex")));
}

TEST_F(UListPortState, MakesStatesAndCountsThem) {
    auto* const two = List().InsertPortState(2, &Notifier());
    auto* const thirtyTwo = List().InsertPortState(32, &Notifier());
    EXPECT_EQ(two->GetPort(), 2);
    EXPECT_EQ(two->GetState(), STATE_DETACH);
    EXPECT_EQ(thirtyTwo->GetPort(), 32);
    EXPECT_THAT(Logs(),
                ElementsAre(Line(128, "port:2 port_lists_size:1"), Line(128, "port:32 port_lists_size:2")));
}

TEST_F(UListPortState, MakesNoStateForPort0OrWithoutANotifierOrMemory) {
    EXPECT_EQ(List().InsertPortState(0, &Notifier()), nullptr);
    EXPECT_EQ(List().InsertPortState(2, nullptr), nullptr);
    TheStage().no_memory_for = {sizeof(dcm::usb::UPortState)};
    EXPECT_EQ(List().InsertPortState(2, &Notifier()), nullptr);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "port0 is invalid"), Line(192, "parameter notifier is null"),
                                    Line(192, "failed to new portstate instance")));
    EXPECT_THAT(StatesOf(List()), IsEmpty());
}

TEST_F(UListPortState, FindsTheFirstStateByNumberOrByUnitsDigit) {
    EXPECT_EQ(List().FindPortState(2, false), nullptr);
    EXPECT_EQ(List().FindPortState(2, true), nullptr);
    auto* const thirtyTwo = List().InsertPortState(32, &Notifier());
    auto* const two = List().InsertPortState(2, &Notifier());
    ForgetStory();
    EXPECT_EQ(List().FindPortState(2, false), two);
    EXPECT_EQ(List().FindPortState(2, true), thirtyTwo);
    EXPECT_EQ(List().FindPortState(32, false), thirtyTwo);
    EXPECT_EQ(List().FindPortState(32, true), nullptr);  // the argument is compared as it is
    EXPECT_EQ(List().FindPortState(12, false), nullptr);
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UListPortState, SeesNothingBehindAMissingEntry) {
    auto* const one = List().InsertPortState(1, &Notifier());
    List().InsertPortState(2, &Notifier());
    auto& states = StatesOf(List());
    states.insert(states.begin() + 1, nullptr);
    ForgetStory();
    EXPECT_EQ(List().FindPortState(1, false), one);
    EXPECT_EQ(List().FindPortState(2, false), nullptr);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "cur_item is null")));
    List().DeleteAllPortStates();
    EXPECT_THAT(states, IsEmpty());
}

TEST_F(UListPortState, OnlyOneOfTheLookUpsMakesAState) {
    EXPECT_EQ(List().GetPortState(2), nullptr);
    EXPECT_THAT(StatesOf(List()), IsEmpty());
    auto* const two = List().GetPortState(2, &Notifier());
    ASSERT_NE(two, nullptr);
    EXPECT_EQ(List().GetPortState(2, &Notifier()), two);
    EXPECT_EQ(List().GetPortState(2), two);
    EXPECT_EQ(List().GetPortState(12), nullptr);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "port:2 port_lists_size:1")));
}

TEST_F(UListPortState, Port0IsNoPort) {
    Seen(2);
    EXPECT_EQ(List().GetPortState(0), nullptr);
    EXPECT_EQ(List().GetPortState(0, &Notifier()), nullptr);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "port0 is invalid"), Line(192, "port0 is invalid")));
}

// --- devices ---

TEST_F(UListPortState, ADeviceOnANewPortMakesItsStateAndIsTakenUp) {
    ProcessUsb(dcm::MSGID_USB_ADD, 32);
    EXPECT_EQ(Story().at(0), "128 port:32 port_lists_size:1");
    EXPECT_EQ(Story().at(1), "128 port32 STATE_DETACH");
    EXPECT_EQ(StateOf(32), STATE_ATTACH);
    ProcessUsb(dcm::MSGID_USB_REMOVE, 32);
    EXPECT_EQ(StateOf(32), STATE_DETACH);
    EXPECT_THAT(StatesOf(List()), ::testing::SizeIs(1));
}

TEST_F(UListPortState, ADeferredRemovalAsksThePortFirst) {
    TheStage().results["DiscernPortStatus"] = {2};
    Seen(2, STATE_AA_CHANGING);
    UMsgNode message = NodeMessage(dcm::MSGID_USB_REMOVE, kPhone, 2);
    List().ProcessDeferredUsbDetection(&message);
    EXPECT_THAT(Deeds(), ElementsAre("DiscernPortStatus port 2"));
    EXPECT_EQ(StateOf(2), STATE_DETACH);
    message.port = 1;
    List().ProcessDeferredUsbDetection(&message);  // makes the state
    EXPECT_EQ(StateOf(1), STATE_DETACH);
}

TEST_F(UListPortState, HidsReachTheirPort) {
    Seen(2, STATE_ATTACH, kApple);
    UMsgHidNode message = Short(dcm::MSGID_HID_ADD, 2);
    List().ProcessHidDetection(&message);
    EXPECT_THAT(DrainMonitor(), ElementsAre("43 port 2"));
    ForgetStory();
    message = Short(dcm::MSGID_HID_REMOVE, 2);
    List().ProcessHidDetection(&message);
    EXPECT_THAT(Story(), ElementsAre("128 port2 STATE_ATTACH"));
    message = Short(dcm::MSGID_HID_REMOVE, 3);
    List().ProcessHidDetection(&message);
    EXPECT_EQ(StateOf(3), STATE_DETACH);
}

TEST_F(UListPortState, TtysBelongToThePortWhereCarPlayWasStarted) {
    TheStage().results["DiscernCPCapability"] = {1};
    Seen(1, STATE_CP_CHANGING, kApple);
    Seen(2, STATE_CP_CHANGING, kApple);
    List().SetCarplayPort(1);
    UMsgTtyNode message = Short(dcm::MSGID_TTY_ADD, 2);
    List().ProcessTtyDetection(&message);
    EXPECT_EQ(StateOf(1), STATE_CP);
    EXPECT_EQ(StateOf(2), STATE_CP_CHANGING);
    ForgetStory();
    message = Short(dcm::MSGID_TTY_REMOVE, 2);
    List().ProcessTtyDetection(&message);
    EXPECT_THAT(Story(), ElementsAre("128 port1 STATE_CP"));
    message = Short(dcm::MSGID_TTY_CHANGE, 2);
    List().ProcessTtyDetection(&message);
    EXPECT_EQ(StateOf(1), STATE_DETACH);
    EXPECT_EQ(StateOf(2), STATE_CP_CHANGING);
}

TEST_F(UListPortState, TtysMakeNoState) {
    UMsgTtyNode message = Short(dcm::MSGID_TTY_ADD, 2);
    List().ProcessTtyDetection(&message);  // before CarPlay was ever started
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "port0 is invalid"), Line(192, "port_state is null")));
    List().SetCarplayPort(2);
    ForgetStory();
    List().ProcessTtyDetection(&message);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "port_state is null")));
    EXPECT_THAT(StatesOf(List()), IsEmpty());
}

// --- requests ---

TEST_F(UListPortState, ARequestIsForThePortOfItsDevicePath) {
    UMsgChMode message = ModeRequest(dcm::MSGID_REQ_AA_MODE, PhoneAt("/1-1/1-1.2/1-1.2.3"), 1, "dev-7");
    EXPECT_TRUE(List().ModulateMsg(&message));
    EXPECT_EQ(message.port, 32);
    EXPECT_THAT(Logs(), Wrote(128, "port 1 > 32"));
    ForgetStory();
    EXPECT_FALSE(List().ModulateMsg(nullptr));
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "msg is null")));
}

TEST_F(UListPortState, ARequestIsAnsweredByThePortOfItsDevicePath) {
    Seen(1);
    Seen(2);
    ProcessMode(dcm::MSGID_REQ_AA_MODE, kPhone, 1);
    EXPECT_THAT(DrainSdcm(), ElementsAre("5 result 1 port 2 04e8:6860 S1 " + kPhone.devpath + " dev-7"));
    EXPECT_THAT(Logs(), Wrote(160, "port2 STATE_DETACH, so can't change"));
}

TEST_F(UListPortState, EachRequestHasItsOwnAnswer) {
    const std::pair<int, int> answers[] = {{12, 5}, {13, 6}, {14, 7}, {15, 8}, {16, 9}, {17, 10}};
    for (const auto& [id, answer] : answers) {
        Seen(2);
        ProcessMode(id, kPhone, 2);
        EXPECT_THAT(DrainSdcm(), ElementsAre(Format("%d result 1 port 2 04e8:6860 S1 %s dev-7", answer,
                                                    kPhone.devpath.c_str())));
    }
}

TEST_F(UListPortState, ARequestForAPortThatNeverHadADeviceIsNotAnswered) {
    for (unsigned id = dcm::MSGID_REQ_AA_MODE; id <= dcm::MSGID_REQ_RESET_MODE; ++id) {
        ForgetStory();
        ProcessMode(id, kPhone, 2);
        EXPECT_THAT(Logs(192), ElementsAre(Line(192, "port_state is null")));
    }
    UMsgSearch search = Short(dcm::MSGID_SEARCH, 2);
    ForgetStory();
    List().ProcessSearch(&search);
    EXPECT_THAT(Logs(), ElementsAre(Line(160, "port_state is null")));
    EXPECT_THAT(StatesOf(List()), IsEmpty());
    EXPECT_THAT(DrainSdcm(), IsEmpty());
}

TEST_F(UListPortState, APathWithoutAPortIsPort0) {
    Seen(2);
    Phone nowhere = kPhone;
    nowhere.devpath = "/devices/virtual/phone";
    ProcessMode(dcm::MSGID_REQ_AA_MODE, nowhere, 2);
    EXPECT_THAT(Logs(), Wrote(128, "port 2 > 0"));
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "port0 is invalid"), Line(192, "port_state is null")));
    EXPECT_THAT(DrainSdcm(), IsEmpty());
}

TEST_F(UListPortState, AnAcceptedCarPlayRequestNotesTheUnitsPort) {
    const Phone behind_a_hub = PhoneAt("/1-1/1-1.2/1-1.2.3", DEV_TYPE_APPLE);
    PutNode(behind_a_hub, 32);
    Seen(32, STATE_CP_SUPPORT, behind_a_hub);
    ProcessMode(dcm::MSGID_REQ_CP_MODE, behind_a_hub, 1);
    EXPECT_EQ(StateOf(32), STATE_CP_CHANGING);
    EXPECT_EQ(Logs().back(), Line(128, "carplay port set 2"));
    // Looked up exactly: a tty of a phone behind a second hub finds no state.
    UMsgTtyNode tty = Short(dcm::MSGID_TTY_ADD, 2);
    ForgetStory();
    List().ProcessTtyDetection(&tty);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "port_state is null")));
}

TEST_F(UListPortState, ARefusedCarPlayRequestNotesNothing) {
    Seen(2, STATE_ATTACH, kApple);
    ProcessMode(dcm::MSGID_REQ_CP_MODE, kApple, 2);
    EXPECT_THAT(Logs(), Not(Wrote(128, "carplay port set 2")));
}

TEST_F(UListPortState, AnIPhoneIsInCarLifeASecondAfterTheAnswer) {
    PutNode(kApple, 2);
    Seen(2, STATE_ATTACH, kApple);
    ProcessMode(dcm::MSGID_REQ_ICL_MODE, kApple, 2);
    const std::vector<std::string> story = Story();
    ASSERT_GE(story.size(), 4u);
    EXPECT_THAT(std::vector<std::string>(story.end() - 4, story.end()),
                ElementsAre("128 port2 STATE_ATTACH->STATE_CL_CHANGING",
                            "128 msgID:9 result:0 port:2 vid:4e8 pid:6860", "sleep 1",
                            "128 port2 STATE_CL_CHANGING->STATE_CL"));
}

TEST_F(UListPortState, ARefusedCarLifeRequestWaitsForNothing) {
    Seen(2, STATE_CP, kApple);
    ProcessMode(dcm::MSGID_REQ_ICL_MODE, kApple, 2);
    EXPECT_EQ(StateOf(2), STATE_CP);
    EXPECT_THAT(Deeds(), IsEmpty());
}

TEST_F(UListPortState, ASearchIsForItsPortExactly) {
    Seen(2, STATE_ATTACH);
    Seen(32, STATE_ATTACH);
    UMsgSearch search = Short(dcm::MSGID_SEARCH, 2);
    List().ProcessSearch(&search);
    EXPECT_THAT(DrainSdcm(),
                ElementsAre("1 port 2 type 9 04e8:6860 class ff speed 3 capa 0,0,0,0 S1 Phone Maker " +
                            kPhone.devpath));
}

// --- timers and engineering menu ---

TEST_F(UListPortState, TimersReachTheirPort) {
    Seen(2, STATE_AA_CHANGING);
    UMsgTimeout message = Short(dcm::MSGID_CH_TIMEOUT, 2);
    List().ProcessTimeout(&message);
    EXPECT_EQ(StateOf(2), STATE_ATTACH);
    TheStage().results["DiscernPortStatus"] = {2};
    Seen(2, STATE_CP_RESETTING);
    message = Short(dcm::MSGID_CARPLAY_TIMEOUT, 2);
    List().ProcessTimeout(&message);
    EXPECT_EQ(StateOf(2), STATE_DETACH);
    message.port = 3;
    List().ProcessTimeout(&message);  // makes the state
    EXPECT_THAT(Logs(), Wrote(160, "port3 STATE_DETACH, so not send"));
}

TEST_F(UListPortState, ThePollReachesItsPort) {
    TheStage().results["DiscernCPCapability"] = {1};
    Seen(2, STATE_ATTACH, kApple);
    UMsgCarplayCapa message = Short(dcm::MSGID_CARPLAY_CAPA, 2);
    List().ProcessCarplayCapa(&message);
    EXPECT_EQ(StateOf(2), STATE_CP_SUPPORT);
    message.port = 3;
    List().ProcessCarplayCapa(&message);
    EXPECT_EQ(StateOf(3), STATE_DETACH);
}

TEST_F(UListPortState, TheEngineeringMenuMakesAState) {
    List().ProcessSignalQualityTest(1, true);
    List().ProcessHubMode(2, HUB_DEVICE);
    EXPECT_THAT(Story(), ElementsAre("128 port:1 port_lists_size:1", "128 port1 STATE_DETACH trigger:1",
                                     "StartEyePattern port 1 on", "128 port:2 port_lists_size:2",
                                     "128 port2 STATE_DETACH, so can't change"));
    Seen(2, STATE_CP);
    List().ProcessHubMode(2, HUB_DEVICE);
    EXPECT_THAT(Deeds(), ElementsAre("StartHubMode port 2 mode 2"));
}

// --- what is wrong ---

TEST_F(UListPortState, UnknownNumbersAreOnlyLogged) {
    Seen(2, STATE_ATTACH);
    List().SetCarplayPort(2);
    ForgetStory();
    ProcessUsb(22, 2);
    UMsgHeader message = Short(20, 2);
    List().ProcessHidDetection(&message);
    message = Short(23, 2);
    List().ProcessTtyDetection(&message);
    message = Short(47, 2);
    List().ProcessTimeout(&message);
    EXPECT_THAT(Logs(), ElementsAre(Line(160, "unknown msgID:22"), Line(160, "unknown msgID:20"),
                                    Line(160, "unknown msgID:23"), Line(160, "unknown command:47")));
    ProcessMode(11, kPhone, 2);
    EXPECT_EQ(Logs().back(), Line(160, "unknown msgID:11"));
    ProcessMode(18, kPhone, 2);
    EXPECT_EQ(Logs().back(), Line(160, "unknown msgID:18"));
    EXPECT_EQ(StateOf(2), STATE_ATTACH);
    EXPECT_THAT(DrainSdcm(), IsEmpty());
}

TEST_F(UListPortState, Port0IsRefusedInEveryMessage) {
    UMsgNode node = NodeMessage(dcm::MSGID_USB_ADD, kPhone, 0);
    UMsgHeader message = Short(dcm::MSGID_HID_ADD, 0);
    List().ProcessUsbDetection(&node);
    List().ProcessDeferredUsbDetection(&node);
    List().ProcessHidDetection(&message);
    List().ProcessTimeout(&message);
    List().ProcessCarplayCapa(&message);
    List().ProcessSignalQualityTest(0, true);
    List().ProcessHubMode(0, HUB_HOST);
    std::vector<LogLine> lines;
    for (int count = 0; count < 7; ++count)
        lines.insert(lines.end(), {Line(192, "port0 is invalid"), Line(192, "port_state is null")});
    EXPECT_EQ(Logs(), lines);
    ForgetStory();
    List().ProcessSearch(&message);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "port0 is invalid"), Line(160, "port_state is null")));
    EXPECT_THAT(StatesOf(List()), IsEmpty());
}

void ProcessNothing(dcm::usb::UListPortState& list) {
    list.ProcessMode(nullptr);
    list.ProcessSearch(nullptr);
    list.ProcessUsbDetection(nullptr);
    list.ProcessDeferredUsbDetection(nullptr);
    list.ProcessHidDetection(nullptr);
    list.ProcessTtyDetection(nullptr);
    list.ProcessTimeout(nullptr);
    list.ProcessCarplayCapa(nullptr);
}

TEST_F(UListPortState, MessagesThatAreMissingAreOnlyLogged) {
    ProcessNothing(List());
    EXPECT_EQ(Logs(), std::vector<LogLine>(8, Line(192, "msg is null")));
    EXPECT_THAT(StatesOf(List()), IsEmpty());
}

TEST_F(UListPortState, WithoutANotifierNothingIsProcessed) {
    Seen(2, STATE_CP, kApple);
    List().SetNotifier(nullptr);
    ProcessUsb(dcm::MSGID_USB_ADD, 2);
    ProcessMode(dcm::MSGID_REQ_AA_MODE, kPhone, 2);
    ProcessNothing(List());
    List().ProcessSignalQualityTest(2, true);
    List().ProcessHubMode(2, HUB_HOST);
    EXPECT_EQ(Logs(), std::vector<LogLine>(12, Line(192, "notifier is null")));
    EXPECT_THAT(Deeds(), IsEmpty());
    EXPECT_EQ(StateOf(2), STATE_CP);
}

}  // namespace
}  // namespace test
