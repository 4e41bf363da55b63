#include "PortBench.h"
#include "support/FailingMutex.h"
#include "support/SysTree.h"

namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::Not;
using namespace dcm::usb;

// A private code that no probe sets to "already in accessory mode".
std::uint32_t& CarLifeCodeOf(dcm::usb::UPortState& state);
template <std::uint32_t dcm::usb::UPortState::*member>
struct Opened {
    friend std::uint32_t& CarLifeCodeOf(dcm::usb::UPortState& state) { return state.*member; }
};
template struct Opened<&dcm::usb::UPortState::m_cl_capa>;

constexpr E_CON_STATE kAllStates[] = {
    STATE_DETACH,       STATE_ATTACH,       STATE_CP_SUPPORT,   STATE_AA_CHANGING,
    STATE_ML_CHANGING,  STATE_CP_CHANGING,  STATE_CL_CHANGING,  STATE_RESETTING,
    STATE_AA,           STATE_ML,           STATE_CP,           STATE_CL,
    STATE_AA_RESETTING, STATE_ML_RESETTING, STATE_CP_RESETTING, STATE_CL_RESETTING};

const Phone kPhone;
const Phone kApple = {DEV_TYPE_APPLE, 0x05ac, 0x12a8, "A1", "Pad", "Fruit", "/devices/usb1/1-1/1-1.2",
                      0x06,           3};

Phone Accessory(std::uint16_t pid = 0x2D01) {
    Phone phone = kPhone;
    phone.vid = 0x18D1;
    phone.pid = pid;
    return phone;
}

Phone Other() {
    Phone phone = kPhone;
    phone.serial = "S2";
    return phone;
}

Phone OfType(E_DEV_TYPE type) {
    Phone phone = kPhone;
    phone.type = type;
    return phone;
}

class UPortState : public PortBench {
protected:
    // In this state, with this device known and nothing said yet.
    dcm::usb::UPortState& Stand(E_CON_STATE state, const Phone& phone = kPhone, unsigned char port = 2) {
        Renew(port);
        UMsgNode message = NodeMessage(dcm::MSGID_USB_ADD, phone, port);
        State().UpdateNode(&message);
        State().SetState(state);
        Forget();
        return State();
    }

    // The state is entered without words.
    void Enter(E_CON_STATE state) {
        State().SetState(state);
        Forget();
    }

    void Add(const Phone& phone) {
        UMsgNode message = NodeMessage(dcm::MSGID_USB_ADD, phone, State().GetPort());
        State().ProcessUsbAddMsg(&message);
    }

    void Remove(const Phone& phone) {
        UMsgNode message = NodeMessage(dcm::MSGID_USB_REMOVE, phone, State().GetPort());
        State().ProcessUsbRemoveMsg(&message);
    }

    void Defer(const Phone& phone) {
        UMsgNode message = NodeMessage(dcm::MSGID_USB_REMOVE, phone, State().GetPort());
        message.sender = SENDER_ITEM;
        State().ProcessDeferredMsg(&message);
    }

    UMsgChMode Request(const Phone& phone, dcm::E_MSGID id = dcm::MSGID_REQ_AA_MODE) {
        return ModeRequest(id, phone, State().GetPort(), "dev-7");
    }

    void HidAdd() {
        UMsgHidNode message = ShortMessage(dcm::MSGID_HID_ADD, State().GetPort());
        State().ProcessHidAddMsg(&message);
    }
};

// --- state ---

TEST_F(UPortState, SaysEachChangeWithBothNames) {
    Enter(STATE_ATTACH);
    State().SetState(STATE_AA_CHANGING);
    State().SetState(STATE_AA_CHANGING);
    EXPECT_EQ(State().GetState(), STATE_AA_CHANGING);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "port2 STATE_ATTACH->STATE_AA_CHANGING"),
                                    Line(128, "port2 STATE_AA_CHANGING->STATE_AA_CHANGING")));
}

TEST_F(UPortState, HasSixteenNames) {
    EXPECT_THAT(dcm::usb::UPortState::kStateName,
                ElementsAre(::testing::StrEq("STATE_DETACH"), ::testing::StrEq("STATE_ATTACH"),
                            ::testing::StrEq("STATE_CP_SUPPORT"), ::testing::StrEq("STATE_AA_CHANGING"),
                            ::testing::StrEq("STATE_ML_CHANGING"), ::testing::StrEq("STATE_CP_CHANGING"),
                            ::testing::StrEq("STATE_CL_CHANGING"), ::testing::StrEq("STATE_RESETTING"),
                            ::testing::StrEq("STATE_AA"), ::testing::StrEq("STATE_ML"),
                            ::testing::StrEq("STATE_CP"), ::testing::StrEq("STATE_CL"),
                            ::testing::StrEq("STATE_AA_RESETTING"), ::testing::StrEq("STATE_ML_RESETTING"),
                            ::testing::StrEq("STATE_CP_RESETTING"), ::testing::StrEq("STATE_CL_RESETTING")));
}

TEST_F(UPortState, RefusesAStateThatIsNone) {
    Enter(STATE_ML);
    State().SetState(static_cast<E_CON_STATE>(16));
    State().SetState(static_cast<E_CON_STATE>(255));
    EXPECT_EQ(State().GetState(), STATE_ML);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "state(16) is wrong"), Line(192, "state(255) is wrong")));
}

TEST_F(UPortState, SaysThatItsMutexCannotBeMade) {
    fail_mutex_init = true;
    Renew();
    const dcm::usb::UPortState state(2, &Notifier());
    fail_mutex_init = false;
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "failed to init mutex")));
}

// --- what is known of the device ---

TEST_F(UPortState, TakesOverTheDeviceThatCame) {
    UMsgNode message = NodeMessage(dcm::MSGID_USB_ADD, kApple, 2);
    message.speed = 0x1e;
    State().UpdateNode(&message);
    EXPECT_THAT(Logs(), ElementsAre(Line(128,
                                         "devtype:6 vid:5ac pid:12a8 class:6 speed:1e manu:Fruit serial:A1 "
                                         "product:Pad path:/devices/usb1/1-1/1-1.2")));
    State().NotifyEventToSdcm(dcm::MSGID_DEVICE_ATTACHED);
    EXPECT_THAT(DrainSdcm(),
                ElementsAre("1 port 2 type 6 05ac:12a8 class 6 speed 30 capa 0,0,0,0 A1 Pad Fruit "
                            "/devices/usb1/1-1/1-1.2"));
}

TEST_F(UPortState, ARequestForTheDeviceThatIsHereOnlyLeavesItsName) {
    Stand(STATE_ATTACH);
    UMsgChMode request = Request(kPhone);
    State().UpdateNode(&request);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "devid:dev-7")));
}

TEST_F(UPortState, SaysInWhatARequestDiffersAndKeepsWhatItKnows) {
    Phone vid = kPhone, pid = kPhone, serial = kPhone, devpath = kPhone;
    vid.vid = 0x1234;
    pid.pid = 0x1234;
    serial.serial = "S";  // the beginning of the other
    devpath.devpath = "/devices/usb1/1-1/1-1.1";
    const std::pair<Phone, const char*> requests[] = {
        {vid,
         "why is difference? vid:1234,4e8 pid:6860,6860 serial:S1,S1 "
         "devpath:/devices/usb1/1-1/1-1.2,/devices/usb1/1-1/1-1.2"},
        {pid,
         "why is difference? vid:4e8,4e8 pid:1234,6860 serial:S1,S1 "
         "devpath:/devices/usb1/1-1/1-1.2,/devices/usb1/1-1/1-1.2"},
        {serial,
         "why is difference? vid:4e8,4e8 pid:6860,6860 serial:S,S1 "
         "devpath:/devices/usb1/1-1/1-1.2,/devices/usb1/1-1/1-1.2"},
        {devpath,
         "why is difference? vid:4e8,4e8 pid:6860,6860 serial:S1,S1 "
         "devpath:/devices/usb1/1-1/1-1.1,/devices/usb1/1-1/1-1.2"},
    };
    for (const auto& [phone, line] : requests) {
        Stand(STATE_ATTACH);
        UMsgChMode request = Request(phone);
        State().UpdateNode(&request);
        EXPECT_THAT(Logs(), ElementsAre(Line(128, "devid:dev-7"), Line(160, line)));
        State().NotifyResultModeToSdcm(dcm::MSGID_RESULT_CP_MODE, RESULT_OK, nullptr);
        EXPECT_THAT(DrainSdcm(), ElementsAre("7 result 0 port 2 04e8:6860 S1 /devices/usb1/1-1/1-1.2 dev-7"));
    }
}

TEST_F(UPortState, TakesNothingOverFromNothing) {
    Stand(STATE_ATTACH);
    State().UpdateNode(static_cast<UMsgNode*>(nullptr));
    State().UpdateNode(static_cast<UMsgChMode*>(nullptr));
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "msg is null"), Line(192, "msg is null")));
}

// --- the phone of a request ---

