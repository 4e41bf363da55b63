#include <cstring>

#include "PortBench.h"
#include "record/SdcmRecord.h"

namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using namespace dcm::usb;

const Phone kPhone = {DEV_TYPE_PHONE, 0x04e8,    0x6860, "SER1", "Phone", "Maker", "/devices/usb1/1-1/1-1.2",
                      0xe7,           0x00000203};
const Phone kShownPhone = {DEV_TYPE_APPLE_SHUTTLE,    0x05ac, 0x12a8, "SER2", "Pad", "Fruit",
                           "/devices/usb1/1-1/1-1.1", 0x06,   5};

// Bytes that begin at an offset of a record.
struct At {
    std::size_t offset;
    Bytes bytes;
};

Bytes Text(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

// All bytes that are not given are zero.
Bytes Record(std::size_t size, const std::vector<At>& parts) {
    Bytes record(size);
    for (const At& part : parts)
        std::copy(part.bytes.begin(), part.bytes.end(), record.begin() + part.offset);
    return record;
}

std::vector<Bytes> SdcmBytes() {
    std::vector<Bytes> records;
    for (const Queued& queued : Drain(dcm::DcmInterface::QUEUE_SDCM)) {
        EXPECT_EQ(queued.src, 4096u);
        records.push_back(queued.bytes);
    }
    return records;
}

// A message whose unused bytes are not zero.
UMsgNode DirtyNode(dcm::E_MSGID id, const Phone& phone, unsigned char port) {
    UMsgNode message = NodeMessage(id, phone, port);
    std::memset(message.unused, 0xEE, sizeof message.unused);
    std::memset(message.unused2, 0xEE, sizeof message.unused2);
    std::memset(message.unused3, 0xEE, sizeof message.unused3);
    std::memset(message.serial + phone.serial.size() + 1, 0xEE,
                sizeof message.serial - phone.serial.size() - 1);
    return message;
}

template <std::size_t size>
void FillWith(char letter, char (&field)[size]) {
    std::memset(field, letter, size);
}

class UPortStateReports : public PortBench {
protected:
    // Attached, with four different capability codes: no others tell whether they are in order.
    void AttachAs(const Phone& phone, unsigned char port = 2) {
        TheStage().results["DiscernAACapability"] = {3};
        TheStage().results["DiscernCPCapability"] = {1};
        Renew(port);
        UMsgNode message = NodeMessage(dcm::MSGID_USB_ADD, phone, port);
        State().ProcessUsbAddMsg(&message);
        State().SetState(STATE_ATTACH);
        Forget();
    }
};

// --- events ---

TEST_F(UPortStateReports, AnAttachFromANodeIsTheNodeAndThePortsCapabilities) {
    AttachAs(kPhone, 32);
    UMsgNode message = DirtyNode(dcm::MSGID_USB_ADD, kShownPhone, 12);
    State().NotifyEventToSdcm(&message);
    EXPECT_THAT(SdcmBytes(), ElementsAre(Record(364, {{4, Hex("01")},
                                                      {8, Hex("0C")},
                                                      {12, Hex("08")},
                                                      {16, Hex("AC05")},
                                                      {18, Hex("A812")},
                                                      {20, Hex("06")},
                                                      {24, Hex("05")},
                                                      {28, Hex("03")},
                                                      {32, Hex("01")},
                                                      {36, Hex("02")},
                                                      {40, Hex("02")},
                                                      {44, Text("SER2")},
                                                      {108, Text("Pad")},
                                                      {172, Text("Fruit")},
                                                      {236, Text("/devices/usb1/1-1/1-1.1")}})));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "msgID:1 vid:5ac pid:12a8 capa:3,1,2,2")));
}

TEST_F(UPortStateReports, ADetachFromANodeDiffersByItsNumberOnly) {
    AttachAs(kPhone);
    UMsgNode message = NodeMessage(dcm::MSGID_USB_ADD, kPhone, 2);
    State().NotifyEventToSdcm(&message);
    message.id = dcm::MSGID_USB_REMOVE;
    State().NotifyEventToSdcm(&message);
    std::vector<Bytes> records = SdcmBytes();
    ASSERT_THAT(records, SizeIs(2));
    EXPECT_EQ(records[1][4], 2);
    records[1][4] = 1;
    EXPECT_EQ(records[1], records[0]);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "msgID:1 vid:4e8 pid:6860 capa:3,1,2,2"),
                                    Line(128, "msgID:2 vid:4e8 pid:6860 capa:3,1,2,2")));
}

