// The small records about faults, diagnosis and supervision, byte by byte.
#include <cstring>
#include <string>

#include "NotifierBench.h"
#include "gmock/gmock.h"
#include "record/FrameMessage.h"

namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr unsigned long kDiagnosis = 0x0800000000000000;
constexpr unsigned long kTestInterface = 0x40000000000;

struct UNotifierReports : NotifierBench {
    static auto Asks(const std::string& bytes) { return ElementsAre(Queued{4096, Hex(bytes)}); }
    static auto Tells(const std::string& bytes) { return ElementsAre(Packet{kDiagnosis, Hex(bytes)}); }
    static auto Says(const std::string& text) { return ElementsAre(Line(128, text)); }
};

TEST_F(UNotifierReports, ArmsAMountErrorWithTheWholePacket) {
    dcm::usb::st_storage_pkt packet;
    std::memset(&packet, 0xAB, sizeof packet);
    Notifier().PushMountError(true, 2, &packet);
    EXPECT_THAT(Drain(kMonitor), Asks("00*4 1F 00*3 02 00*3 AB*136"));
    EXPECT_THAT(Logs(), Says("isAdd:1 port:2"));
}

TEST_F(UNotifierReports, ArmsAMountErrorWithAZeroPacketWhenThereIsNone) {
    Notifier().PushMountError(true, 1, nullptr);
    EXPECT_THAT(Drain(kMonitor), Asks("00*4 1F 00*3 01 00*3 00*136"));
}

TEST_F(UNotifierReports, CancelsAMountError) {
    Notifier().PushMountError(false, 1, nullptr);
    EXPECT_THAT(Drain(kMonitor), Asks("00*4 20 00*3 01 00*3 00*136"));
    EXPECT_THAT(Logs(), Says("isAdd:0 port:1"));
}

TEST_F(UNotifierReports, ArmsAnOverCurrentWithTheDevicePath) {
    Notifier().PushOverCurrent(true, 1, "/devices/soc");
    EXPECT_THAT(Drain(kMonitor), Asks("00*4 21 00*3 01 2F646576696365732F736F63 00*116 00*3"));
    EXPECT_THAT(Logs(), Says("isAdd:1 port:1 devpath:/devices/soc"));
}

TEST_F(UNotifierReports, CutsTheDevicePathOfAnOverCurrent) {
    Notifier().PushOverCurrent(true, 1, std::string(200, 'p').c_str());
    EXPECT_THAT(Drain(kMonitor), Asks("00*4 21 00*3 01 70*127 00 00*3"));
}

TEST_F(UNotifierReports, CancelsAnOverCurrentWithoutAPath) {
    Notifier().PushOverCurrent(false, 4, nullptr);
    EXPECT_THAT(Drain(kMonitor), Asks("00*4 22 00*3 04 00*131"));
    EXPECT_THAT(Logs(), Says("isAdd:0 port:4 devpath:(null)"));
}

TEST_F(UNotifierReports, ArmsAndCancelsTheVoltageSupply) {
    Notifier().PushVoltage(true, 0, true);
    EXPECT_THAT(Drain(kMonitor), Asks("00*4 23 00*3 00 01 00 00"));
    EXPECT_THAT(Logs(), Says("isAdd:1 port:0 isHubDetect:1"));
    ClearLogs();
    Notifier().PushVoltage(false, 1, false);
    EXPECT_THAT(Drain(kMonitor), Asks("00*4 24 00*3 01 00 00 00"));
    EXPECT_THAT(Logs(), Says("isAdd:0 port:1 isHubDetect:0"));
}

