// What the notifier lets through, and to whom.
#include <cstring>

#include "NotifierBench.h"
#include "gmock/gmock.h"
#include "record/FrameMessage.h"

namespace test {
namespace {

using dcm::usb::kSourceUsb;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr unsigned long kUsbSet = 0x0000004000800000;
constexpr unsigned long kStorageSet = 0x00002A4802A04000;
constexpr unsigned long kUngated = 0x00002A0800204000;  // bits 14, 21, 35, 41, 43 and 45

struct UNotifier : NotifierBench {
    // The head of a message, `bytes` long.
    static Bytes Message(std::uint32_t id, std::uint8_t port, std::size_t bytes = 12) {
        Bytes message(bytes);
        std::memcpy(&message[4], &id, sizeof id);
        message[8] = port;
        return message;
    }
    static char* Data(Bytes& bytes) { return reinterpret_cast<char*>(bytes.data()); }

    void ToUsb(Bytes message) {
        Notifier().Push2USB(kSourceUsb, static_cast<unsigned>(message.size()), Data(message));
    }
    void ToSdcm(Bytes message) {
        Notifier().Push2SDCM(kSourceUsb, static_cast<unsigned>(message.size()), Data(message));
    }
    void ToMonitor(Bytes message) {
        Notifier().Push2Umonitor(kSourceUsb, static_cast<unsigned>(message.size()), Data(message));
    }