TEST_F(UPortState, LooksForTheNextTypeOnlyWhenThereIsNoneOfTheEarlier) {
    UMsgChMode request = Request(kPhone);
    EXPECT_FALSE(State().GetUsbNode(&request, DEV_TYPE_STORAGE));
    EXPECT_THAT(Deeds(), ElementsAre("FindUsbNode port 2 type 9", "FindUsbNode port 2 type 10",
                                     "FindUsbNode port 2 type 5"));
    ForgetStory();
    EXPECT_FALSE(State().GetUsbNode(&request, DEV_TYPE_PHONE));
    EXPECT_THAT(Deeds(), ElementsAre("FindUsbNode port 2 type 9", "FindUsbNode port 2 type 10"));
    ForgetStory();
    EXPECT_FALSE(State().GetUsbNode(&request, DEV_TYPE_APPLE));
    EXPECT_THAT(Deeds(), ElementsAre("FindUsbNode port 2 type 6"));
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UPortState, FindsThePhoneOfARequestAsAnyOfItsTypes) {
    UMsgChMode request = Request(kPhone);
    for (const auto type : {DEV_TYPE_STORAGE, DEV_TYPE_MTP, DEV_TYPE_PHONE}) {
        PutNode(OfType(type), 2);
        const auto found = State().GetUsbNode(&request, DEV_TYPE_STORAGE);
        ASSERT_TRUE(found);
        EXPECT_EQ(found->port, 2);
        EXPECT_EQ(found->vid, 0x04e8);
        EXPECT_EQ(found->pid, 0x6860);
    }
    EXPECT_EQ(Deeds().back(), "FindUsbNode port 2 type 9");
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UPortState, DoesNotLookOnWhenTheFirstNodeIsAnotherPhone) {
    Phone stranger = kPhone;
    stranger.vid = 0x1111;
    PutNode(stranger, 2);
    PutNode(OfType(DEV_TYPE_MTP), 2);
    UMsgChMode request = Request(kPhone);
    EXPECT_FALSE(State().GetUsbNode(&request, DEV_TYPE_PHONE));
    EXPECT_THAT(Story(),
                ElementsAre("FindUsbNode port 2 type 9", "160 vid(4e8 1111) or pid(6860 6860) is different"));
    stranger = kPhone;
    stranger.pid = 0x2222;
    PutNode(stranger, 2);
    ForgetStory();
    EXPECT_FALSE(State().GetUsbNode(&request, DEV_TYPE_PHONE));
    EXPECT_THAT(Logs(), ElementsAre(Line(160, "vid(4e8 4e8) or pid(6860 2222) is different")));
}

TEST_F(UPortState, LooksForNoOtherTypes) {
    UMsgChMode request = Request(kPhone);
    for (const auto type : {DEV_TYPE_NONE, DEV_TYPE_HUB, DEV_TYPE_APPLE_SHUTTLE, DEV_TYPE_MTP, DEV_TYPE_ANY})
        EXPECT_FALSE(State().GetUsbNode(&request, type));
    EXPECT_THAT(Deeds(), IsEmpty());
    EXPECT_THAT(Logs(), ElementsAreArray(std::vector<LogLine>(5, Line(160, "type isn't available"))));
    ForgetStory();
    EXPECT_FALSE(State().GetUsbNode(nullptr, DEV_TYPE_PHONE));
    EXPECT_THAT(Story(), ElementsAre("192 msg is null"));
}

// --- capabilities ---

TEST_F(UPortState, AsksANewDeviceByItsType) {
    struct Row {
        E_DEV_TYPE type;
        std::vector<std::string> deeds;
        const char* line;
    };
    const Row rows[] = {
        {DEV_TYPE_NONE, {}, "aa_capa:0 ml_capa:0 cp_capa:0 cl_capa:0"},
        {DEV_TYPE_STORAGE, {}, "aa_capa:2 ml_capa:1 cp_capa:2 cl_capa:2"},
        {DEV_TYPE_APPLE, {"DiscernCPCapability 04e8:6860 port 2"}, "aa_capa:2 ml_capa:2 cp_capa:7 cl_capa:2"},
        {DEV_TYPE_APPLE_SHUTTLE,
         {"DiscernCPCapability 04e8:6860 port 2"},
         "aa_capa:2 ml_capa:2 cp_capa:7 cl_capa:2"},
        {DEV_TYPE_PHONE, {"DiscernAACapability 04e8:6860 port 2"}, "aa_capa:5 ml_capa:1 cp_capa:2 cl_capa:2"},
        {DEV_TYPE_MTP, {"DiscernAACapability 04e8:6860 port 2"}, "aa_capa:5 ml_capa:1 cp_capa:2 cl_capa:2"},
        {DEV_TYPE_INPUT, {}, "aa_capa:0 ml_capa:0 cp_capa:0 cl_capa:0"},
    };
    TheStage().results["DiscernAACapability"] = {5};
    TheStage().results["DiscernCPCapability"] = {7};
    for (const Row& row : rows) {
        Stand(STATE_DETACH, OfType(row.type));
        State().CheckCapability();
        EXPECT_EQ(Deeds(), row.deeds) << row.type;
        EXPECT_THAT(Logs(), ElementsAre(Line(128, row.line)));
    }
}

TEST_F(UPortState, AsksAnAttachedDeviceOnlyWhenItIsApple) {
    TheStage().results["DiscernCPCapability"] = {7};
    for (const auto type : {DEV_TYPE_NONE, DEV_TYPE_STORAGE, DEV_TYPE_PHONE, DEV_TYPE_MTP}) {
        Stand(STATE_ATTACH, OfType(type));
        State().CheckCapability();
        EXPECT_THAT(Story(), ElementsAre("128 aa_capa:0 ml_capa:0 cp_capa:0 cl_capa:0"));
    }
    for (const auto type : {DEV_TYPE_APPLE, DEV_TYPE_APPLE_SHUTTLE}) {
        Stand(STATE_ATTACH, OfType(type));
        State().CheckCapability();
        EXPECT_THAT(Story(), ElementsAre("DiscernCPCapability 04e8:6860 port 2",
                                         "128 aa_capa:2 ml_capa:2 cp_capa:7 cl_capa:2"));
    }
}

TEST_F(UPortState, AsksNobodyInAnyOtherState) {
    for (const auto state : kAllStates) {
        if (state == STATE_DETACH || state == STATE_ATTACH) continue;
        for (const auto& phone : {kPhone, kApple, OfType(DEV_TYPE_STORAGE)}) {
            Stand(state, phone);
            State().CheckCapability();
            const char* const name = dcm::usb::UPortState::kStateName[state];
            EXPECT_THAT(Logs(), ElementsAre(Line(160, Format("port%d %s, not update", 2, name)),
                                            Line(128, "aa_capa:0 ml_capa:0 cp_capa:0 cl_capa:0")));
            EXPECT_THAT(Deeds(), IsEmpty());
        }
    }
}

TEST_F(UPortState, KnowsAnAccessoryByItsIds) {
    TheStage().results["DiscernAACapability"] = {1};
    for (std::uint16_t pid = 0x2CF8; pid <= 0x2D0F; ++pid) {
        const bool is_accessory = pid == 0x2D00 || pid == 0x2D01 || pid == 0x2D04 || pid == 0x2D05;
        ForgetStory();
        EXPECT_EQ(State().CheckAACapability(0x18D1, pid, 3), is_accessory ? 3 : 1) << pid;
        EXPECT_THAT(Story(), ElementsAre(is_accessory ? "128 aoap mode"
                                                      : Format("DiscernAACapability 18d1:%04x port 3", pid)));
        EXPECT_EQ(State().CheckAACapability(0x18D2, pid, 3), 1) << pid;
    }
}

TEST_F(UPortState, AsksForMirrorLinkAndDoesNotListen) {
    TheStage().results["DiscernMLCapability"] = {1};
    EXPECT_EQ(State().CheckMLCapability(0x04e8, 0x6860, 3), 0);
    EXPECT_THAT(Story(), ElementsAre("DiscernMLCapability 04e8:6860 port 3"));
}

TEST_F(UPortState, AsksForCarLifeByTheTypeOfThePhone) {
    TheStage().results["DiscernCPCapability"] = {7};
    TheStage().results["DiscernAACapability"] = {5};
    for (const auto type : {DEV_TYPE_APPLE, DEV_TYPE_APPLE_SHUTTLE}) {
        Stand(STATE_ATTACH, OfType(type));
        EXPECT_EQ(State().CheckCLCapability(1, 2, 3), 7);
        EXPECT_THAT(Story(), ElementsAre("DiscernCPCapability 0001:0002 port 3"));
    }
    for (const auto type : {DEV_TYPE_PHONE, DEV_TYPE_MTP}) {
        Stand(STATE_ATTACH, OfType(type));
        EXPECT_EQ(State().CheckCLCapability(1, 2, 3), 5);
        EXPECT_EQ(State().CheckCLCapability(0x18D1, 0x2D04, 3), 3);
        EXPECT_THAT(Story(), ElementsAre("DiscernAACapability 0001:0002 port 3", "128 aoap mode"));
    }
    Stand(STATE_ATTACH, OfType(DEV_TYPE_STORAGE));
    EXPECT_EQ(State().CheckCLCapability(1, 2, 3), 0);
    EXPECT_THAT(Story(), IsEmpty());
}

// --- a device comes ---