TEST_F(UPortStateReports, AnEventFromStoredDataIsWhatCameLast) {
    AttachAs(kPhone, 32);
    State().NotifyEventToSdcm(dcm::MSGID_DEVICE_DETACHED);
    EXPECT_THAT(SdcmBytes(), ElementsAre(Record(364, {{4, Hex("02")},
                                                      {8, Hex("20")},
                                                      {12, Hex("09")},
                                                      {16, Hex("E804")},
                                                      {18, Hex("6068")},
                                                      {20, Hex("E7")},
                                                      {24, Hex("0302")},
                                                      {28, Hex("03")},
                                                      {32, Hex("01")},
                                                      {36, Hex("02")},
                                                      {40, Hex("02")},
                                                      {44, Text("SER1")},
                                                      {108, Text("Phone")},
                                                      {172, Text("Maker")},
                                                      {236, Text("/devices/usb1/1-1/1-1.2")}})));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "msgID:2 vid:4e8 pid:6860 capa:3,1,2,2")));
}

TEST_F(UPortStateReports, BeforeAnythingCameTheStoredDataIsZero) {
    State().NotifyEventToSdcm(dcm::MSGID_DEVICE_ATTACHED);
    EXPECT_THAT(SdcmBytes(), ElementsAre(Record(364, {{4, Hex("01")}, {8, Hex("02")}})));
}

TEST_F(UPortStateReports, AnEventOfAnyOtherNumberSendsNothing) {
    for (const auto id : {dcm::MSGID_DEVICE_ATTACHED, dcm::MSGID_SEARCH, dcm::MSGID_HID_ADD}) {
        UMsgNode message = NodeMessage(id, kPhone, 2);
        State().NotifyEventToSdcm(&message);
    }
    EXPECT_THAT(SdcmBytes(), IsEmpty());
    EXPECT_THAT(Logs(), ElementsAre(Line(160, "unknown msgID:1"), Line(160, "unknown msgID:18"),
                                    Line(160, "unknown msgID:22")));
}

// --- results ---

TEST_F(UPortStateReports, ASuccessNamesTheDeviceThatCameAndTheRequestsName) {
    AttachAs(kPhone, 32);
    UMsgNode message = DirtyNode(dcm::MSGID_USB_ADD, kShownPhone, 32);
    State().NotifyResultModeOkToSdcm(dcm::MSGID_RESULT_ICL_MODE, "dev-7", &message);
    EXPECT_THAT(SdcmBytes(), ElementsAre(Record(244, {{4, Hex("09")},
                                                      {8, Hex("20")},
                                                      {10, Hex("AC05")},
                                                      {12, Hex("A812")},
                                                      {14, Text("SER2")},
                                                      {78, Text("/devices/usb1/1-1/1-1.1")},
                                                      {206, Text("dev-7")}})));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "msgID:9 port:32 vid:5ac pid:12a8")));
}

TEST_F(UPortStateReports, AResultRepeatsTheRequest) {
    AttachAs(kPhone);
    UMsgChMode request = ModeRequest(dcm::MSGID_REQ_AA_MODE, kShownPhone, 32, "dev-8");
    request.sender = 0xEE;
    std::memset(request.unused, 0xEE, sizeof request.unused);
    request.unused2 = 0xEE;
    std::memset(request.unused3, 0xEE, sizeof request.unused3);
    request.result = 77;
    State().NotifyResultModeToSdcm(dcm::MSGID_RESULT_AA_MODE, RESULT_FAILED, &request);
    EXPECT_THAT(SdcmBytes(), ElementsAre(Record(244, {{4, Hex("05")},
                                                      {8, Hex("20")},
                                                      {10, Hex("AC05")},
                                                      {12, Hex("A812")},
                                                      {14, Text("SER2")},
                                                      {78, Text("/devices/usb1/1-1/1-1.1")},
                                                      {206, Text("dev-8")},
                                                      {240, Hex("01")}})));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "msgID:5 result:1 port:32 vid:5ac pid:12a8")));
}