    static dcm::usb::st_usb_pkt UsbPacket(std::uint32_t port) {
        dcm::usb::st_usb_pkt packet{};
        packet.kind = dcm::usb::kMediaPacketKind;
        packet.cmd = dcm::usb::CMD_ATTACH;
        packet.port = port;
        return packet;
    }
    static dcm::usb::st_storage_pkt StoragePacket(std::uint32_t port) {
        dcm::usb::st_storage_pkt packet{};
        packet.kind = dcm::usb::kMediaPacketKind;
        packet.cmd = dcm::usb::CMD_MOUNTED;
        packet.port = port;
        return packet;
    }
};

TEST_F(UNotifier, FindsAllThatItNeeds) {
    ClearLogs();
    const dcm::usb::UNotifier another;
    EXPECT_THAT(Logs(192), IsEmpty());
}

TEST_F(UNotifier, MakesThePlatformObjectWhenNobodyDid) {
    delete dcm::DcmInterface::m_pInstance;
    dcm::DcmInterface::m_pInstance = nullptr;
    const dcm::usb::UNotifier another;
    EXPECT_NE(dcm::DcmInterface::m_pInstance, nullptr);
    EXPECT_THAT(Logs(192), IsEmpty());
}

TEST_F(UNotifier, MakesTheSettingsWhenNobodyDid) {
    ResetStore();
    ASSERT_EQ(dcm::usb::USetting::m_pInstance, nullptr);
    const dcm::usb::UNotifier another;
    EXPECT_NE(dcm::usb::USetting::m_pInstance, nullptr);
}

TEST_F(UNotifier, NamesEachPieceOfThePlatformThatIsMissing) {
    LoseKipc();
    LoseQueue(kUsb);
    LoseQueue(kSdcm);
    LoseQueue(kMonitor);
    const dcm::usb::UNotifier another;
    EXPECT_THAT(Logs(192),
                ElementsAre(Line(192, "process is null"), Line(192, "usb_message is null"),
                            Line(192, "sdcm_message is null"), Line(192, "monitor_message is null")));
}

TEST_F(UNotifier, HoldsAShareOfTheWayOutAndGivesItBack) {
    auto& interface = dcm::DcmInterface::m_pInstance->GetKipcSP();
    const long before = interface.use_count();
    {
        const dcm::usb::UNotifier another;
        EXPECT_EQ(interface.use_count(), before + 1);
    }
    EXPECT_EQ(interface.use_count(), before);
}

TEST_F(UNotifier, PushesEachMessageToItsQueueAsItIs) {
    ToUsb(Message(20, 1, 348));
    ToSdcm(Message(1, 2, 364));
    ToMonitor(Message(39, 3));
    EXPECT_THAT(Drain(kUsb), ElementsAre(Queued{4096, Message(20, 1, 348)}));
    EXPECT_THAT(Drain(kSdcm), ElementsAre(Queued{4096, Message(1, 2, 364)}));
    EXPECT_THAT(Drain(kMonitor), ElementsAre(Queued{4096, Message(39, 3)}));
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UNotifier, RefusesAMessageOfLessThanTwelveBytes) {
    Bytes message = Message(27, 1);
    Notifier().Push2USB(kSourceUsb, 11, Data(message));
    Notifier().Push2SDCM(kSourceUsb, 11, Data(message));
    Notifier().Push2Umonitor(kSourceUsb, 11, Data(message));
    EXPECT_THAT(Drain(kUsb), IsEmpty());
    EXPECT_THAT(Drain(kSdcm), IsEmpty());
    EXPECT_THAT(Drain(kMonitor), IsEmpty());
    const char* const form = "wrong size(11) or no buff(%p) or no setting(%p) or no message(%p)";
    const void* const data = message.data();
    EXPECT_THAT(Logs(), ElementsAre(Line(192, Format(form, data, Setting(), Queue(kUsb))),
                                    Line(192, Format(form, data, Setting(), Queue(kSdcm))),
                                    Line(192, Format(form, data, Setting(), Queue(kMonitor)))));
}

TEST_F(UNotifier, RefusesANullMessage) {
    Notifier().Push2USB(kSourceUsb, 12, nullptr);
    Notifier().Push2SDCM(kSourceUsb, 12, nullptr);
    Notifier().Push2Umonitor(kSourceUsb, 12, nullptr);
    EXPECT_THAT(Drain(kUsb), IsEmpty());
    EXPECT_THAT(Drain(kSdcm), IsEmpty());
    EXPECT_THAT(Drain(kMonitor), IsEmpty());
    const char* const form = "wrong size(12) or no buff((nil)) or no setting(%p) or no message(%p)";
    EXPECT_THAT(Logs(), ElementsAre(Line(192, Format(form, Setting(), Queue(kUsb))),
                                    Line(192, Format(form, Setting(), Queue(kSdcm))),
                                    Line(192, Format(form, Setting(), Queue(kMonitor)))));
}

TEST_F(UNotifier, SaysWhichQueueIsMissing) {
    LoseQueue(kUsb);
    LoseQueue(kSdcm);
    LoseQueue(kMonitor);
    Renew();
    Bytes message = Message(27, 1);
    const void* const data = message.data();
    Notifier().Push2USB(kSourceUsb, 12, Data(message));
    Notifier().Push2SDCM(kSourceUsb, 12, Data(message));
    Notifier().Push2Umonitor(kSourceUsb, 12, Data(message));
    const LogLine line = Line(
        192, Format("wrong size(12) or no buff(%p) or no setting(%p) or no message((nil))", data, Setting()));
    EXPECT_THAT(Logs(), ElementsAre(line, line, line));
}

TEST_F(UNotifier, DropsMessagesOfAnInactivePort) {
    SetAdaption(2, 2);
    ToUsb(Message(20, 2));
    ToMonitor(Message(39, 2));
    ToSdcm(Message(1, 2));
    EXPECT_THAT(Drain(kUsb), IsEmpty());
    EXPECT_THAT(Drain(kMonitor), IsEmpty());
    EXPECT_THAT(Drain(kSdcm), IsEmpty());
    EXPECT_THAT(
        Logs(),
        ElementsAre(Line(128, "not send because of not active port2 adaption(2)"),
                    Line(128, "not send because of not active port2 adaption(2)"),
                    Line(128, "not send because of not active port2 adaption(2) or invalid coding(3)")));
}

TEST_F(UNotifier, PassesMessagesOfAPortWhoseAdaptionIsUnknownOrActive) {
    for (const int adaption : {0, 1}) {
        SetAdaption(3, adaption);
        ToUsb(Message(21, 3));
        ToSdcm(Message(2, 3));
        ToMonitor(Message(33, 3));
    }
    EXPECT_EQ(Drain(kUsb).size(), 2u);
    EXPECT_EQ(Drain(kSdcm).size(), 2u);
    EXPECT_EQ(Drain(kMonitor).size(), 2u);
}

TEST_F(UNotifier, GatesAPortBehindAHubByItsUnitsDigit) {
    SetAdaption(1, 2);
    ToUsb(Message(20, 11));
    ToUsb(Message(20, 21));
    ToSdcm(Message(1, 11));
    ToMonitor(Message(39, 21));
    EXPECT_THAT(Drain(kUsb), IsEmpty());
    EXPECT_THAT(Drain(kSdcm), IsEmpty());
    EXPECT_THAT(Drain(kMonitor), IsEmpty());
    EXPECT_THAT(
        Logs(),
        ElementsAre(Line(128, "not send because of not active port1 adaption(2)"),
                    Line(128, "not send because of not active port1 adaption(2)"),
                    Line(128, "not send because of not active port1 adaption(2) or invalid coding(3)"),
                    Line(128, "not send because of not active port1 adaption(2)")));
    ToUsb(Message(20, 12));  // hub on port 2, which is active
    EXPECT_EQ(Drain(kUsb).size(), 1u);
}

TEST_F(UNotifier, NeverBlocksPortsFiveToNineByAdaption) {
    for (unsigned char port = 0; port <= 4; ++port)
        SetAdaption(port, 2);
    for (std::uint8_t port = 5; port <= 9; ++port) {
        ToUsb(Message(20, port));
        ToSdcm(Message(1, port));
        ToMonitor(Message(39, port));
        auto usb = UsbPacket(port);
        Notifier().Send(&usb);
        Notifier().Send(port, dcm::usb::VOLTAGE_CRITICAL);
    }
    EXPECT_EQ(Drain(kUsb).size(), 5u);
    EXPECT_EQ(Drain(kSdcm).size(), 5u);
    EXPECT_EQ(Drain(kMonitor).size(), 5u);
    EXPECT_EQ(Packets().size(), 15u);

    ClearPackets();
    SetCoding(1);
    for (std::uint8_t port = 5; port <= 9; ++port) {
        auto usb = UsbPacket(port);
        Notifier().Send(&usb);
        Notifier().Send(port, dcm::usb::VOLTAGE_CRITICAL);
    }
    EXPECT_THAT(Packets(), IsEmpty());
    EXPECT_THAT(Logs(), Wrote(128, "not send because of not active port5 adaption(0) or invalid coding(1)"));
}

TEST_F(UNotifier, PortZeroIsGatedLikeAnyOther) {
    SetAdaption(0, 2);
    ToUsb(Message(20, 0));
    ToUsb(Message(20, 10));
    EXPECT_THAT(Drain(kUsb), IsEmpty());
}

TEST_F(UNotifier, LetsScanMessagesThroughOnAnInactivePort) {
    SetAdaption(0, 2);
    SetAdaption(1, 2);
    SetCoding(0);
    for (const std::uint8_t port : {0, 1}) {
        ToUsb(Message(27, port));
        ToUsb(Message(28, port));
        ToSdcm(Message(3, port));
        ToSdcm(Message(4, port));
    }
    EXPECT_EQ(Drain(kUsb).size(), 4u);
    EXPECT_EQ(Drain(kSdcm).size(), 4u);
    ToUsb(Message(3, 1));
    ToSdcm(Message(27, 1));
    EXPECT_THAT(Drain(kUsb), IsEmpty()) << "3 and 4 are privileged on SDCM's queue only";
    EXPECT_THAT(Drain(kSdcm), IsEmpty()) << "27 and 28 are privileged on the inbox only";
}

TEST_F(UNotifier, DropsCancellationsOfAnInactivePortAsWell) {
    SetAdaption(1, 2);
    for (std::uint32_t id = 31; id <= 44; ++id)
        ToMonitor(Message(id, 1));
    EXPECT_THAT(Drain(kMonitor), IsEmpty());
}

TEST_F(UNotifier, WithCodingOneOnlySdcmIsTold) {
    SetCoding(1);
    ToSdcm(Message(1, 1));
    EXPECT_EQ(Drain(kSdcm).size(), 1u);
    ToUsb(Message(20, 1));
    ToMonitor(Message(39, 1));
    EXPECT_EQ(Drain(kUsb).size(), 1u);
    EXPECT_EQ(Drain(kMonitor).size(), 1u);

    auto usb = UsbPacket(1);
    Notifier().Send(&usb);
    EXPECT_THAT(Packets(), IsEmpty());
    auto storage = StoragePacket(1);
    Notifier().Send(&storage);
    EXPECT_THAT(Packets(), ElementsAre(Packet{kUngated, BytesOf(storage)}));
}

TEST_F(UNotifier, WithCodingZeroOrLessSdcmIsNotTold) {
    for (const int coding : {0, -1}) {
        SetCoding(coding);
        ToSdcm(Message(1, 1));
        EXPECT_THAT(Drain(kSdcm), IsEmpty());
        EXPECT_THAT(Logs(),
                    ElementsAre(Line(
                        128, Format("not send because of not active port1 adaption(0) or invalid coding(%d)",
                                    coding))));
    }
}

TEST_F(UNotifier, AChangeOfTheSettingsCountsFromTheNextMessageOn) {
    SetAdaption(1, 2);
    ToUsb(Message(20, 1));
    SetAdaption(1, 1);
    ToUsb(Message(21, 1));
    EXPECT_THAT(Drain(kUsb), ElementsAre(Queued{4096, Message(21, 1)}));
}

TEST_F(UNotifier, SendsAUsbPacketToMediaAndSpeech) {
    for (const int coding : {2, 3}) {
        SetCoding(coding);
        auto packet = UsbPacket(1);
        Notifier().Send(&packet);
        EXPECT_THAT(Packets(), ElementsAre(Packet{kUsbSet, BytesOf(packet)}));
        ClearPackets();
    }
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UNotifier, SendsNoUsbPacketOfAnInactivePort) {
    SetAdaption(4, 2);
    auto packet = UsbPacket(4);
    Notifier().Send(&packet);
    EXPECT_THAT(Packets(), IsEmpty());
    EXPECT_THAT(Logs(), ElementsAre(Line(
                            128, "not send because of not active port4 adaption(2) or invalid coding(3)")));
}

TEST_F(UNotifier, ReadsThePortOfAPacketAsItIsStored) {
    SetAdaption(1, 2);
    auto packet = UsbPacket(11);  // no units digit: counts as a port without adaption
    Notifier().Send(&packet);
    EXPECT_EQ(Packets().size(), 1u);
    packet.port = 0x0101;  // the low byte counts
    Notifier().Send(&packet);
    EXPECT_EQ(Packets().size(), 1u);
}

TEST_F(UNotifier, SendsAStoragePacketToAllItsListeners) {
    auto packet = StoragePacket(1);
    Notifier().Send(&packet);
    EXPECT_THAT(Packets(), ElementsAre(Packet{kStorageSet, BytesOf(packet)}));
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UNotifier, SendsAStoragePacketOfAnInactivePortToTheListenersThatAreNotGated) {
    SetAdaption(2, 2);
    auto packet = StoragePacket(2);
    Notifier().Send(&packet);
    EXPECT_THAT(Packets(), ElementsAre(Packet{kUngated, BytesOf(packet)}));
    EXPECT_THAT(
        Logs(),
        ElementsAre(
            Line(128, "not send to media because of not active port2 adaption(2) or invalid coding(3)"),
            Line(128, "not send to speech because of not active port2 adaption(2) or invalid coding(3)"),
            Line(128, "not send to navi because of not active port2 adaption(2) or invalid coding(3)")));
}

TEST_F(UNotifier, RefusesANullPacket) {
    Notifier().Send(static_cast<dcm::usb::st_usb_pkt*>(nullptr));
    Notifier().Send(static_cast<dcm::usb::st_storage_pkt*>(nullptr));
    EXPECT_THAT(Packets(), IsEmpty());
    const LogLine line =
        Line(192, Format("no pkt((nil)) or no setting(%p) or no message(%p)", Setting(), Kipc()));
    EXPECT_THAT(Logs(), ElementsAre(line, line));
}

TEST_F(UNotifier, SaysThatTheWayOutIsMissing) {
    LoseKipc();
    Renew();
    auto usb = UsbPacket(1);
    auto storage = StoragePacket(1);
    char byte = 1;
    const void* const usb_address = &usb;
    const void* const storage_address = &storage;
    const void* const byte_address = &byte;
    Notifier().Send(&usb);
    Notifier().Send(&storage);
    Notifier().Send(1, dcm::usb::VOLTAGE_CRITICAL);
    Notifier().Send(0x200UL, 1, &byte);
    EXPECT_THAT(Packets(), IsEmpty());
    EXPECT_THAT(
        Logs(),
        ElementsAre(
            Line(192, Format("no pkt(%p) or no setting(%p) or no message((nil))", usb_address, Setting())),
            Line(192,
                 Format("no pkt(%p) or no setting(%p) or no message((nil))", storage_address, Setting())),
            Line(192, Format("no setting(%p) or no message((nil))", Setting())),
            Line(192, Format("wrong size(1) or no buff(%p) or no message((nil))", byte_address))));
}

TEST_F(UNotifier, SendsBytesToAnybodyWhateverTheSettingsSay) {
    SetCoding(0);
    for (unsigned char port = 0; port <= 4; ++port)
        SetAdaption(port, 2);
    Bytes bytes = Hex("00 01 FF");
    Notifier().Send(0xFFFFFFFFFFFFFFFFUL, 3, Data(bytes));
    EXPECT_THAT(Packets(), ElementsAre(Packet{0xFFFFFFFFFFFFFFFFUL, bytes}));
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UNotifier, RefusesToSendNothing) {
    char byte = 1;
    const void* const address = &byte;
    Notifier().Send(0x200UL, 0, &byte);
    Notifier().Send(0x200UL, 1, nullptr);
    EXPECT_THAT(Packets(), IsEmpty());
    EXPECT_THAT(
        Logs(),
        ElementsAre(Line(192, Format("wrong size(0) or no buff(%p) or no message(%p)", address, Kipc())),
                    Line(192, Format("wrong size(1) or no buff((nil)) or no message(%p)", Kipc()))));
}

TEST_F(UNotifier, ReportsAVoltageSectionToMediaAndThenToTheVoltageListener) {
    Notifier().Send(2, dcm::usb::VOLTAGE_NON_CRITICAL_2_1A);
    EXPECT_THAT(Packets(), ElementsAre(Packet{0x800000, Hex("00*4 13 00*3 00*4 06 00*3 02 00*3 03 00*3")},
                                       Packet{0x200, Hex("88 13 00 00 02 00*3 03 00*3")}));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "port:2 volt_section:3")));
}