TEST_F(UPortState, AnAndroidPhoneIsRecordedProbedAndAnnouncedInThisOrder) {
    TheStage().results["DiscernAACapability"] = {1};
    Add(kPhone);
    EXPECT_THAT(
        Story(),
        ElementsAre("128 port2 STATE_DETACH",
                    "128 devtype:9 vid:4e8 pid:6860 class:ff speed:3 manu:Maker serial:S1 product:Phone "
                    "path:/devices/usb1/1-1/1-1.2",
                    "DiscernAACapability 04e8:6860 port 2", "128 aa_capa:1 ml_capa:1 cp_capa:2 cl_capa:2",
                    "128 msgID:1 vid:4e8 pid:6860 capa:1,1,2,2",
                    "128 cmd:2 sub_cmd:0 dev_type:9 port:2 vid:4e8 pid:6860 support:0:0:0 class:ff speed:3",
                    "128 serial:S1 product:Phone manu:Maker dev_path:/devices/usb1/1-1/1-1.2",
                    "128 port2 STATE_DETACH->STATE_ATTACH"));
    EXPECT_THAT(DrainSdcm(),
                ElementsAre("1 port 2 type 9 04e8:6860 class ff speed 3 capa 1,1,2,2 S1 Phone Maker "
                            "/devices/usb1/1-1/1-1.2"));
    EXPECT_THAT(TakeMedia(),
                ElementsAre("cmd 2.0 port 2 type 9 04e8:6860 support 0,0,0 class ff speed 3 S1 Phone "
                            "Maker /devices/usb1/1-1/1-1.2"));
    EXPECT_THAT(DrainMonitor(), IsEmpty());
}

TEST_F(UPortState, MediaHearsOfPhonesOnly) {
    for (const auto type : {DEV_TYPE_STORAGE, DEV_TYPE_APPLE, DEV_TYPE_APPLE_SHUTTLE, DEV_TYPE_MTP}) {
        Renew();
        Add(OfType(type));
        Enter(STATE_ATTACH);
        Remove(OfType(type));
        EXPECT_EQ(State().GetState(), STATE_DETACH);
        EXPECT_THAT(Packets(), IsEmpty()) << type;
    }
}

TEST_F(UPortState, APhoneThatIsAlreadyAnAccessoryGoesStraightToAndroidAuto) {
    Add(Accessory(0x2D05));
    EXPECT_EQ(State().GetState(), STATE_AA);
    EXPECT_THAT(Deeds(), IsEmpty());
    EXPECT_THAT(DrainSdcm(),
                ElementsAre("1 port 2 type 9 18d1:2d05 class ff speed 3 capa 3,1,2,2 S1 Phone Maker "
                            "/devices/usb1/1-1/1-1.2"));
}

TEST_F(UPortState, AnAccessoryOfCarLifeGoesStraightToCarLife) {
    CarLifeCodeOf(State()) = CAPA_ACCESSORY;
    Add(OfType(DEV_TYPE_NONE));  // not probed: the codes stay
    EXPECT_EQ(State().GetState(), STATE_CL);
    EXPECT_THAT(DrainSdcm(),
                ElementsAre("1 port 2 type 0 04e8:6860 class ff speed 3 capa 0,0,0,3 S1 Phone Maker "
                            "/devices/usb1/1-1/1-1.2"));
}

TEST_F(UPortState, ASecondAttachIsNotAnnounced) {
    Stand(STATE_ATTACH);
    Add(kPhone);
    EXPECT_EQ(State().GetState(), STATE_ATTACH);
    EXPECT_THAT(Story(), ElementsAre("128 port2 STATE_ATTACH", "160 port2 STATE_ATTACH, so not send"));
    EXPECT_THAT(DrainSdcm(), IsEmpty());
    EXPECT_THAT(Packets(), IsEmpty());
}

TEST_F(UPortState, AnAccessoryEndsTheSwitchWithoutBeingRecorded) {
    Stand(STATE_AA_CHANGING);
    UMsgChMode request = Request(kPhone);
    State().UpdateNode(&request);
    Forget();
    Add(Accessory());
    EXPECT_THAT(Story(),
                ElementsAre("128 port2 STATE_AA_CHANGING", "128 isAdd:0 port:2",
                            "128 msgID:5 port:2 vid:18d1 pid:2d01", "128 port2 STATE_AA_CHANGING->STATE_AA"));
    EXPECT_THAT(DrainSdcm(), ElementsAre("5 result 0 port 2 18d1:2d01 S1 /devices/usb1/1-1/1-1.2 dev-7"));
    EXPECT_THAT(DrainMonitor(), ElementsAre("38 port 2 type 9 18d1:2d01 class ff speed 3 S1 Phone Maker "
                                            "/devices/usb1/1-1/1-1.2"));
    State().NotifyEventToSdcm(dcm::MSGID_DEVICE_DETACHED);  // the phone as it was before
    EXPECT_THAT(DrainSdcm(),
                ElementsAre("2 port 2 type 9 04e8:6860 class ff speed 3 capa 0,0,0,0 S1 Phone Maker "
                            "/devices/usb1/1-1/1-1.2"));
}

TEST_F(UPortState, CarLifeLogsTheNumbersOfTheHostPort) {
    SysTree sys;
    const std::string hub = "/devices/platform/17300000.usb/17300000.dwc3/xhci-hcd.4.auto/usb1/1-1";
    sys.Set(hub + "/1-1.1/busnum", "1\n");
    sys.Set(hub + "/1-1.1/devnum", "4\n");
    sys.Set(hub + "/1-1.2/busnum", "2\n");
    sys.Set(hub + "/1-1.2/devnum", "10\n");  // read as hexadecimal
    const std::pair<unsigned char, const char*> lines[] = {{1, "busno:1 devno:4 port:1 interfaceId:3111"},
                                                           {2, "busno:2 devno:16 port:2 interfaceId:3111"},
                                                           {3, "busno:0 devno:0 port:3 interfaceId:3111"},
                                                           {11, "busno:0 devno:0 port:11 interfaceId:3111"},
                                                           {32, "busno:0 devno:0 port:32 interfaceId:3111"}};
    for (const auto& [port, line] : lines) {
        Stand(STATE_CL_CHANGING, kPhone, port);
        Add(Accessory());
        EXPECT_EQ(State().GetState(), STATE_CL);
        EXPECT_THAT(Logs(), Wrote(128, line));
        PutNode(kApple, port);
        Stand(STATE_ATTACH, kApple, port);
        UMsgChMode request = Request(kApple);
        EXPECT_EQ(State().ProcessICLMode(&request), 0);
        EXPECT_THAT(Logs(), Wrote(128, line));
    }
}

TEST_F(UPortState, CarLifeLogsMinusOneForNumbersThatAreMissing) {
    SysTree sys;
    Stand(STATE_CL_CHANGING);
    Add(Accessory());
    EXPECT_THAT(Logs(128), ElementsAre(Line(128, "port2 STATE_CL_CHANGING"), Line(128, "isAdd:0 port:2"),
                                       Line(128, "busno:-1 devno:-1 port:2 interfaceId:3111"),
                                       Line(128, "msgID:8 port:2 vid:18d1 pid:2d01"),
                                       Line(128, "port2 STATE_CL_CHANGING->STATE_CL")));
}

// --- a phone that comes back without having switched ---

struct Switch {
    const char* start;
    E_CON_STATE changing;
    int result;
};
class UPortStateRestart : public UPortState, public ::testing::WithParamInterface<Switch> {
protected:
    // The phone is back for the `try_`th time, as it was.
    void ComeBackUnswitched(int try_) {
        Forget();
        Add(kPhone);
        EXPECT_THAT(Deeds(), ElementsAre("sleep 1", Format("%s 04e8:6860 port 2", GetParam().start)));
        EXPECT_THAT(Logs(), Wrote(160, Format("port2 aoap_retry:%d vid:4e8 pid:6860", try_)));
    }
    void ExpectRearmed() {
        EXPECT_EQ(State().GetState(), GetParam().changing);
        EXPECT_THAT(DrainMonitor(), ElementsAre("38 port 2 type 9 04e8:6860 class ff speed 3 S1 Phone Maker "
                                                "/devices/usb1/1-1/1-1.2",
                                                "39 port 2"));
        EXPECT_THAT(DrainSdcm(), IsEmpty());
    }
    void ExpectGivenUp() {
        EXPECT_EQ(State().GetState(), STATE_ATTACH);
        EXPECT_THAT(DrainMonitor(), ElementsAre("38 port 2 type 9 04e8:6860 class ff speed 3 S1 Phone Maker "
                                                "/devices/usb1/1-1/1-1.2"));
        EXPECT_THAT(DrainSdcm(),
                    ElementsAre(Format("%d result 1 port 2 04e8:6860 S1 /devices/usb1/1-1/1-1.2 ",
                                       GetParam().result)));
    }
};
INSTANTIATE_TEST_SUITE_P(Modes, UPortStateRestart,
                         ::testing::Values(Switch{"StartAOAP", STATE_AA_CHANGING, 5},
                                           Switch{"StartCarLifeAOAP", STATE_CL_CHANGING, 8}),
                         [](const auto& info) { return std::string(info.param.start); });

TEST_P(UPortStateRestart, FiveStartsMayFailTheSixthMayNot) {
    Stand(GetParam().changing);
    TheStage().results[GetParam().start] = {-1};
    for (int try_ = 1; try_ <= 5; ++try_) {
        ComeBackUnswitched(try_);
        ExpectRearmed();
    }
    ComeBackUnswitched(6);
    ExpectGivenUp();
    Enter(GetParam().changing);  // a later request: the count goes on
    ComeBackUnswitched(7);
    ExpectGivenUp();
}