TEST_F(UNotifierReports, ArmsACuttingWithTheFieldsOfTheMessageOnly) {
    dcm::usb::UMsgNode message;
    std::memset(&message, 0xEE, sizeof message);  // whatever stood there before
    message.id = 21;
    message.port = 32;
    message.dev_type = 9;
    message.vid = 0x05AC;
    message.pid = 0x12A8;
    message.usb_class = 6;
    message.speed = 4;
    dcm::usb::CopyText(message.serial, "ser");
    dcm::usb::CopyText(message.product, "pro");
    dcm::usb::CopyText(message.manufacturer, "man");
    dcm::usb::CopyText(message.devpath, "/dev");
    Notifier().PushCutting(true, &message);
    EXPECT_THAT(Drain(kMonitor), Asks("00*4 25 00*3 20 00*3 09 00*3 AC 05 A8 12 06 00*3 04 00*3 "
                                      "736572 00*61 70726F 00*61 6D616E 00*61 2F646576 00*124"));
    EXPECT_THAT(Logs(), Says("isAdd:1 port:32"));
}

TEST_F(UNotifierReports, EndsTheTextsOfACuttingThatHaveNoEnd) {
    dcm::usb::UMsgNode message;
    std::memset(&message, 'x', sizeof message);
    message.port = 1;
    Notifier().PushCutting(false, &message);
    EXPECT_THAT(Drain(kMonitor), Asks("00*4 26 00*3 01 00*3 78*4 78*2 78*2 78 00*3 78*4 "
                                      "78*63 00 78*63 00 78*63 00 78*127 00"));
}

TEST_F(UNotifierReports, RefusesACuttingWithoutAMessage) {
    Notifier().PushCutting(true, nullptr);
    EXPECT_THAT(Drain(kMonitor), IsEmpty());
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "msg is null")));
}

TEST_F(UNotifierReports, ArmsAndCancelsTheTimers) {
    Notifier().PushChTimeout(true, 1);
    EXPECT_THAT(Drain(kMonitor), Asks("00*4 27 00*3 01 00*3"));
    Notifier().PushChTimeout(false, 2);
    EXPECT_THAT(Drain(kMonitor), Asks("00*4 28 00*3 02 00*3"));
    Notifier().PushCarplayTimeout(true, 1);
    EXPECT_THAT(Drain(kMonitor), Asks("00*4 29 00*3 01 00*3"));
    Notifier().PushCarplayTimeout(false, 12);
    EXPECT_THAT(Drain(kMonitor), Asks("00*4 2A 00*3 0C 00*3"));
    Notifier().PushCarplayCapa(true, 1);
    EXPECT_THAT(Drain(kMonitor), Asks("00*4 2B 00*3 01 00*3"));
    Notifier().PushCarplayCapa(false, 3);
    EXPECT_THAT(Drain(kMonitor), Asks("00*4 2C 00*3 03 00*3"));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "isAdd:1 port:1"), Line(128, "isAdd:0 port:2"),
                                    Line(128, "isAdd:1 port:1"), Line(128, "isAdd:0 port:12"),
                                    Line(128, "isAdd:1 port:1"), Line(128, "isAdd:0 port:3")));
}

TEST_F(UNotifierReports, AsksForNoSupervisionOfAnInactivePort) {
    SetAdaption(1, 2);
    Notifier().PushMountError(false, 1, nullptr);
    Notifier().PushOverCurrent(false, 1, "/x");
    Notifier().PushVoltage(false, 1, false);
    Notifier().PushChTimeout(false, 11);
    Notifier().PushCarplayTimeout(false, 1);
    Notifier().PushCarplayCapa(false, 21);
    dcm::usb::UMsgNode message{};
    message.port = 1;
    Notifier().PushCutting(false, &message);
    EXPECT_THAT(Drain(kMonitor), IsEmpty());
}

TEST_F(UNotifierReports, TellsDiagnosisWhateverTheSettingsSay) {
    SetCoding(0);
    for (unsigned char port = 0; port <= 4; ++port)
        SetAdaption(port, 2);
    Notifier().SendOverCurrent(true);
    Notifier().SendSocketOpenCircuit(1, true);
    EXPECT_EQ(Packets().size(), 2u);
}

TEST_F(UNotifierReports, ExternalOpticalStatus) {
    Notifier().SendExternalOpticalStatus();
    EXPECT_THAT(Packets(), Tells("01 60 22 51 EC FF"));
    EXPECT_THAT(Logs(), Says("status[ff]"));
}

