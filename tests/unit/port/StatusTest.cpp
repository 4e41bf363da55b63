// What tools see of a port: its state, since when, and the device in it.
#include "PortBench.h"
#include "platform/status.h"
#include "record/StatusRecord.h"

namespace test {
namespace {

using namespace dcm::usb;
using ::testing::IsEmpty;
using ::testing::SizeIs;

std::vector<PortStatus> ShownPorts() {
    return Shown<PortStatus>(STATUS_PORT);
}

struct PortStatusRow : PortBench {
    PortStatus Now() {
        const std::vector<PortStatus> ports = ShownPorts();
        EXPECT_THAT(ports, SizeIs(1));
        return ports.at(0);
    }
    void Add(const Phone& phone) {
        UMsgNode message = NodeMessage(dcm::MSGID_USB_ADD, phone, State().GetPort());
        State().ProcessUsbAddMsg(&message);
    }
    void Remove(const Phone& phone) {
        UMsgNode message = NodeMessage(dcm::MSGID_USB_REMOVE, phone, State().GetPort());
        State().ProcessUsbRemoveMsg(&message);
    }
};

const DeviceStatus kNothing{};

TEST_F(PortStatusRow, IsThereWithThePortAndGoesWithIt) {
    const std::uint64_t before = status::NowNs();
    Renew(32);
    const PortStatus port = Now();
    EXPECT_EQ(port.port, 32);
    EXPECT_EQ(port.state, STATE_DETACH);
    EXPECT_STREQ(port.state_name, "STATE_DETACH");
    EXPECT_GE(port.since_ns, before);
    EXPECT_LE(port.since_ns, status::NowNs());
    EXPECT_EQ(BytesOf(port.device), BytesOf(kNothing));
    TearDown();
    EXPECT_THAT(ShownPorts(), IsEmpty());
    SetUp();
}

TEST_F(PortStatusRow, SaysWhichDeviceIsInThePortUntilItLeaves) {
    Renew(2);
    const Phone phone;
    Add(phone);
    const PortStatus port = Now();
    EXPECT_EQ(port.state, STATE_ATTACH);
    EXPECT_EQ(port.device.dev_type, phone.type);
    EXPECT_EQ(port.device.vid, phone.vid);
    EXPECT_EQ(port.device.pid, phone.pid);
    EXPECT_EQ(port.device.port, 2);
    EXPECT_EQ(port.device.serial, phone.serial);
    EXPECT_EQ(port.device.product, phone.product);
    EXPECT_EQ(port.device.manufacturer, phone.manufacturer);
    EXPECT_EQ(port.device.devpath, phone.devpath);
    Remove(phone);
    EXPECT_EQ(Now().state, STATE_DETACH);
    EXPECT_EQ(BytesOf(Now().device), BytesOf(kNothing)) << "what is remembered is not there";
}

TEST_F(PortStatusRow, NamesEachState) {
    Renew();
    for (std::uint32_t state = 0; state < kStateCount; ++state) {
        State().SetState(static_cast<E_CON_STATE>(state));
        EXPECT_EQ(Now().state, state);
        EXPECT_STREQ(Now().state_name, dcm::usb::UPortState::kStateName[state]);
    }
}

TEST_F(PortStatusRow, CountsTheTimeFromTheChangeAndNotFromARepetition) {
    Renew();
    const std::uint64_t made = Now().since_ns;
    const std::uint64_t before = status::NowNs();
    State().SetState(STATE_AA);
    const std::uint64_t since = Now().since_ns;
    EXPECT_GE(since, before);
    EXPECT_GT(since, made);
    State().SetState(STATE_AA);
    UMsgNode message = NodeMessage(dcm::MSGID_USB_ADD, Phone(), State().GetPort());
    State().UpdateNode(&message);
    EXPECT_EQ(Now().since_ns, since);
    State().SetState(static_cast<E_CON_STATE>(kStateCount));  // refused
    EXPECT_EQ(Now().since_ns, since);
    EXPECT_EQ(Now().state, STATE_AA);
}

TEST_F(PortStatusRow, FollowsTheDeviceThatIsTakenOverInTheSameState) {
    Renew();
    Add(Phone());
    Phone other;
    other.serial = "S2";
    UMsgNode message = NodeMessage(dcm::MSGID_USB_ADD, other, State().GetPort());
    State().UpdateNode(&message);
    EXPECT_STREQ(Now().device.serial, "S2");
}

}  // namespace
}  // namespace test