TEST_P(UPortStateRestart, ASixthStartThatWorksWaitsOn) {
    Stand(GetParam().changing);
    for (int try_ = 1; try_ <= 8; ++try_) {
        ComeBackUnswitched(try_);
        ExpectRearmed();
    }
}

TEST_P(UPortStateRestart, AnyResultButZeroIsAFailureOfTheSixth) {
    Stand(GetParam().changing);
    TheStage().results[GetParam().start] = {1};
    for (int try_ = 1; try_ <= 6; ++try_)
        ComeBackUnswitched(try_);
    ExpectGivenUp();
}

TEST_P(UPortStateRestart, TheCountBeginsAnewWhenAnAccessoryCame) {
    Stand(GetParam().changing);
    ComeBackUnswitched(1);
    ComeBackUnswitched(2);
    Add(Accessory());
    Enter(GetParam().changing);
    ComeBackUnswitched(1);
}

TEST_P(UPortStateRestart, TheIdsAreThoseOfThePhoneThatCame) {
    Stand(GetParam().changing, kPhone, 32);
    Phone other = kPhone;
    other.vid = 0x1111;
    other.pid = 0x2222;
    Add(other);
    EXPECT_THAT(Deeds(), ElementsAre("sleep 1", Format("%s 1111:2222 port 3", GetParam().start)));
    EXPECT_THAT(Logs(), Wrote(160, "port32 aoap_retry:1 vid:1111 pid:2222"));
}

// --- a phone that comes back from a reset ---

struct Reset {
    const char* reset;
    E_CON_STATE resetting;
};
class UPortStateReset : public UPortState, public ::testing::WithParamInterface<Reset> {
protected:
    void ComeBackAsAccessory(int time) {
        Forget();
        Add(Accessory());
        EXPECT_EQ(State().GetState(), GetParam().resetting);
        EXPECT_THAT(Deeds(), ElementsAre("sleep 1", Format("%s 18d1:2d01 port 2", GetParam().reset)));
        EXPECT_THAT(Logs(), Wrote(160, Format("port2 reset_retry:%d", time)));
        EXPECT_THAT(DrainMonitor(), ElementsAre("38 port 2 type 9 18d1:2d01 class ff speed 3 S1 Phone Maker "
                                                "/devices/usb1/1-1/1-1.2"));
        EXPECT_THAT(DrainSdcm(), IsEmpty());
    }
};
INSTANTIATE_TEST_SUITE_P(Modes, UPortStateReset,
                         ::testing::Values(Reset{"StartAAPortReset", STATE_AA_RESETTING},
                                           Reset{"StartCLPortReset", STATE_CL_RESETTING}),
                         [](const auto& info) { return std::string(info.param.reset); });

TEST_P(UPortStateReset, AfterTenResetsTheAccessoryIsTakenAsItIs) {
    Stand(GetParam().resetting);
    TheStage().results[GetParam().reset] = {-1};  // whatever comes of them
    for (int time = 1; time <= 10; ++time)
        ComeBackAsAccessory(time);
    Forget();
    Add(Accessory());
    EXPECT_EQ(State().GetState(), STATE_ATTACH);
    EXPECT_THAT(Deeds(), IsEmpty());
    EXPECT_THAT(DrainSdcm(),
                ElementsAre("1 port 2 type 9 18d1:2d01 class ff speed 3 capa 0,0,0,0 S1 Phone Maker "
                            "/devices/usb1/1-1/1-1.2"));
    Enter(GetParam().resetting);
    ComeBackAsAccessory(1);
}

TEST_P(UPortStateReset, APhoneIsRecordedAndAnnouncedAndEndsTheCount) {
    Stand(GetParam().resetting, Accessory());
    ComeBackAsAccessory(1);
    Forget();
    Add(kPhone);
    EXPECT_THAT(Story(), ElementsAre("128 port2 " +
                                         std::string(dcm::usb::UPortState::kStateName[GetParam().resetting]),
                                     "128 isAdd:0 port:2",
                                     "128 devtype:9 vid:4e8 pid:6860 class:ff speed:3 manu:Maker serial:S1 "
                                     "product:Phone path:/devices/usb1/1-1/1-1.2",
                                     "128 msgID:1 vid:4e8 pid:6860 capa:0,0,0,0",
                                     Format("128 port2 %s->STATE_ATTACH",
                                            dcm::usb::UPortState::kStateName[GetParam().resetting])));
    EXPECT_THAT(Packets(), IsEmpty());
    Enter(GetParam().resetting);
    ComeBackAsAccessory(1);
}

TEST_P(UPortStateReset, AnotherDeviceLeavesTheCount) {
    Stand(GetParam().resetting);
    ComeBackAsAccessory(1);
    Forget();
    Add(Other());
    Enter(GetParam().resetting);
    Add(kPhone);  // another one again
    Enter(GetParam().resetting);
    ComeBackAsAccessory(2);
}

TEST_F(UPortState, AnotherDeviceIsDetachedAndAttachedInThisOrder) {
    TheStage().results["DiscernAACapability"] = {1};
    for (const auto state : {STATE_AA_RESETTING, STATE_ML_RESETTING, STATE_CL_RESETTING}) {
        Stand(state);
        Add(Other());
        const char* const name = dcm::usb::UPortState::kStateName[state];
        EXPECT_THAT(
            Story(),
            ElementsAre(Format("128 port2 %s", name), "128 isAdd:0 port:2",
                        "160 port2 serial S2 > S1, so another device",
                        "128 msgID:2 vid:4e8 pid:6860 capa:0,0,0,0",
                        Format("128 port2 %s->STATE_DETACH", name),
                        "128 devtype:9 vid:4e8 pid:6860 class:ff speed:3 manu:Maker serial:S2 product:Phone "
                        "path:/devices/usb1/1-1/1-1.2",
                        "DiscernAACapability 04e8:6860 port 2", "128 aa_capa:1 ml_capa:1 cp_capa:2 cl_capa:2",
                        "128 msgID:1 vid:4e8 pid:6860 capa:1,1,2,2", "128 port2 STATE_DETACH->STATE_ATTACH"));
        EXPECT_THAT(DrainSdcm(),
                    ElementsAre("2 port 2 type 9 04e8:6860 class ff speed 3 capa 0,0,0,0 S1 Phone Maker "
                                "/devices/usb1/1-1/1-1.2",
                                "1 port 2 type 9 04e8:6860 class ff speed 3 capa 1,1,2,2 S2 Phone Maker "
                                "/devices/usb1/1-1/1-1.2"));
        EXPECT_THAT(Packets(), IsEmpty());
    }
}

TEST_F(UPortState, AnotherDeviceGoesWhereItBelongs) {
    Phone accessory = Accessory();
    accessory.serial = "S2";
    Stand(STATE_ML_RESETTING);
    Add(accessory);
    EXPECT_EQ(State().GetState(), STATE_AA);
    TheStage().results["DiscernCPCapability"] = {1};
    Stand(STATE_AA_RESETTING);
    Add(kApple);
    EXPECT_EQ(State().GetState(), STATE_CP_SUPPORT);
}

TEST_F(UPortState, AnIPhoneBackFromAResetIsNotCompared) {
    Phone other = kApple;
    other.serial = "A2";
    for (const auto state : {STATE_CP_RESETTING, STATE_CL_RESETTING}) {
        Stand(state, kApple);
        Add(other);
        EXPECT_EQ(State().GetState(), STATE_ATTACH);
        EXPECT_THAT(DrainSdcm(),
                    ElementsAre("1 port 2 type 6 05ac:12a8 class 6 speed 3 capa 0,0,0,0 A2 Pad Fruit "
                                "/devices/usb1/1-1/1-1.2"));
        EXPECT_THAT(DrainMonitor(), ElementsAre(state == STATE_CP_RESETTING ? "42 port 2" : "40 port 2"));
        State().NotifyEventToSdcm(dcm::MSGID_DEVICE_DETACHED);  // nor recorded
        EXPECT_THAT(DrainSdcm(),
                    ElementsAre("2 port 2 type 6 05ac:12a8 class 6 speed 3 capa 0,0,0,0 A1 Pad Fruit "
                                "/devices/usb1/1-1/1-1.2"));
    }
}

TEST_F(UPortState, ADeviceThatComesDuringCarPlayHealsThePort) {
    Stand(STATE_CP, kApple);
    Add(kApple);
    EXPECT_THAT(Story(), ElementsAre("128 port2 STATE_CP", "160 defense code for healing, please check!!",
                                     "128 port2 STATE_CP->STATE_ATTACH"));
    EXPECT_THAT(DrainSdcm(), IsEmpty());
}

// --- a device goes ---

TEST_F(UPortState, ARemovalDuringAChangeWaitsForThePhonesReturn) {
    for (const auto state : {STATE_AA_CHANGING, STATE_ML_CHANGING, STATE_CL_CHANGING}) {
        Stand(state);
        Remove(kPhone);
        EXPECT_EQ(State().GetState(), state);
        EXPECT_THAT(DrainSdcm(), IsEmpty());
        EXPECT_THAT(DrainMonitor(), ElementsAre("40 port 2",
                                                "37 port 2 type 9 04e8:6860 class ff speed 3 S1 Phone Maker "
                                                "/devices/usb1/1-1/1-1.2"));
    }
}

