// What tools see of the USB devices in the list.
#include "NodeBench.h"
#include "record/StatusRecord.h"

namespace {

using namespace dcm::usb;
using namespace test;
using ::testing::IsEmpty;
using ::testing::SizeIs;

const Device kStick{.vid = 0x0951,
                    .pid = 0x1666,
                    .interfaces = {{"08", "06", "50"}},
                    .manufacturer = "Kingston",
                    .product = "DataTraveler",
                    .serial = "E0D5"};

std::vector<DeviceStatus> Devices() {
    return Shown<DeviceStatus>(STATUS_DEVICE);
}

using DeviceStatusRow = NodeBench;

TEST_F(DeviceStatusRow, IsThereWithTheDeviceKnowsItsTypeWithTheLastInterfaceAndGoesWithIt) {
    AddDevice(kPort32, kStick);
    ASSERT_THAT(Devices(), SizeIs(1));
    EXPECT_EQ(Devices()[0].dev_type, DEV_TYPE_NONE) << "nobody knows yet";
    EXPECT_EQ(Devices()[0].vid, 0x0951);
    EXPECT_EQ(Devices()[0].pid, 0x1666);
    EXPECT_EQ(Devices()[0].port, 32);
    EXPECT_STREQ(Devices()[0].serial, "E0D5");
    EXPECT_STREQ(Devices()[0].product, "DataTraveler");
    EXPECT_STREQ(Devices()[0].manufacturer, "Kingston");
    EXPECT_EQ(Devices()[0].devpath, kPort32);

    AddInterface(kPort32, kStick, 0);
    ASSERT_THAT(Devices(), SizeIs(1)) << "an interface is no device";
    EXPECT_EQ(Devices()[0].dev_type, DEV_TYPE_STORAGE);

    Remove(InterfacePath(kPort32, 0));
    EXPECT_THAT(Devices(), SizeIs(1));
    Remove(kPort32);
    EXPECT_THAT(Devices(), IsEmpty());
}

TEST_F(DeviceStatusRow, IsOneForEachDeviceAlsoForOneThatIsAddedTwice) {
    PlugIn(kPort1, kStick);
    PlugIn(kPort2, kStick);
    PlugIn(kPort1, kStick);
    EXPECT_THAT(Devices(), SizeIs(2));
    List().RemoveAllNodes();
    EXPECT_THAT(Devices(), IsEmpty());
}

TEST_F(DeviceStatusRow, NodesOfOtherKindsHaveNone) {
    Insert(SUBSYSTEM_NET, kPort1 + "/net/usb0");
    Insert(SUBSYSTEM_BLOCK, kPort1 + "/block/sda");
    Insert(SUBSYSTEM_USB, kPort1);  // without its event
    EXPECT_THAT(Devices(), IsEmpty());
}

TEST_F(DeviceStatusRow, TheNumberOfNodesFollowsTheList) {
    EXPECT_EQ(ShownNumber(kStatusNodes), 0u);
    PlugIn(kPort1, kStick);
    EXPECT_EQ(ShownNumber(kStatusNodes), 2u);
    Remove(kPort1);
    EXPECT_EQ(ShownNumber(kStatusNodes), 0u);
}

}  // namespace