TEST_F(UPortStateReports, AResultWithoutARequestIsAboutTheStoredDevice) {
    AttachAs(kPhone, 32);
    UMsgChMode request = ModeRequest(dcm::MSGID_REQ_AA_MODE, kPhone, 32, "dev-9");
    State().UpdateNode(&request);
    Forget();
    State().NotifyResultModeToSdcm(dcm::MSGID_RESULT_AA_MODE, RESULT_FAILED, nullptr);
    EXPECT_THAT(SdcmBytes(), ElementsAre(Record(244, {{4, Hex("05")},
                                                      {8, Hex("20")},
                                                      {10, Hex("E804")},
                                                      {12, Hex("6068")},
                                                      {14, Text("SER1")},
                                                      {78, Text("/devices/usb1/1-1/1-1.2")},
                                                      {206, Text("dev-9")},
                                                      {240, Hex("01")}})));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "msgID:5 result:1 port:32 vid:4e8 pid:6860")));
}

TEST_F(UPortStateReports, ASuccessWithoutANameOrADeviceIsNotSent) {
    UMsgNode message = NodeMessage(dcm::MSGID_USB_ADD, kPhone, 2);
    State().NotifyResultModeOkToSdcm(dcm::MSGID_RESULT_AA_MODE, nullptr, &message);
    State().NotifyResultModeOkToSdcm(dcm::MSGID_RESULT_AA_MODE, "dev", nullptr);
    EXPECT_THAT(SdcmBytes(), IsEmpty());
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "dev_id is null"), Line(192, "msg is null")));
}

// --- media ---

TEST_F(UPortStateReports, MediaHearsOfTheStoredDeviceOnTheUnitsPort) {
    AttachAs(kPhone, 32);
    State().NotifyEventToMedia(CMD_ATTACH);
    State().NotifyEventToMedia(CMD_DETACH);
    std::vector<At> fields = {{0, Hex("03")},       {4, Hex("02")},
                              {12, Hex("09")},      {16, Hex("02")},
                              {20, Hex("E804")},    {22, Hex("6068")},
                              {36, Text("SER1")},   {100, Text("Phone")},
                              {164, Text("Maker")}, {228, Text("/devices/usb1/1-1/1-1.2")},
                              {356, Hex("E7")},     {357, Hex("03")}};  // the last byte of the speed
    const Bytes attach = Record(360, fields);
    fields[1].bytes = Hex("05");
    const Bytes detach = Record(360, fields);
    EXPECT_THAT(Packets(), ElementsAre(Packet{0x4000800000, attach}, Packet{0x4000800000, detach}));
    EXPECT_THAT(
        Logs(),
        ElementsAre(
            Line(128, "cmd:2 sub_cmd:0 dev_type:9 port:2 vid:4e8 pid:6860 support:0:0:0 class:e7 speed:3"),
            Line(128, "serial:SER1 product:Phone manu:Maker dev_path:/devices/usb1/1-1/1-1.2"),
            Line(128, "cmd:5 sub_cmd:0 dev_type:9 port:2 vid:4e8 pid:6860 support:0:0:0 class:e7 speed:3"),
            Line(128, "serial:SER1 product:Phone manu:Maker dev_path:/devices/usb1/1-1/1-1.2")));
}

// --- limits ---