TEST_F(UPortState, ARemovalWhileCarPlayComesCountsOnlyWithoutItsTty) {
    Stand(STATE_CP_CHANGING, kApple);
    State().ProcessTtyAddMsg();
    Enter(STATE_CP_CHANGING);
    Remove(kApple);
    EXPECT_THAT(Story(), ElementsAre("128 port2 STATE_CP_CHANGING"));
    State().ProcessTtyRemoveMsg();
    Enter(STATE_CP_CHANGING);
    Remove(Other());  // the stored one is announced
    EXPECT_EQ(State().GetState(), STATE_DETACH);
    EXPECT_THAT(DrainSdcm(),
                ElementsAre("2 port 2 type 6 05ac:12a8 class 6 speed 3 capa 0,0,0,0 A1 Pad Fruit "
                            "/devices/usb1/1-1/1-1.2"));
}

TEST_F(UPortState, WhatIsKnownOfADeviceOutlivesIt) {
    Stand(STATE_ATTACH);
    Remove(kPhone);
    Forget();
    State().NotifyEventToSdcm(dcm::MSGID_DEVICE_DETACHED);
    EXPECT_THAT(DrainSdcm(),
                ElementsAre("2 port 2 type 9 04e8:6860 class ff speed 3 capa 0,0,0,0 S1 Phone Maker "
                            "/devices/usb1/1-1/1-1.2"));
}

TEST_F(UPortState, ADeferredRemovalAsksThePortFirstInEveryState) {
    for (const auto state : kAllStates) {
        Stand(state, kPhone, 32);
        Defer(kPhone);
        EXPECT_EQ(Story().at(0), Format("128 port32 2 %s", dcm::usb::UPortState::kStateName[state]));
        EXPECT_EQ(Story().at(1), "DiscernPortStatus port 2");
    }
}

TEST_F(UPortState, ATtyChangeDuringCarPlayDetachesBeforeTheDeviceGoes) {
    for (const auto state : {STATE_CP_CHANGING, STATE_CP, STATE_CP_RESETTING}) {
        TheStage().results["StartCPPortReset"] = {-1};  // whatever comes of it
        Stand(state, kApple);
        State().ProcessTtyChangeMsg();
        EXPECT_THAT(
            Story(),
            ElementsAre("StartCPPortReset 05ac:12a8 port 2", "128 msgID:2 vid:5ac pid:12a8 capa:0,0,0,0",
                        Format("128 port2 %s->STATE_DETACH", dcm::usb::UPortState::kStateName[state])));
    }
}

TEST_F(UPortState, AnIPhoneThatIsNotReadyIsPolledFromItsHidOn) {
    TheStage().results["DiscernCPCapability"] = {2, 1};
    Stand(STATE_ATTACH, kApple);
    HidAdd();
    EXPECT_EQ(State().GetState(), STATE_ATTACH);
    EXPECT_THAT(DrainMonitor(), ElementsAre("43 port 2"));
    EXPECT_THAT(DrainSdcm(), IsEmpty());
    HidAdd();
    EXPECT_EQ(State().GetState(), STATE_CP_SUPPORT);
    EXPECT_THAT(DrainMonitor(), ElementsAre("44 port 2"));
    EXPECT_THAT(DrainSdcm(),
                ElementsAre("1 port 2 type 6 05ac:12a8 class 6 speed 3 capa 2,2,1,2 A1 Pad Fruit "
                            "/devices/usb1/1-1/1-1.2"));
}

TEST_F(UPortState, HidsOfOtherDevicesAreNotItsBusiness) {
    Stand(STATE_ATTACH);
    HidAdd();
    UMsgCarplayCapa poll = ShortMessage(dcm::MSGID_CARPLAY_CAPA, 2);
    State().ProcessCarplayCapaMsg(&poll);
    EXPECT_THAT(Story(), ElementsAre("64 ignore if not an apple device", "64 ignore if not an apple device"));
}

// --- requests ---

TEST_F(UPortState, ASecondRequestForWhatRunsIsAnsweredAtOnce) {
    Stand(STATE_AA);
    UMsgChMode request = Request(kPhone);
    State().ProcessAAMode(&request);
    EXPECT_THAT(Story(),
                ElementsAre("128 port2 STATE_AA", "128 already aoap",
                            "128 msgID:5 result:0 port:2 vid:4e8 pid:6860", "128 port2 STATE_AA->STATE_AA"));
    Stand(STATE_CL);
    State().ProcessACLMode(&request);
    EXPECT_THAT(Story(),
                ElementsAre("128 port2 STATE_CL", "128 already aoap",
                            "128 msgID:8 result:0 port:2 vid:4e8 pid:6860", "128 port2 STATE_CL->STATE_CL"));
}

TEST_F(UPortState, AStartArmsTheTimerOfTheRequestsPort) {
    PutNode(kPhone, 2);
    Stand(STATE_ATTACH);
    UMsgChMode request = Request(kPhone);
    request.port = 32;
    State().ProcessAAMode(&request);
    EXPECT_THAT(DrainMonitor(), ElementsAre("39 port 32"));
    EXPECT_THAT(DrainSdcm(), IsEmpty());
    EXPECT_EQ(State().GetState(), STATE_AA_CHANGING);
}

TEST_F(UPortState, AStartForThePhoneIsRefusedWhenItIsGoneOrFails) {
    Stand(STATE_ATTACH);
    UMsgChMode request = Request(kPhone);
    State().ProcessAAMode(&request);
    EXPECT_THAT(Logs(), Wrote(160, "android device doesn't exist"));
    PutNode(kPhone, 2);
    TheStage().results["StartAOAP"] = {-1};
    State().ProcessAAMode(&request);
    EXPECT_THAT(DrainSdcm(), ElementsAre("5 result 1 port 2 04e8:6860 S1 /devices/usb1/1-1/1-1.2 dev-7",
                                         "5 result 1 port 2 04e8:6860 S1 /devices/usb1/1-1/1-1.2 dev-7"));
    EXPECT_EQ(State().GetState(), STATE_ATTACH);
    EXPECT_THAT(DrainMonitor(), IsEmpty());
}

TEST_F(UPortState, ARefusedStartLeavesTheNameOfTheLastAcceptedRequest) {
    PutNode(kPhone, 2);
    Stand(STATE_ATTACH);
    UMsgChMode accepted = Request(kPhone);
    State().ProcessAAMode(&accepted);
    State().SetState(STATE_ATTACH);
    TheStage().results["StartAOAP"] = {-1};
    UMsgChMode refused = ModeRequest(dcm::MSGID_REQ_AA_MODE, kPhone, 2, "dev-8");
    State().ProcessAAMode(&refused);
    Forget();
    State().NotifyResultModeToSdcm(dcm::MSGID_RESULT_AA_MODE, RESULT_FAILED, nullptr);
    EXPECT_THAT(DrainSdcm(), ElementsAre("5 result 1 port 2 04e8:6860 S1 /devices/usb1/1-1/1-1.2 dev-7"));
}

TEST_F(UPortState, OneDeviceGetsMirrorLinksCommandTwice) {
    Phone twice = kPhone;
    twice.vid = 0x0525;
    twice.pid = 0xA4A0;
    PutNode(twice, 2);
    TheStage().results["StartMirrorLink"] = {-1, 0};  // the second counts
    Stand(STATE_ATTACH, twice);
    UMsgChMode request = Request(twice);
    State().ProcessMLMode(&request);
    EXPECT_EQ(State().GetState(), STATE_ML_CHANGING);
    EXPECT_THAT(Story(), ElementsAre("128 port2 STATE_ATTACH", "FindUsbNode port 2 type 9",
                                     "FindNetNode port 2", "StartMirrorLink 0525:a4a0 port 2",
                                     "128 duplicate command", "StartMirrorLink 0525:a4a0 port 2",
                                     "128 isAdd:1 port:2", "128 port2 STATE_ATTACH->STATE_ML_CHANGING"));
    TheStage().results["StartMirrorLink"] = {0, -1};
    Enter(STATE_ATTACH);
    State().ProcessMLMode(&request);
    EXPECT_THAT(DrainSdcm(), ElementsAre("6 result 1 port 2 0525:a4a0 S1 /devices/usb1/1-1/1-1.2 dev-7"));
}

TEST_F(UPortState, OneIdOfThatDeviceIsNotEnough) {
    for (const auto& [vid, pid] : {std::pair{0x0525, 0xA4A1}, std::pair{0x0526, 0xA4A0}}) {
        Phone phone = kPhone;
        phone.vid = static_cast<std::uint16_t>(vid);
        phone.pid = static_cast<std::uint16_t>(pid);
        PutNode(phone, 2);
        Stand(STATE_ATTACH, phone);
        UMsgChMode request = Request(phone);
        State().ProcessMLMode(&request);
        EXPECT_THAT(Logs(), Not(Wrote(128, "duplicate command")));
    }
}