TEST_F(UNotifierReports, ExternalOpticalErrorCode) {
    Notifier().SendExternalOpticalErrorCode();
    EXPECT_THAT(Packets(), Tells("01 60 22 10 05 FF FF FF"));
    EXPECT_THAT(Logs(), Says("status[ffffff]"));
}

TEST_F(UNotifierReports, StatusOfTheCommunication) {
    Notifier().SendStatusCommunication(true);
    EXPECT_THAT(Packets(), Tells("01 60 22 18 E8 01"));
    EXPECT_THAT(Logs(), Says("status[1]"));
    ClearPackets();
    Notifier().SendStatusCommunication(false);
    EXPECT_THAT(Packets(), Tells("01 60 22 18 E8 00"));
}

TEST_F(UNotifierReports, StateOfAnAttachedDevice) {
    dcm::usb::StDiagUsbDeviceStateData state;
    std::memset(&state, 0xFF, sizeof state);
    state.power = 1;
    state.speed = 3;
    state.usb_class = 0x08;
    state.sub_class = 0x06;
    state.protocol = 0x50;
    state.unused = 0x77;
    state.unused2 = 0x66;
    state.vid = 0x0781;
    state.pid = 0x5567;
    state.connected = 1;
    Notifier().SendDeviceState(state);
    EXPECT_THAT(Packets(), Tells("01 60 22 18 5D 01 03 08 06 50 81 07 67 55 01 FF"));
    EXPECT_THAT(Logs(), Says("p[1]s[3]c[8]s[6]p[50]v[781]p[5567]c[1]"));
}

TEST_F(UNotifierReports, StateOfADetachedDevice) {
    dcm::usb::StDiagUsbDeviceStateData state;
    std::memset(&state, 0xFF, sizeof state);
    state.connected = 0;
    Notifier().SendDeviceState(state);
    EXPECT_THAT(Packets(), Tells("01 60 22 18 5D FF*9 00 FF"));
    EXPECT_THAT(Logs(), Says("p[ff]s[ff]c[ff]s[ff]p[ff]v[ffff]p[ffff]c[0]"));
}

TEST_F(UNotifierReports, OverCurrent) {
    Notifier().SendOverCurrent(true);
    EXPECT_THAT(Packets(), Tells("01 60 22 24 7C FF"));
    EXPECT_THAT(Logs(), Says("over_current[ff]"));
    ClearPackets();
    ClearLogs();
    Notifier().SendOverCurrent(false);
    EXPECT_THAT(Packets(), Tells("01 60 22 24 7C 00"));
    EXPECT_THAT(Logs(), Says("over_current[0]"));
}

TEST_F(UNotifierReports, FaultyCommunication) {
    Notifier().SendFaultyCommunication(1);
    EXPECT_THAT(Packets(), Tells("01 60 19 06 65 01"));
    EXPECT_THAT(Logs(), Says("result[1]"));
    ClearPackets();
    Notifier().SendFaultyCommunication(0xA5);
    EXPECT_THAT(Packets(), Tells("01 60 19 06 65 A5"));
}

TEST_F(UNotifierReports, OpenCircuitOfEachSocket) {
    for (unsigned char socket = 1; socket <= 4; ++socket)
        Notifier().SendSocketOpenCircuit(socket, socket % 2);
    EXPECT_THAT(Packets(), ElementsAre(Packet{kDiagnosis, Hex("01 60 19 06 66 01")},
                                       Packet{kDiagnosis, Hex("01 60 19 06 68 00")},
                                       Packet{kDiagnosis, Hex("01 60 19 06 6A 01")},
                                       Packet{kDiagnosis, Hex("01 60 19 06 6C 00")}));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "port[1] result[1]"), Line(128, "port[2] result[0]"),
                                    Line(128, "port[3] result[1]"), Line(128, "port[4] result[0]")));
}

