#include "TransitionTable.h"

#include <algorithm>

#include "support/SysTree.h"

namespace test {

using namespace dcm::usb;

namespace {

const std::string kHostPorts = "/devices/platform/17300000.usb/17300000.dwc3/xhci-hcd.4.auto/usb1/1-1";

std::string Codes(const Expected& e) {
    return Format("%d,%d,%d,%d", e.capa[0], e.capa[1], e.capa[2], e.capa[3]);
}

std::string Texts(const Phone& phone) {
    return phone.serial + " " + phone.product + " " + phone.manufacturer + " " + phone.devpath;
}

std::string Device(const Phone& phone, unsigned port) {
    return Format("port %u type %u %04x:%04x", port, phone.type, phone.vid, phone.pid);
}

std::string Class(const Phone& phone) {
    return Format("class %x speed %u", phone.usb_class, phone.speed);
}

void Told(Expected& e, int id, const Phone& phone) {
    e.story.push_back(
        Format("128 msgID:%d vid:%x pid:%x capa:%s", id, phone.vid, phone.pid, Codes(e).c_str()));
    e.sdcm.push_back(Format("%d ", id) + Device(phone, e.port) + " " + Class(phone) + " capa " + Codes(e) +
                     " " + Texts(phone));
}

void ToldResult(Expected& e, int id, int result, const Phone& phone, const std::string& devid) {
    e.story.push_back(
        Format("128 msgID:%d result:%d port:%d vid:%x pid:%x", id, result, e.port, phone.vid, phone.pid));
    e.sdcm.push_back(Format("%d result %d port %d %04x:%04x ", id, result, e.port, phone.vid, phone.pid) +
                     phone.serial + " " + phone.devpath + " " + devid);
}

Step On(const char* operation, const Phone& (*whom)(const Expected&), unsigned (*where)(const Expected&)) {
    return [=](Expected& e) {
        const Phone& phone = whom(e);
        e.story.push_back(Format("%s %04x:%04x port %u", operation, phone.vid, phone.pid, where(e)));
    };
}

const Phone& Coming(const Expected& e) {
    return e.coming;
}
const Phone& Stored(const Expected& e) {
    return e.memory.stored;
}
const Phone& Asked(const Expected& e) {
    return e.asked;
}
unsigned Unit(const Expected& e) {
    return e.Unit();
}
unsigned Transfer(const Expected& e) {
    return e.Transfer();
}

void AtMonitor(Expected& e, int id, bool is_add) {
    e.story.push_back(Format("128 isAdd:%d port:%d", is_add, e.port));
    std::string record = Format("%d port %d", id, e.port);
    if (id == 37 || id == 38)
        record = Format("%d ", id) + Device(e.coming, e.port) + " " + Class(e.coming) + " " + Texts(e.coming);
    e.monitor.push_back(record);
}

// What a device of this kind is known to do once it came.
std::vector<int> CapaOf(const Memory& memory) {
    const Phone& phone = memory.stored;
    switch (phone.type) {
        case DEV_TYPE_STORAGE:
            return {2, 1, 2, 2};
        case DEV_TYPE_APPLE:
        case DEV_TYPE_APPLE_SHUTTLE:
            return {2, 2, memory.cp, 2};
        case DEV_TYPE_PHONE:
        case DEV_TYPE_MTP:
            return {phone.vid == 0x18d1 ? 3 : 1, 1, 2, 2};
        default:
            return {0, 0, 0, 0};
    }
}

// The number behind a word in the story; 0 when the word is not there.
int NumberBehind(const std::string& word) {
    for (const std::string& text : Story())
        if (const auto at = text.find(word); at != std::string::npos)
            return std::stoi(text.substr(at + word.size()));
    return 0;
}

}  // namespace

const char* StateName(E_CON_STATE state) {
    static const char* const kNames[] = {
        "STATE_DETACH",       "STATE_ATTACH",       "STATE_CP_SUPPORT",   "STATE_AA_CHANGING",
        "STATE_ML_CHANGING",  "STATE_CP_CHANGING",  "STATE_CL_CHANGING",  "STATE_RESETTING",
        "STATE_AA",           "STATE_ML",           "STATE_CP",           "STATE_CL",
        "STATE_AA_RESETTING", "STATE_ML_RESETTING", "STATE_CP_RESETTING", "STATE_CL_RESETTING"};
    return kNames[state];
}

Step All(Steps steps) {
    return [steps](Expected& e) {
        for (const Step& step : steps)
            step(e);
    };
}

Step Say(int level, const std::string& text) {
    return [=](Expected& e) { e.story.push_back(Format("%d ", level) + text); };
}

Step Enter() {
    return [](Expected& e) { e.story.push_back(Format("128 port%d %s", e.port, StateName(e.state))); };
}

Step EnterWithId() {
    return [](Expected& e) {
        e.story.push_back(Format("128 port%d %d %s", e.port, e.Unit(), StateName(e.state)));
    };
}

Step NotSend() {
    return [](Expected& e) {
        e.story.push_back(Format("160 port%d %s, so not send", e.port, StateName(e.state)));
    };
}

Step Go(E_CON_STATE state) {
    return [=](Expected& e) {
        e.story.push_back(Format("128 port%d %s->%s", e.port, StateName(e.state), StateName(state)));
        e.state = state;
    };
}

Step Sleep() {
    return [](Expected& e) { e.story.push_back("sleep 1"); };
}

Step ToComing(const char* operation) {
    return On(operation, Coming, Transfer);
}
Step ToStored(const char* operation) {
    return On(operation, Stored, Transfer);
}
Step ToAsked(const char* operation) {
    return On(operation, Asked, Transfer);
}
Step ResetComing(const char* operation) {
    return On(operation, Coming, Unit);
}
Step ResetStored(const char* operation) {
    return On(operation, Stored, Unit);
}
Step ResetAsked(const char* operation) {
    return On(operation, Asked, Unit);
}

Step OnUnitPort(const char* operation, const std::string& rest) {
    return [=](Expected& e) { e.story.push_back(Format("%s port %u%s", operation, e.Unit(), rest.c_str())); };
}

Step OnWholePort(const char* operation) {
    return [=](Expected& e) { e.story.push_back(Format("%s port %u", operation, e.port)); };
}

Step Find(E_DEV_TYPE type) {
    return OnUnitPort("FindUsbNode", Format(" type %u", type));
}

Step Arm(int id) {
    return [=](Expected& e) { AtMonitor(e, id, true); };
}

Step Cancel(int id) {
    return [=](Expected& e) { AtMonitor(e, id, false); };
}

Step TellNode() {
    return [](Expected& e) { Told(e, e.node == dcm::MSGID_USB_ADD ? 1 : 2, e.coming); };
}

Step TellStored(int id) {
    return [=](Expected& e) { Told(e, id, e.memory.stored); };
}

Step TellMedia(int cmd) {
    return [=](Expected& e) {
        const Phone& phone = e.memory.stored;
        e.story.push_back(
            Format("128 cmd:%d sub_cmd:0 dev_type:%u port:%u vid:%x pid:%x support:0:0:0 class:%x"
                   " speed:%u",
                   cmd, phone.type, e.Unit(), phone.vid, phone.pid, phone.usb_class, phone.speed));
        e.story.push_back("128 serial:" + phone.serial + " product:" + phone.product +
                          " manu:" + phone.manufacturer + " dev_path:" + phone.devpath);
        e.media.push_back(Format("cmd %d.0 ", cmd) + Device(phone, e.Unit()) + " support 0,0,0 " +
                          Class(phone) + " " + Texts(phone));
    };
}

Step TellSwitched(int id) {
    return [=](Expected& e) {
        const Phone& phone = e.coming;
        e.story.push_back(Format("128 msgID:%d port:%d vid:%x pid:%x", id, e.port, phone.vid, phone.pid));
        e.sdcm.push_back(Format("%d result 0 port %d %04x:%04x ", id, e.port, phone.vid, phone.pid) +
                         phone.serial + " " + phone.devpath + " " + e.devid);
    };
}

Step TellAsked(int id, int result) {
    return [=](Expected& e) { ToldResult(e, id, result, e.asked, kAskedDevid); };
}

Step TellStoredResult(int id, int result) {
    return [=](Expected& e) { ToldResult(e, id, result, e.memory.stored, e.devid); };
}

Step Store() {
    return [](Expected& e) {
        const Phone& phone = e.memory.stored = e.coming;
        e.story.push_back(Format("128 devtype:%u vid:%x pid:%x class:%x speed:%x ", phone.type, phone.vid,
                                 phone.pid, phone.usb_class, phone.speed) +
                          "manu:" + phone.manufacturer + " serial:" + phone.serial +
                          " product:" + phone.product + " path:" + phone.devpath);
    };
}

Step Capa(int aa, int ml, int cp, int cl) {
    return [=](Expected& e) {
        e.capa = {aa, ml, cp, cl};
        SameCapa()(e);
    };
}

Step SameCapa() {
    return [](Expected& e) {
        e.story.push_back(Format("128 aa_capa:%d ml_capa:%d cp_capa:%d cl_capa:%d", e.capa[0], e.capa[1],
                                 e.capa[2], e.capa[3]));
    };
}

Step Name() {
    return [](Expected& e) { e.devid = kAskedDevid; };
}

Step Tty(bool attached) {
    return [=](Expected& e) { e.memory.tty = attached; };
}

Step CountAoapRetry() {
    return [](Expected& e) {
        e.story.push_back(Format("160 port%d aoap_retry:%d vid:%x pid:%x", e.port, ++e.memory.aoap_retry,
                                 e.coming.vid, e.coming.pid));
    };
}

Step CountResetRetry() {
    return [](Expected& e) {
        e.story.push_back(Format("160 port%d reset_retry:%d", e.port, ++e.memory.reset_retry));
    };
}

Step ClearAoapRetry() {
    return [](Expected& e) { e.memory.aoap_retry = 0; };
}

Step ClearResetRetry() {
    return [](Expected& e) { e.memory.reset_retry = 0; };
}

Step HostPort() {
    return [](Expected& e) {
        // The numbers are read as hexadecimal ones; behind a second hub nothing is read.
        const char* const numbers = e.port == 1   ? "busno:1 devno:16"
                                    : e.port == 2 ? "busno:1 devno:18"
                                                  : "busno:0 devno:0";
        e.story.push_back(Format("128 %s port:%d interfaceId:3111", numbers, e.port));
    };
}

Phone Android() {
    return {};
}

Phone Accessory(std::uint16_t pid) {
    Phone phone;
    phone.vid = 0x18d1;
    phone.pid = pid;
    phone.product = "Accessory";
    return phone;
}

Phone Mtp() {
    return WithType(WithIds(Android(), 0x0fce, 0x01bb), DEV_TYPE_MTP);
}

Phone Apple() {
    return WithType(WithIds(Android(), 0x05ac, 0x12a8), DEV_TYPE_APPLE);
}

Phone Shuttle() {
    return WithType(WithIds(Android(), 0x05ac, 0x1290), DEV_TYPE_APPLE_SHUTTLE);
}

Phone Stick() {
    return WithType(WithIds(Android(), 0x0951, 0x1666), DEV_TYPE_STORAGE);
}

Phone Other(int type) {
    return WithType(WithIds(Android(), 0x046d, 0xc077), static_cast<E_DEV_TYPE>(type));
}

Phone WithSerial(Phone phone, const std::string& serial) {
    phone.serial = serial;
    return phone;
}

Phone WithIds(Phone phone, std::uint16_t vid, std::uint16_t pid) {
    phone.vid = vid;
    phone.pid = pid;
    return phone;
}

Phone WithType(Phone phone, E_DEV_TYPE type) {
    phone.type = type;
    return phone;
}

void TransitionTable::Run(const std::vector<Event>& events) {
    SysTree sys;
    for (const char* port : {"/1-1.1", "/1-1.2"})
        sys.Set(kHostPorts + port + "/busnum", "1\n");
    sys.Set(kHostPorts + "/1-1.1/devnum", "10\n");
    sys.Set(kHostPorts + "/1-1.2/devnum", "12\n");
    for (const Event& event : events) {
        std::vector<int> rows_of_state(kStateCount, 0);
        for (const Row& row : event.rows) {
            for (const E_CON_STATE state : row.states) {
                ++rows_of_state.at(state);
                for (const unsigned char port : {1, 2, 32})
                    Check(event, row, state, port);
            }
        }
        EXPECT_THAT(rows_of_state, ::testing::Each(1)) << event.name << ": rows of each state";
    }
}

// The port comes to know the device and the request as it does in the car, and counts its retries itself.
void TransitionTable::Prepare(const Event& event, E_CON_STATE state, unsigned char port) {
    const Memory& memory = event.memory;
    Renew(port);
    TheStage() = PortStage();
    TheStage().results = {{"DiscernAACapability", {1}}, {"DiscernCPCapability", {memory.cp}}};
    UMsgNode node = NodeMessage(dcm::MSGID_USB_ADD, memory.stored, port);
    State().ProcessUsbAddMsg(&node);
    UMsgChMode request = ModeRequest(dcm::MSGID_REQ_CP_MODE, memory.stored, port, kOldDevid);
    State().UpdateNode(&request);
    if (memory.tty) State().ProcessTtyAddMsg();
    State().SetState(STATE_AA_CHANGING);
    UMsgNode unswitched = NodeMessage(dcm::MSGID_USB_ADD, Android(), port);
    for (int retry = 0; retry < memory.aoap_retry; ++retry)
        State().ProcessUsbAddMsg(&unswitched);
    State().SetState(STATE_AA_RESETTING);
    UMsgNode accessory = NodeMessage(dcm::MSGID_USB_ADD, WithSerial(Accessory(), memory.stored.serial), port);
    for (int retry = 0; retry < memory.reset_retry; ++retry)
        State().ProcessUsbAddMsg(&accessory);
    State().SetState(state);

    TheStage() = PortStage();
    TheStage().results = event.results;
    for (const Phone& phone : event.nodes)
        PutNode(phone, port);
    if (event.net_node) TheStage().net_nodes = {port};
    Forget();
}

void TransitionTable::Check(const Event& event, const Row& row, E_CON_STATE state, unsigned char port) {
    SCOPED_TRACE(Format("port %d, %s: %s", port, StateName(state), event.name.c_str()));
    Prepare(event, state, port);
    Expected expected{port,      state,        event.memory, CapaOf(event.memory),
                      kOldDevid, event.coming, event.node,   event.asked,
                      {},        {},           {},           {}};
    for (const Step& step : row.steps)
        step(expected);

    event.happen(State(), event, port);

    EXPECT_EQ(Story(64), expected.story);
    EXPECT_EQ(DrainSdcm(), expected.sdcm);
    EXPECT_EQ(DrainMonitor(), expected.monitor);
    EXPECT_EQ(TakeMedia(), expected.media);
    EXPECT_EQ(State().GetState(), expected.state);
    ExpectMemory(expected);
}

// What the port says when it is asked about what it remembers.
void TransitionTable::ExpectMemory(const Expected& expected) {
    const Memory& memory = expected.memory;
    Expected told = expected;
    told.sdcm.clear();
    TellStored(1)(told);
    TellStoredResult(10, 1)(told);
    State().NotifyEventToSdcm(dcm::MSGID_DEVICE_ATTACHED);
    State().NotifyResultModeToSdcm(dcm::MSGID_RESULT_RESET_MODE, RESULT_FAILED, nullptr);
    EXPECT_EQ(DrainSdcm(), told.sdcm) << "what it remembers of the device";

    State().SetState(STATE_CP_CHANGING);
    UMsgNode gone = NodeMessage(dcm::MSGID_USB_REMOVE, memory.stored, expected.port);
    State().ProcessUsbRemoveMsg(&gone);
    EXPECT_EQ(State().GetState() == STATE_CP_CHANGING, memory.tty) << "tty";

    ForgetStory();
    State().SetState(STATE_AA_CHANGING);
    UMsgNode unswitched = NodeMessage(dcm::MSGID_USB_ADD, Android(), expected.port);
    State().ProcessUsbAddMsg(&unswitched);
    EXPECT_EQ(NumberBehind("aoap_retry:"), memory.aoap_retry + 1);

    ForgetStory();
    State().SetState(STATE_AA_RESETTING);
    const Phone back = WithSerial(Accessory(), memory.stored.serial);
    UMsgNode accessory = NodeMessage(dcm::MSGID_USB_ADD, back, expected.port);
    State().ProcessUsbAddMsg(&accessory);
    EXPECT_EQ(NumberBehind("reset_retry:"), memory.reset_retry < 10 ? memory.reset_retry + 1 : 0);
}

}  // namespace test