TEST_F(UPortState, MirrorLinkRunsWhenThePhoneHasANetworkAlready) {
    PutNode(kPhone, 2);
    TheStage().net_nodes = {2};
    Stand(STATE_ATTACH);
    UMsgChMode request = Request(kPhone);
    State().ProcessMLMode(&request);
    EXPECT_THAT(Story(),
                ElementsAre("128 port2 STATE_ATTACH", "FindUsbNode port 2 type 9", "FindNetNode port 2",
                            "128 port2 already is ncm mode", "128 msgID:6 result:0 port:2 vid:4e8 pid:6860",
                            "128 port2 STATE_ATTACH->STATE_ML"));
}

TEST_F(UPortState, IPhonesAreAcceptedWithoutATransfer) {
    PutNode(kApple, 2);
    Stand(STATE_CP_SUPPORT, kApple);
    UMsgChMode request = Request(kApple, dcm::MSGID_REQ_CP_MODE);
    EXPECT_EQ(State().ProcessCPMode(&request), 0);
    EXPECT_THAT(Story(), ElementsAre("128 port2 STATE_CP_SUPPORT", "FindUsbNode port 2 type 6",
                                     "128 devid:dev-7", "128 port2 STATE_CP_SUPPORT->STATE_CP_CHANGING",
                                     "128 msgID:7 result:0 port:2 vid:5ac pid:12a8"));
}

TEST_F(UPortState, IPhonesAreRefusedWithResult1) {
    Stand(STATE_ATTACH, kApple);
    UMsgChMode request = Request(kApple, dcm::MSGID_REQ_CP_MODE);
    EXPECT_EQ(State().ProcessCPMode(&request), 1);
    EXPECT_EQ(State().ProcessICLMode(&request), 1);
    EXPECT_THAT(Story(), ElementsAre("128 port2 STATE_ATTACH", "160 port2 STATE_ATTACH, so can't change",
                                     "128 msgID:7 result:1 port:2 vid:5ac pid:12a8", "128 port2 STATE_ATTACH",
                                     "FindUsbNode port 2 type 6", "160 apple device doesn't exist",
                                     "128 msgID:9 result:1 port:2 vid:5ac pid:12a8"));
    Enter(STATE_CP_SUPPORT);
    EXPECT_EQ(State().ProcessCPMode(&request), 1);
    EXPECT_THAT(Logs(), Wrote(160, "apple device doesn't exist"));
    EXPECT_EQ(State().GetState(), STATE_CP_SUPPORT);
    Enter(STATE_CP);
    EXPECT_EQ(State().ProcessICLMode(&request), 1);
    EXPECT_THAT(DrainSdcm(), ElementsAre("9 result 1 port 2 05ac:12a8 A1 /devices/usb1/1-1/1-1.2 dev-7"));
}

// --- reset ---

TEST_F(UPortState, AResetRemovesThePhoneWhereItsNodeIs) {
    struct Mode {
        E_CON_STATE running;
        const char* reset;
        E_CON_STATE resetting;
    };
    Phone storage = kPhone;
    for (const Mode& mode : {Mode{STATE_AA, "StartAAPortReset 04e8:6860 port 2", STATE_AA_RESETTING},
                             Mode{STATE_ML, "StartMLPortReset port 2", STATE_ML_RESETTING},
                             Mode{STATE_CL, "StartCLPortReset 04e8:6860 port 2", STATE_CL_RESETTING}}) {
        PutNode(storage, 12);  // another phone on the same port of the unit: the node's number counts
        Stand(mode.running, kPhone, 32);
        UMsgChMode request = Request(kPhone, dcm::MSGID_REQ_RESET_MODE);
        State().ProcessResetMode(&request);
        EXPECT_THAT(Deeds(), ElementsAre("FindUsbNode port 2 type 9", "StartRemoveUsb port 12", mode.reset));
        EXPECT_EQ(State().GetState(), mode.resetting);
        EXPECT_THAT(DrainSdcm(),
                    ElementsAre("10 result 0 port 32 04e8:6860 S1 /devices/usb1/1-1/1-1.2 dev-7"));
        EXPECT_THAT(DrainMonitor(), IsEmpty());
    }
}

TEST_F(UPortState, AResetWhoseRemovalFailsGoesOn) {
    PutNode(kPhone, 2);
    TheStage().results["StartRemoveUsb"] = {-1};
    Stand(STATE_AA);
    UMsgChMode request = Request(kPhone, dcm::MSGID_REQ_RESET_MODE);
    State().ProcessResetMode(&request);
    EXPECT_EQ(State().GetState(), STATE_AA_RESETTING);
}

TEST_F(UPortState, AResetWithoutThePhoneTouchesNothing) {
    for (const auto state : {STATE_AA, STATE_ML, STATE_CL}) {
        Stand(state);
        UMsgChMode request = Request(kPhone, dcm::MSGID_REQ_RESET_MODE);
        State().ProcessResetMode(&request);
        EXPECT_THAT(Deeds(), Not(::testing::Contains(::testing::StartsWith("Start"))));
        EXPECT_THAT(Logs(), Wrote(160, "android device doesn't exist"));
        EXPECT_THAT(DrainSdcm(),
                    ElementsAre("10 result 1 port 2 04e8:6860 S1 /devices/usb1/1-1/1-1.2 dev-7"));
        EXPECT_EQ(State().GetState(), state);
    }
}

TEST_F(UPortState, AResetThatFailsChangesNothing) {
    for (const char* reset : {"StartAAPortReset", "StartMLPortReset", "StartCLPortReset", "StartCPPortReset"})
        TheStage().results[reset] = {-1};
    PutNode(kPhone, 2);
    for (const auto state : {STATE_AA, STATE_ML, STATE_CL, STATE_CP, STATE_CP_CHANGING}) {
        Stand(state);
        UMsgChMode request = Request(kPhone, dcm::MSGID_REQ_RESET_MODE);
        State().ProcessResetMode(&request);
        EXPECT_EQ(State().GetState(), state);
        EXPECT_THAT(DrainSdcm(),
                    ElementsAre("10 result 1 port 2 04e8:6860 S1 /devices/usb1/1-1/1-1.2 dev-7"));
        EXPECT_THAT(DrainMonitor(), IsEmpty());
    }
    Stand(STATE_CL, kApple);
    UMsgChMode request = Request(kApple, dcm::MSGID_REQ_RESET_MODE);
    State().ProcessResetMode(&request);
    EXPECT_EQ(State().GetState(), STATE_CL);
    EXPECT_THAT(DrainMonitor(), IsEmpty());
}

TEST_F(UPortState, AResetOfAnIPhoneArmsATimer) {
    UMsgChMode request = Request(kApple, dcm::MSGID_REQ_RESET_MODE);
    for (const auto state : {STATE_CP, STATE_CP_CHANGING}) {
        Stand(state, kApple);
        State().ProcessResetMode(&request);
        EXPECT_THAT(Deeds(), ElementsAre("StartCPPortReset 05ac:12a8 port 2"));
        EXPECT_THAT(DrainMonitor(), ElementsAre("41 port 2"));
        EXPECT_EQ(State().GetState(), STATE_CP_RESETTING);
    }
    for (const auto state : {STATE_CL, STATE_CL_CHANGING}) {
        Stand(state, kApple);
        State().ProcessResetMode(&request);
        EXPECT_THAT(Deeds(), ElementsAre("StartCLPortReset 05ac:12a8 port 2"));
        EXPECT_THAT(DrainMonitor(), ElementsAre("39 port 2"));
        EXPECT_EQ(State().GetState(), STATE_CL_RESETTING);
    }
}

TEST_F(UPortState, AResetOfNothingIsRefused) {
    for (const auto state :
         {STATE_DETACH, STATE_ATTACH, STATE_CP_SUPPORT, STATE_AA_CHANGING, STATE_ML_CHANGING, STATE_RESETTING,
          STATE_AA_RESETTING, STATE_ML_RESETTING, STATE_CP_RESETTING, STATE_CL_RESETTING}) {
        Stand(state);
        UMsgChMode request = Request(kPhone, dcm::MSGID_REQ_RESET_MODE);
        State().ProcessResetMode(&request);
        const char* const name = dcm::usb::UPortState::kStateName[state];
        EXPECT_THAT(Story(),
                    ElementsAre(Format("128 port2 %s", name), Format("160 port2 %s, so can't reset", name),
                                "128 msgID:10 result:1 port:2 vid:4e8 pid:6860"));
    }
}

TEST_F(UPortState, AResetInCarLifeIsRefusedQuietlyForTheWrongPhones) {
    UMsgChMode request = Request(kPhone, dcm::MSGID_REQ_RESET_MODE);
    for (const auto& [state, phone] :
         {std::pair{STATE_CL_CHANGING, kPhone}, std::pair{STATE_CL_CHANGING, OfType(DEV_TYPE_STORAGE)},
          std::pair{STATE_CL, OfType(DEV_TYPE_STORAGE)}}) {
        Stand(state, phone);
        State().ProcessResetMode(&request);
        EXPECT_THAT(Story(), ElementsAre(Format("128 port2 %s", dcm::usb::UPortState::kStateName[state]),
                                         "128 msgID:10 result:1 port:2 vid:4e8 pid:6860"));
    }
}

// --- search ---