TEST_F(UNotifierReports, ShortCircuitOfEachSocket) {
    for (unsigned char socket = 1; socket <= 4; ++socket)
        Notifier().SendSocketShortCircuit(socket, socket > 2);
    EXPECT_THAT(Packets(), ElementsAre(Packet{kDiagnosis, Hex("01 60 19 06 67 00")},
                                       Packet{kDiagnosis, Hex("01 60 19 06 69 00")},
                                       Packet{kDiagnosis, Hex("01 60 19 06 6B 01")},
                                       Packet{kDiagnosis, Hex("01 60 19 06 6D 01")}));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "port[1] result[0]"), Line(128, "port[2] result[0]"),
                                    Line(128, "port[3] result[1]"), Line(128, "port[4] result[1]")));
}

TEST_F(UNotifierReports, PassesOverAnOpenCircuitOfASocketThatDoesNotExist) {
    for (const unsigned char socket : {0, 5, 255})
        Notifier().SendSocketOpenCircuit(socket, true);
    EXPECT_THAT(Packets(), IsEmpty());
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UNotifierReports, RefusesAShortCircuitOfASocketThatDoesNotExist) {
    for (const unsigned char socket : {0, 5, 255})
        Notifier().SendSocketShortCircuit(socket, true);
    EXPECT_THAT(Packets(), IsEmpty());
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "invalid RDID_2"), Line(192, "invalid RDID_2"),
                                    Line(192, "invalid RDID_2")));
}

TEST_F(UNotifierReports, ResultOfTheHubTest) {
    Notifier().SendDiagnosisTestResult(true);
    EXPECT_THAT(Packets(), Tells("01 60 31 80 AA 01"));
    EXPECT_THAT(Logs(), Says("result[1]"));
    ClearPackets();
    ClearLogs();
    Notifier().SendDiagnosisTestResult(false);
    EXPECT_THAT(Packets(), Tells("01 60 31 80 AA 02"));
    EXPECT_THAT(Logs(), Says("result[2]"));
}

TEST_F(UNotifierReports, ASupportedHubIsSaidByTheOppositeFlag) {
    Notifier().SendDiagHubSupport(true);
    EXPECT_THAT(Packets(), Tells("01 60 22 80 AA 00"));
    EXPECT_THAT(Logs(), Says("not_support[0]"));
    ClearPackets();
    ClearLogs();
    Notifier().SendDiagHubSupport(false);
    EXPECT_THAT(Packets(), Tells("01 60 22 80 AA 01"));
    EXPECT_THAT(Logs(), Says("not_support[1]"));
}

TEST_F(UNotifierReports, AnswersAMountCheckWithThePath) {
    Notifier().SendMountCheckResult(true, "/tmp/USB/PORT1/PART1/");
    EXPECT_THAT(Packets(),
                ElementsAre(Packet{kTestInterface,
                                   Hex("82 31 01 01 2F746D702F5553422F504F5254312F50415254312F 00*11")}));
    EXPECT_THAT(Logs(), Says("result:1 mnt_path:/tmp/USB/PORT1/PART1/"));
}

TEST_F(UNotifierReports, CutsThePathOfAMountCheck) {
    Notifier().SendMountCheckResult(true, std::string(100, 'm').c_str());
    EXPECT_THAT(Packets(), ElementsAre(Packet{kTestInterface, Hex("82 31 01 01 6D*31 00")}));
}

TEST_F(UNotifierReports, AnswersAMountCheckThatFailedWithoutAPath) {
    Notifier().SendMountCheckResult(false, "/tmp/USB/PORT1/PART1/");
    Notifier().SendMountCheckResult(false, nullptr);
    Notifier().SendMountCheckResult(true, nullptr);
    EXPECT_THAT(Packets(), ElementsAre(Packet{kTestInterface, Hex("82 31 01 00 00*32")},
                                       Packet{kTestInterface, Hex("82 31 01 00 00*32")},
                                       Packet{kTestInterface, Hex("82 31 01 01 00*32")}));
    EXPECT_THAT(Logs(),
                ElementsAre(Line(128, "result:0 mnt_path:/tmp/USB/PORT1/PART1/"),
                            Line(128, "result:0 mnt_path:(null)"), Line(128, "result:1 mnt_path:(null)")));
}

}  // namespace
}  // namespace test