TEST_F(UNotifier, ReportsNoVoltageSectionWhileThePortOrTheCodingForbidsIt) {
    SetAdaption(1, 2);
    Notifier().Send(1, dcm::usb::VOLTAGE_CRITICAL);
    SetAdaption(1, 1);
    SetCoding(1);
    Notifier().Send(1, dcm::usb::VOLTAGE_CRITICAL);
    EXPECT_THAT(Packets(), IsEmpty());
    EXPECT_THAT(Logs(), ElementsAre(Line(
                            128, "not send because of not active port1 adaption(1) or invalid coding(1)")));
}

TEST_F(UNotifier, ThePacketOfAUsbDeviceHasItsBytesInTheirPlaces) {
    dcm::usb::st_usb_pkt packet{};
    packet.kind = dcm::usb::kMediaPacketKind;
    packet.cmd = dcm::usb::CMD_ERROR;
    packet.sub_cmd = dcm::usb::SUB_CMD_CUSTOMER_HUB;
    packet.dev_type = dcm::usb::DEV_TYPE_PHONE;
    packet.port = 2;
    packet.vid = 0x18D1;
    packet.pid = 0x4EE1;
    dcm::usb::CopyText(packet.serial, "S1");
    dcm::usb::CopyText(packet.product, "P2");
    dcm::usb::CopyText(packet.manufacturer, "M3");
    dcm::usb::CopyText(packet.devpath, "/d");
    packet.usb_class = 0xFF;
    packet.speed = 3;
    Notifier().Send(&packet);
    EXPECT_THAT(Packets(), ElementsAre(Packet{kUsbSet, Hex("03 00*3 06 00*3 07 00*3 09 00*3 02 00*3 "
                                                           "D1 18 E1 4E 00*12 53 31 00*62 50 32 00*62 "
                                                           "4D 33 00*62 2F 64 00*126 FF 03 00 00")}));
}

TEST_F(UNotifier, ThePacketOfAVolumeHasItsBytesInTheirPlaces) {
    dcm::usb::st_storage_pkt packet{};
    packet.kind = dcm::usb::kMediaPacketKind;
    packet.cmd = dcm::usb::CMD_MOUNTED;
    packet.dev_type = dcm::usb::DEV_TYPE_STORAGE;
    packet.port = 1;
    packet.partition = 1;
    dcm::usb::CopyText(packet.mount_path, "/tmp/USB/PORT1/PART1/");
    dcm::usb::CopyText(packet.label, "STICK");
    dcm::usb::CopyText(packet.uuid, "1A2B-3C4D");
    dcm::usb::CopyText(packet.fs_type, "vfat");
    packet.usb_class = 8;
    packet.speed = 3;
    Notifier().Send(&packet);
    EXPECT_THAT(Packets(),
                ElementsAre(Packet{kStorageSet, Hex("03 00*3 03 00*3 00*4 05 00*3 01 00*3 01"
                                                    "2F746D702F5553422F504F5254312F50415254312F 00*11 "
                                                    "535449434B 00*27 314132422D33433444 00*23 "
                                                    "76666174 00*12 08 03 00")}));
}

}  // namespace
}  // namespace test