TEST_F(UPortState, ASearchAnswersSdcmAlwaysAndMediaByType) {
    UMsgSearch sdcm = ShortMessage(dcm::MSGID_SEARCH, 2, SEARCH_FROM_SDCM);
    UMsgSearch media = ShortMessage(dcm::MSGID_SEARCH, 2, SEARCH_FROM_MEDIA);
    for (const auto type :
         {DEV_TYPE_STORAGE, DEV_TYPE_APPLE, DEV_TYPE_APPLE_SHUTTLE, DEV_TYPE_PHONE, DEV_TYPE_MTP}) {
        Stand(STATE_ATTACH, OfType(type));
        State().ProcessSearch(&sdcm);
        EXPECT_THAT(DrainSdcm(),
                    ElementsAre(Format("1 port 2 type %d 04e8:6860 class ff speed 3 capa 0,0,0,0 S1 "
                                       "Phone Maker /devices/usb1/1-1/1-1.2",
                                       type)));
        EXPECT_THAT(Packets(), IsEmpty());
        ForgetStory();
        State().ProcessSearch(&media);
        EXPECT_THAT(DrainSdcm(), IsEmpty());
        if (type == DEV_TYPE_STORAGE || type == DEV_TYPE_PHONE) {
            EXPECT_THAT(Packets(), IsEmpty());
            EXPECT_THAT(Story(), ElementsAre("128 port2 STATE_ATTACH",
                                             Format("160 port2 dev_type:%d, so not send", type)));
        } else {
            EXPECT_THAT(TakeMedia(),
                        ElementsAre(Format("cmd 2.0 port 2 type %d 04e8:6860 support 0,0,0 class ff "
                                           "speed 3 S1 Phone Maker /devices/usb1/1-1/1-1.2",
                                           type)));
        }
    }
}

// --- timers ---

TEST_F(UPortState, AChangeThatTookTooLongIsAnsweredWithItsOwnNumber) {
    for (const auto& [state, id] : {std::pair{STATE_AA_CHANGING, 5}, std::pair{STATE_ML_CHANGING, 6},
                                    std::pair{STATE_CL_CHANGING, 8}}) {
        for (const int status : {0, 1}) {
            TheStage().results["DiscernPortStatus"] = {status};
            Stand(state);
            UMsgTimeout timeout = ShortMessage(dcm::MSGID_CH_TIMEOUT, 2);
            State().ProcessChTimeoutMsg(&timeout);
            EXPECT_EQ(State().GetState(), STATE_ATTACH);
            EXPECT_THAT(DrainSdcm(),
                        ElementsAre(Format("%d result 1 port 2 04e8:6860 S1 /devices/usb1/1-1/1-1.2 ", id)));
        }
        TheStage().results["DiscernPortStatus"] = {2};
        Stand(state);
        UMsgTimeout timeout = ShortMessage(dcm::MSGID_CH_TIMEOUT, 2);
        State().ProcessChTimeoutMsg(&timeout);
        EXPECT_EQ(State().GetState(), STATE_DETACH);
        EXPECT_THAT(DrainSdcm(),
                    ElementsAre("2 port 2 type 9 04e8:6860 class ff speed 3 capa 0,0,0,0 S1 Phone "
                                "Maker /devices/usb1/1-1/1-1.2"));
    }
}

TEST_F(UPortState, ATimeoutOfAResetIPhoneInCarLifeIsIgnored) {
    for (const auto state : {STATE_CP_CHANGING, STATE_CL_RESETTING}) {
        Stand(state, kApple);
        UMsgTimeout timeout = ShortMessage(dcm::MSGID_CH_TIMEOUT, 32);
        State().ProcessChTimeoutMsg(&timeout);
        const char* const name = dcm::usb::UPortState::kStateName[state];
        EXPECT_THAT(Story(),
                    ElementsAre(Format("128 port2 2 %s", name), Format("160 port2 %s, so not send", name)));
    }
}

// --- engineering menu ---

TEST_F(UPortState, HubModeIsSetDuringCarPlayOnly) {
    for (const auto state : kAllStates) {
        Stand(state, kApple);
        State().ProcessHubMode(HUB_DEVICE);
        const char* const name = dcm::usb::UPortState::kStateName[state];
        if (state == STATE_CP)
            EXPECT_THAT(Story(), ElementsAre("128 port2 STATE_CP mode:2", "StartHubMode port 2 mode 2"));
        else
            EXPECT_THAT(Story(), ElementsAre(Format("128 port2 %s, so can't change", name)));
    }
}

TEST_F(UPortState, TheSignalTestRunsInAnyState) {
    for (const auto state : kAllStates) {
        Stand(state);
        const char* const name = dcm::usb::UPortState::kStateName[state];
        State().ProcessTestForceEnable(true);
        State().ProcessTestForceEnable(false);
        EXPECT_THAT(Story(),
                    ElementsAre(Format("128 port2 %s trigger:1", name), "StartEyePattern port 2 on",
                                Format("128 port2 %s trigger:0", name), "StartEyePattern port 2 off"));
    }
}

// --- which digit goes where ---

struct Digits {
    unsigned char port;
    unsigned unit;
    unsigned phone;
};
class UPortStateDigits : public UPortState, public ::testing::WithParamInterface<Digits> {
protected:
    unsigned Whole() const { return GetParam().port; }
    std::string Unit(const char* deed) const { return Format("%s port %u", deed, GetParam().unit); }
    std::string ToPhone(const char* deed) const {
        return Format("%s 04e8:6860 port %u", deed, GetParam().phone);
    }
    std::string ResetOf(const char* deed, const Phone& phone = kPhone) const {
        return Format("%s %04x:%04x port %u", deed, phone.vid, phone.pid, GetParam().unit);
    }
    std::string Find(E_DEV_TYPE type) const {
        return Format("FindUsbNode port %u type %u", GetParam().unit, type);
    }
    std::string Item(int id) const { return Format("%d port %u", id, Whole()); }
    std::string NodeItem(int id, const Phone& phone) const {
        return Format("%d port %u type 9 %04x:%04x class ff speed 3 S1 Phone Maker /devices/usb1/1-1/1-1.2",
                      id, Whole(), phone.vid, phone.pid);
    }
    dcm::usb::UPortState& StandHere(E_CON_STATE state, const Phone& phone = kPhone) {
        PutNode(phone, GetParam().port);
        return Stand(state, phone, GetParam().port);
    }
};
INSTANTIATE_TEST_SUITE_P(Ports, UPortStateDigits,
                         ::testing::Values(Digits{2, 2, 2}, Digits{9, 9, 9}, Digits{10, 0, 1},
                                           Digits{12, 2, 1}, Digits{32, 2, 3}, Digits{99, 9, 9}),
                         [](const auto& info) { return Format("Port%d", info.param.port); });

TEST_P(UPortStateDigits, ProbesGoToThePhone) {
    Renew(GetParam().port);
    Add(kPhone);
    EXPECT_THAT(Deeds(), ElementsAre(ToPhone("DiscernAACapability")));
    EXPECT_THAT(DrainSdcm(), ElementsAre(Format("1 port %u type 9 04e8:6860 class ff speed 3 capa 0,1,2,2 S1 "
                                                "Phone Maker /devices/usb1/1-1/1-1.2",
                                                Whole())));
    EXPECT_THAT(TakeMedia(),
                ElementsAre(Format("cmd 2.0 port %u type 9 04e8:6860 support 0,0,0 class ff speed 3 S1 "
                                   "Phone Maker /devices/usb1/1-1/1-1.2",
                                   GetParam().unit)));
    Renew(GetParam().port);
    Add(OfType(DEV_TYPE_APPLE));
    EXPECT_THAT(Deeds(), ElementsAre(ToPhone("DiscernCPCapability")));
}

TEST_P(UPortStateDigits, StartsGoToThePhoneAndNodesAreThoseOfTheUnitsPort) {
    UMsgChMode request = ModeRequest(dcm::MSGID_REQ_AA_MODE, kPhone, GetParam().port, "dev-7");
    StandHere(STATE_ATTACH).ProcessAAMode(&request);
    EXPECT_THAT(Deeds(), ElementsAre(Find(DEV_TYPE_PHONE), ToPhone("StartAOAP")));
    EXPECT_THAT(DrainMonitor(), ElementsAre(Item(39)));
    StandHere(STATE_ATTACH).ProcessACLMode(&request);
    EXPECT_THAT(Deeds(), ElementsAre(Find(DEV_TYPE_PHONE), ToPhone("StartCarLifeAOAP")));
    EXPECT_THAT(DrainMonitor(), ElementsAre(Item(39)));
    StandHere(STATE_ATTACH).ProcessMLMode(&request);
    EXPECT_THAT(Deeds(), ElementsAre(Find(DEV_TYPE_PHONE), Format("FindNetNode port %u", Whole()),
                                     ToPhone("StartMirrorLink")));
    EXPECT_THAT(DrainMonitor(), ElementsAre(Item(39)));
    UMsgChMode apple = ModeRequest(dcm::MSGID_REQ_CP_MODE, kApple, GetParam().port, "dev-7");
    EXPECT_EQ(StandHere(STATE_CP_SUPPORT, kApple).ProcessCPMode(&apple), 0);
    EXPECT_THAT(Deeds(), ElementsAre(Find(DEV_TYPE_APPLE)));
    EXPECT_EQ(StandHere(STATE_CP_SUPPORT, kApple).ProcessICLMode(&apple), 0);
    EXPECT_THAT(Deeds(), ElementsAre(Find(DEV_TYPE_APPLE)));
    EXPECT_THAT(DrainSdcm(), ElementsAre(Format(
                                 "9 result 0 port %u 05ac:12a8 A1 /devices/usb1/1-1/1-1.2 dev-7", Whole())));
}