TEST_F(UPortStateReports, TextsWithoutAnEndAreCutOneBeforeTheFieldsEnd) {
    UMsgNode node = NodeMessage(dcm::MSGID_USB_ADD, kPhone, 2);
    FillWith('s', node.serial);
    FillWith('p', node.product);
    FillWith('m', node.manufacturer);
    FillWith('d', node.devpath);
    const Bytes expected = Record(364, {{4, Hex("01")},
                                        {8, Hex("02")},
                                        {12, Hex("09")},
                                        {16, Hex("E804")},
                                        {18, Hex("6068")},
                                        {20, Hex("E7")},
                                        {24, Hex("0302")},
                                        {44, Bytes(63, 's')},
                                        {108, Bytes(63, 'p')},
                                        {172, Bytes(63, 'm')},
                                        {236, Bytes(127, 'd')}});
    State().NotifyEventToSdcm(&node);
    State().UpdateNode(&node);
    State().NotifyEventToSdcm(dcm::MSGID_DEVICE_ATTACHED);
    EXPECT_THAT(SdcmBytes(), ElementsAre(expected, expected));
    EXPECT_THAT(Logs(),
                Wrote(128, "devtype:9 vid:4e8 pid:6860 class:e7 speed:203 manu:" + std::string(63, 'm') +
                               " serial:" + std::string(63, 's') + " product:" + std::string(63, 'p') +
                               " path:" + std::string(127, 'd')));
    State().NotifyEventToMedia(CMD_ATTACH);
    const Bytes packet = Packets().at(0).bytes;
    EXPECT_EQ(Bytes(packet.begin() + 36, packet.begin() + 100), Record(64, {{0, Bytes(63, 's')}}));
    EXPECT_EQ(Bytes(packet.begin() + 228, packet.begin() + 356), Record(128, {{0, Bytes(127, 'd')}}));
}

TEST_F(UPortStateReports, TextsOfRequestsWithoutAnEndAreCutAsWell) {
    UMsgChMode request = ModeRequest(dcm::MSGID_REQ_AA_MODE, kPhone, 2, "");
    FillWith('s', request.serial);
    FillWith('d', request.devpath);
    FillWith('i', request.devid);
    State().NotifyResultModeToSdcm(dcm::MSGID_RESULT_AA_MODE, RESULT_OK, &request);
    EXPECT_THAT(SdcmBytes(), ElementsAre(Record(244, {{4, Hex("05")},
                                                      {8, Hex("02")},
                                                      {10, Hex("E804")},
                                                      {12, Hex("6068")},
                                                      {14, Bytes(63, 's')},
                                                      {78, Bytes(127, 'd')},
                                                      {206, Bytes(31, 'i')}})));
}

TEST_F(UPortStateReports, ALongNameOfADeviceIsCut) {
    UMsgNode node = NodeMessage(dcm::MSGID_USB_ADD, kPhone, 2);
    State().NotifyResultModeOkToSdcm(dcm::MSGID_RESULT_AA_MODE, std::string(40, 'i').c_str(), &node);
    const Bytes record = SdcmBytes().at(0);
    EXPECT_EQ(Bytes(record.begin() + 206, record.end()), Record(38, {{0, Bytes(31, 'i')}}));
}

TEST_F(UPortStateReports, TheStoredNameOfADeviceIsCut) {
    UMsgChMode request =
        ModeRequest(dcm::MSGID_REQ_AA_MODE, Phone{DEV_TYPE_NONE, 0, 0, "", "", "", ""}, 2, "");
    FillWith('i', request.devid);
    State().UpdateNode(&request);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "devid:" + std::string(31, 'i'))));
}

// --- nobody to tell ---

TEST_F(UPortStateReports, WithoutANotifierNothingIsReported) {
    dcm::usb::UPortState state(2, nullptr);
    UMsgNode node = NodeMessage(dcm::MSGID_USB_ADD, kPhone, 2);
    UMsgChMode request = ModeRequest(dcm::MSGID_REQ_AA_MODE, kPhone, 2, "");
    state.NotifyEventToSdcm(&node);
    state.NotifyEventToSdcm(dcm::MSGID_DEVICE_ATTACHED);
    state.NotifyResultModeOkToSdcm(dcm::MSGID_RESULT_AA_MODE, "", &node);
    state.NotifyResultModeToSdcm(dcm::MSGID_RESULT_AA_MODE, RESULT_OK, &request);
    state.NotifyEventToMedia(CMD_ATTACH);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "notifier is null"), Line(192, "notifier is null"),
                                    Line(192, "notifier is null"), Line(192, "notifier is null"),
                                    Line(192, "notifier is null")));
    EXPECT_THAT(SdcmBytes(), IsEmpty());
    EXPECT_THAT(Packets(), IsEmpty());
}

TEST_F(UPortStateReports, WithoutANodeNoEventIsReported) {
    State().NotifyEventToSdcm(nullptr);
    EXPECT_THAT(SdcmBytes(), IsEmpty());
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "msg is null")));
}

}  // namespace
}  // namespace test