TEST_P(UPortStateDigits, RestartsGoToThePhoneAndItemsHaveTheWholeNumber) {
    StandHere(STATE_AA_CHANGING);
    Add(kPhone);
    EXPECT_THAT(Deeds(), ElementsAre("sleep 1", ToPhone("StartAOAP")));
    EXPECT_THAT(DrainMonitor(), ElementsAre(NodeItem(38, kPhone), Item(39)));
    Remove(kPhone);
    EXPECT_THAT(DrainMonitor(), ElementsAre(Item(40), NodeItem(37, kPhone)));
    StandHere(STATE_CL_CHANGING);
    Add(kPhone);
    EXPECT_THAT(Deeds(), ElementsAre("sleep 1", ToPhone("StartCarLifeAOAP")));
    StandHere(STATE_ATTACH, kApple);
    HidAdd();
    EXPECT_THAT(DrainMonitor(), ElementsAre(Item(43)));
    TheStage().results["DiscernCPCapability"] = {1};
    HidAdd();
    EXPECT_THAT(DrainMonitor(), ElementsAre(Item(44)));
    StandHere(STATE_ATTACH, kApple);
    Remove(kApple);
    EXPECT_THAT(DrainMonitor(), ElementsAre(Item(44)));
    StandHere(STATE_CP_RESETTING, kApple);
    Add(kApple);
    EXPECT_THAT(DrainMonitor(), ElementsAre(Item(42)));
    StandHere(STATE_CL_RESETTING, kApple);
    Add(kApple);
    EXPECT_THAT(DrainMonitor(), ElementsAre(Item(40)));
}

TEST_P(UPortStateDigits, ResetsGoToTheUnitsPort) {
    UMsgChMode request = ModeRequest(dcm::MSGID_REQ_RESET_MODE, kPhone, GetParam().port, "dev-7");
    const std::string removed = Format("StartRemoveUsb port %u", Whole());
    StandHere(STATE_AA).ProcessResetMode(&request);
    EXPECT_THAT(Deeds(), ElementsAre(Find(DEV_TYPE_PHONE), removed, ResetOf("StartAAPortReset")));
    StandHere(STATE_ML).ProcessResetMode(&request);
    EXPECT_THAT(Deeds(), ElementsAre(Find(DEV_TYPE_PHONE), removed, Unit("StartMLPortReset")));
    StandHere(STATE_CL).ProcessResetMode(&request);
    EXPECT_THAT(Deeds(), ElementsAre(Find(DEV_TYPE_PHONE), removed, ResetOf("StartCLPortReset")));
    StandHere(STATE_CP).ProcessResetMode(&request);
    EXPECT_THAT(Deeds(), ElementsAre(ResetOf("StartCPPortReset")));
    EXPECT_THAT(DrainMonitor(), ElementsAre(Item(41)));
    StandHere(STATE_CL, kApple).ProcessResetMode(&request);
    EXPECT_THAT(Deeds(), ElementsAre(ResetOf("StartCLPortReset")));
    EXPECT_THAT(DrainMonitor(), ElementsAre(Item(39)));
    StandHere(STATE_AA_RESETTING);
    Add(Accessory());
    EXPECT_THAT(Deeds(), ElementsAre("sleep 1", ResetOf("StartAAPortReset", Accessory())));
    StandHere(STATE_CL_RESETTING);
    Add(Accessory());
    EXPECT_THAT(Deeds(), ElementsAre("sleep 1", ResetOf("StartCLPortReset", Accessory())));
    StandHere(STATE_CP).ProcessTtyChangeMsg();
    EXPECT_THAT(Deeds(), ElementsAre(ResetOf("StartCPPortReset")));
}

TEST_P(UPortStateDigits, StatusAndEngineeringGoToTheUnitsPort) {
    UMsgTimeout timeout = ShortMessage(dcm::MSGID_CH_TIMEOUT, GetParam().port);
    StandHere(STATE_AA_CHANGING).ProcessChTimeoutMsg(&timeout);
    EXPECT_THAT(Deeds(), ElementsAre(Unit("DiscernPortStatus")));
    StandHere(STATE_CP_RESETTING).ProcessCarplayTimeoutMsg(&timeout);
    EXPECT_THAT(Deeds(), ElementsAre(Unit("DiscernPortStatus")));
    EXPECT_EQ(Story().at(0), Format("128 port%u %u STATE_CP_RESETTING", Whole(), GetParam().unit));
    StandHere(STATE_AA);
    Defer(kPhone);
    EXPECT_THAT(Deeds(), ElementsAre(Unit("DiscernPortStatus")));
    StandHere(STATE_CP).ProcessHubMode(HUB_HOST);
    EXPECT_THAT(Deeds(), ElementsAre(Unit("StartHubMode") + " mode 1"));
    StandHere(STATE_CP).ProcessTestForceEnable(true);
    EXPECT_THAT(Deeds(), ElementsAre(Unit("StartEyePattern") + " on"));
}

// --- what is missing ---

TEST_F(UPortState, NothingIsDoneWithoutAMessage) {
    for (const auto state : kAllStates) {
        Stand(state, kApple);
        State().ProcessUsbAddMsg(nullptr);
        State().ProcessUsbRemoveMsg(nullptr);
        State().ProcessDeferredMsg(nullptr);
        State().ProcessHidAddMsg(nullptr);
        State().ProcessAAMode(nullptr);
        State().ProcessACLMode(nullptr);
        State().ProcessMLMode(nullptr);
        State().ProcessSearch(nullptr);
        State().ProcessChTimeoutMsg(nullptr);
        State().ProcessCarplayTimeoutMsg(nullptr);
        State().ProcessCarplayCapaMsg(nullptr);
        EXPECT_EQ(State().GetState(), state);
        const LogLine head = Line(128, Format("port2 %s", dcm::usb::UPortState::kStateName[state]));
        const LogLine null = Line(192, "msg is null");
        const LogLine null_and_blank = Line(192, "msg is null ");
        EXPECT_THAT(Logs(), ElementsAre(head, null, head, null_and_blank, null, null, null_and_blank,
                                        null_and_blank, null, null, null, null, null));
        EXPECT_THAT(Deeds(), IsEmpty());
        EXPECT_THAT(DrainSdcm(), IsEmpty());
        EXPECT_THAT(DrainMonitor(), IsEmpty());
    }
}

TEST_F(UPortState, SomeRequestsAreAnsweredEvenWithoutAMessage) {
    Stand(STATE_CP_SUPPORT, kApple);
    EXPECT_EQ(State().ProcessCPMode(nullptr), 1);
    EXPECT_EQ(State().ProcessICLMode(nullptr), 1);
    State().ProcessResetMode(nullptr);
    EXPECT_THAT(DrainSdcm(), ElementsAre("7 result 1 port 2 05ac:12a8 A1 /devices/usb1/1-1/1-1.2 ",
                                         "9 result 1 port 2 05ac:12a8 A1 /devices/usb1/1-1/1-1.2 ",
                                         "10 result 1 port 2 05ac:12a8 A1 /devices/usb1/1-1/1-1.2 "));
    EXPECT_THAT(Logs(192),
                ElementsAre(Line(192, "msg is null"), Line(192, "msg is null"), Line(192, "msg is null")));
}

TEST_F(UPortState, NothingIsDoneWithoutANotifier) {
    PutNode(kPhone, 2);
    PutNode(kApple, 2);
    for (const auto from : kAllStates) {
        dcm::usb::UPortState state(2, nullptr);
        UMsgNode node = NodeMessage(dcm::MSGID_USB_ADD, kApple, 2);
        UMsgChMode request = ModeRequest(dcm::MSGID_REQ_AA_MODE, kApple, 2, "dev-7");
        UMsgHeader message = ShortMessage(dcm::MSGID_CH_TIMEOUT, 2);
        state.UpdateNode(&node);
        state.SetState(from);
        ForgetStory();
        state.ProcessUsbAddMsg(&node);
        state.ProcessUsbRemoveMsg(&node);
        state.ProcessDeferredMsg(&node);
        state.ProcessHidAddMsg(&message);
        state.ProcessTtyChangeMsg();
        state.ProcessAAMode(&request);
        state.ProcessACLMode(&request);
        state.ProcessMLMode(&request);
        EXPECT_EQ(state.ProcessCPMode(&request), 1);
        EXPECT_EQ(state.ProcessICLMode(&request), 1);
        state.ProcessResetMode(&request);
        state.ProcessSearch(&message);
        state.ProcessChTimeoutMsg(&message);
        state.ProcessCarplayTimeoutMsg(&message);
        state.ProcessCarplayCapaMsg(&message);
        EXPECT_EQ(state.GetState(), from);
        EXPECT_THAT(Deeds(), IsEmpty());
        // Fifteen operations; the six that answer say it once more.
        EXPECT_THAT(Logs(192), ElementsAreArray(std::vector<LogLine>(21, Line(192, "notifier is null"))));
    }
}

}  // namespace
}  // namespace test
