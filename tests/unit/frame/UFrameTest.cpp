#include "frame/UFrame.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "FrameBench.h"
#include "PortSpy.h"
#include "access/UDevAccessor.h"
#include "gmock/gmock.h"
#include "node/UListNode.h"
#include "notify/UNotifier.h"
#include "port/UListPortState.h"
#include "setting/USetting.h"
#include "support/Format.h"

namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr unsigned long kSettings = 0;
constexpr unsigned long kInternal = 4096;
constexpr unsigned long kMedia = 0x800000;
constexpr unsigned long kTestInterface = 0x40000000000;
constexpr unsigned long kDiagnosis = 0x0800000000000000;
constexpr unsigned long kPower = 0x8000000000000000;

constexpr unsigned kUsbCert = 143;
constexpr unsigned kUsbCertPersist = 144;

struct UFrame : FrameBench {
    void SetUp() override {
        FrameBench::SetUp();
        Make();
    }
    void TearDown() override {
        m_frame.reset();
        FrameBench::TearDown();
    }
    void Make() {
        m_frame.reset();
        m_frame = std::make_unique<dcm::usb::UFrame>(Kipc(), Queue(kUsb), std::vector<frame::QueueInfo>());
        ka_log_threshold = 64;  // the trace line of each message has a test of its own
        ClearLogs();
        ClearStoreCalls();
        ClearPortCalls();
    }
    void MakeWithoutNotifier() {
        TheStage().no_memory_for = {sizeof(dcm::usb::UNotifier)};
        Make();
    }

    // The message in a buffer of exactly its size, so that a sanitizer sees a look behind its end.
    void Take(unsigned long src, const Bytes& message) {
        const std::unique_ptr<char[]> buffer(new char[message.size()]);
        std::memcpy(buffer.get(), message.data(), message.size());
        m_frame->event_handler(src, static_cast<unsigned>(message.size()), buffer.get());
    }
    void Take(unsigned long src, const std::string& hex) { Take(src, Hex(hex)); }
    void TakeText(const std::string& text) { Take(kSettings, Bytes(text.begin(), text.end())); }

    static dcm::usb::USetting& Setting() { return *dcm::usb::USetting::GetInstance(); }
    static int Adaption(unsigned char port) { return Setting().GetUsbAdaption(port); }

    // What the engineering menu wrote.
    static void SetSwitches(std::uint32_t test1, std::uint32_t test2, std::uint32_t device1,
                            std::uint32_t device2) {
        SetRecord(kUsbCert, BytesOf(dcm::usb::StShmUsbCert{test1, test2, device1, device2}));
    }

    std::unique_ptr<dcm::usb::UFrame> m_frame;
};

TEST_F(UFrame, TracesItsBeginningAndItsEnd) {
    ka_log_threshold = 0;
    m_frame = std::make_unique<dcm::usb::UFrame>(Kipc(), Queue(kUsb), std::vector<frame::QueueInfo>());
    const void* const address = m_frame.get();
    EXPECT_THAT(Logs(), Wrote(32, Format("constructor ptr:%p", address)));
    m_frame.reset();
    EXPECT_THAT(Logs(), Wrote(32, Format("destructor ptr:%p", address)));
}

TEST_F(UFrame, MakesWhatAllFramesShare) {
    EXPECT_NE(dcm::usb::UListPortState::m_pInstance, nullptr);
    EXPECT_NE(dcm::usb::UListNode::m_pInstance, nullptr);
    EXPECT_NE(dcm::usb::USetting::m_pInstance, nullptr);
    EXPECT_NE(dcm::usb::UDevAccessor::m_pInstance, nullptr);
}

TEST_F(UFrame, TakesThePortListWithItAndLeavesTheRest) {
    m_frame.reset();
    EXPECT_EQ(dcm::usb::UListPortState::m_pInstance, nullptr);
    EXPECT_NE(dcm::usb::UListNode::m_pInstance, nullptr);
    EXPECT_NE(dcm::usb::USetting::m_pInstance, nullptr);
    EXPECT_NE(dcm::usb::UDevAccessor::m_pInstance, nullptr);
}

TEST_F(UFrame, WithoutANotifierItHasNoPortListEither) {
    m_frame.reset();
    TheStage().no_memory_for = {sizeof(dcm::usb::UNotifier)};
    m_frame = std::make_unique<dcm::usb::UFrame>(Kipc(), Queue(kUsb), std::vector<frame::QueueInfo>());
    EXPECT_THAT(Logs(192), ElementsAre(Line(192, "failed to new notifier instance")));
    EXPECT_EQ(dcm::usb::UListPortState::m_pInstance, nullptr);
    EXPECT_NE(dcm::usb::UListNode::m_pInstance, nullptr);
    EXPECT_NE(dcm::usb::UDevAccessor::m_pInstance, nullptr);
}

TEST_F(UFrame, RefusesWhatNeedsPortsWithoutAPortList) {
    MakeWithoutNotifier();
    Take(kInternal, "00*4 1B 00*3 00*4");
    Take(kMedia, "00*4 08 00*15");
    TakeText("shm_usb_cert");
    Take(kPower, "83 91 01 01 02 03 04");
    const LogLine line = Line(192, "list_port_state is null");
    EXPECT_THAT(Logs(), ElementsAre(line, line, line, line));
    EXPECT_THAT(StoreCalls(), IsEmpty());
    EXPECT_THAT(Drain(kSdcm), IsEmpty());
}

TEST_F(UFrame, NeedsItsNotifierForTheMountCheckAndTheScan) {
    MakeWithoutNotifier();
    Take(kTestInterface, "02 31 02 08 00");
    m_frame->NotifyScanToSdcm(dcm::MSGID_SCAN_BEGIN);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "notifier is null"), Line(192, "notifier is null")));
    EXPECT_THAT(Packets(), IsEmpty());
}

TEST_F(UFrame, TakesDiagnosisWithoutANotifier) {
    MakeWithoutNotifier();
    Take(kDiagnosis, "83 60 22 05 57 00 40");
    EXPECT_EQ(Setting().GetUsbCoding(), 1);
}

TEST_F(UFrame, TracesEachMessage) {
    ka_log_threshold = 32;
    Take(0x12345, "01 02 03");
    EXPECT_THAT(Logs(),
                ElementsAre(Line(32, "src:12345 len:3"), Line(160, "unknown message src:12345 len:3")));
}

TEST_F(UFrame, PassesOverAnEmptyMessage) {
    char byte = 0;
    m_frame->event_handler(kDiagnosis, 0, &byte);
    m_frame->event_handler(kDiagnosis, 5, nullptr);
    m_frame->event_handler(0xABCDEF, 0, nullptr);
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UFrame, EachHandlerRefusesAMessageBelowItsLeastLength) {
    char bytes[20] = {};
    const void* const address = bytes;
    m_frame->HandleDcm(0, bytes);
    m_frame->HandleGEM(0, bytes);
    m_frame->HandlePower(2, bytes);
    m_frame->HandleTestIface(2, bytes);
    m_frame->HandleDiag(4, bytes);
    m_frame->HandleMedia(19, bytes);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, Format("wrong size(0) or no str(%p)", address)),
                                    Line(192, Format("wrong size(0) or no str(%p)", address)),
                                    Line(192, Format("wrong size(2) or no str(%p)", address)),
                                    Line(192, Format("wrong size(2) or no str(%p)", address)),
                                    Line(192, Format("wrong size(4) or no str(%p)", address)),
                                    Line(192, Format("wrong size(19) or no str(%p)", address))));
}

TEST_F(UFrame, EachHandlerRefusesANullMessage) {
    m_frame->HandleDcm(12, nullptr);
    m_frame->HandleGEM(12, nullptr);
    m_frame->HandlePower(12, nullptr);
    m_frame->HandleTestIface(12, nullptr);
    m_frame->HandleDiag(12, nullptr);
    m_frame->HandleMedia(20, nullptr);
    const LogLine line = Line(192, "wrong size(12) or no str((nil))");
    EXPECT_THAT(Logs(),
                ElementsAre(line, line, line, line, line, Line(192, "wrong size(20) or no str((nil))")));
}

TEST_F(UFrame, ShortMessagesReachTheirHandlers) {
    Take(kPower, "83 91");
    Take(kTestInterface, "02 31");
    Take(kDiagnosis, "83 60 22 05");
    Take(kMedia, "00*19");
    EXPECT_EQ(Logs(192).size(), 4u);
    for (const LogLine& line : Logs())
        EXPECT_THAT(line.text, HasSubstr("wrong size("));
}

TEST_F(UFrame, TellsSdcmThatTheScanBeganAndEnded) {
    Take(kInternal, "03 00*3 1B 00*3 00*4");
    Take(kInternal, "03 00*3 1C 00*3 00*4");
    EXPECT_THAT(Drain(kSdcm),
                ElementsAre(Queued{4096, Hex("00*4 03 00*3 00*4")}, Queued{4096, Hex("00*4 04 00*3 00*4")}));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "msgID:3"), Line(128, "msgID:4")));
}

// Which operation an internal message of this id and sender becomes, and how many bytes of it are looked at.
struct Road {
    const char* operation;
    std::size_t size;
};
Road RoadOf(std::uint32_t id, std::uint8_t sender) {
    if (id >= 12 && id <= 17) return {"mode", 244};
    if (id == 20 || id == 21) return {sender == 4 ? "deferred device" : "device", 348};
    if (id == 22 || id == 23) return {"hid", 12};
    if (id >= 24 && id <= 26) return {"tty", 12};
    if (id == 45 || id == 46) return {"timeout", 12};
    if (id == 47) return {"capability", 12};
    return {nullptr, 0};
}

Bytes Internal(std::uint32_t id, std::uint8_t sender, std::size_t size, std::uint8_t fill) {
    Bytes message(size < 9 ? 9 : size, fill);
    message[0] = sender;
    std::memcpy(&message[4], &id, sizeof id);
    message[8] = 2;
    return message;
}

TEST_F(UFrame, LeadsEachMessageToItsOperationWhole) {
    for (std::uint32_t id = 0; id <= 60; ++id) {
        for (const std::uint8_t sender : {0, 3, 4}) {
            const Road road = RoadOf(id, sender);
            if (!road.operation) continue;
            ClearPortCalls();
            const Bytes message = Internal(id, sender, road.size, 0);
            Take(kInternal, message);
            EXPECT_THAT(PortCalls(), ElementsAre(PortCall{road.operation, message})) << "id " << id;
        }
    }
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UFrame, RefusesMessagesThatNobodyKnows) {
    for (const std::uint32_t id :
         {0, 1, 5, 10, 11, 19, 31, 32, 33, 34, 35, 36, 37, 38, 39, 40, 41, 42, 43, 44, 48, 49, 255}) {
        ClearLogs();
        Take(kInternal, Internal(id, 4, 348, 0));
        EXPECT_THAT(Logs(), ElementsAre(Line(160, Format("unknown msgID:%d", static_cast<int>(id)))));
    }
    EXPECT_THAT(PortCalls(), IsEmpty());
    EXPECT_THAT(Drain(kSdcm), IsEmpty());
    EXPECT_THAT(Drain(kUsb), IsEmpty());
    EXPECT_THAT(Drain(kMonitor), IsEmpty());
    EXPECT_THAT(Packets(), IsEmpty());
}

TEST_F(UFrame, ASearchOfSdcmIsOneForEachPort) {
    Take(kInternal, Internal(18, 0, 12, 0xFF));
    EXPECT_THAT(PortCalls(), ElementsAre(PortCall{"search", Hex("01 00*3 12 00*3 01 00*3")},
                                         PortCall{"search", Hex("01 00*3 12 00*3 02 00*3")}));
}

TEST_F(UFrame, RemovesADeviceByThePortNumberOfTheMessage) {
    Bytes message = Internal(29, 3, 12, 0);
    for (const std::uint8_t port : {0, 1, 32, 255}) {
        message[8] = port;
        Take(kInternal, message);
    }
    EXPECT_THAT(PortCalls(), ElementsAre(PortCall{"remove port 0"}, PortCall{"remove port 1"},
                                         PortCall{"remove port 32"}, PortCall{"remove port 255"}));
}

TEST_F(UFrame, SwitchesTheHubOffAndOnWhenItIsAskedTo) {
    Take(kInternal, Internal(30, 3, 12, 0));
    EXPECT_THAT(PortCalls(), ElementsAre(PortCall{"reset hub power"}));
}

TEST_F(UFrame, OnlyTheKindOfASupervisionItemDefersADevice) {
    for (int sender = 0; sender < 256; ++sender) {
        ClearPortCalls();
        Take(kInternal, Internal(21, static_cast<std::uint8_t>(sender), 348, 0));
        ASSERT_EQ(PortCalls().size(), 1u);
        EXPECT_EQ(PortCalls()[0].operation, sender == 4 ? "deferred device" : "device") << sender;
    }
}

TEST_F(UFrame, GivesEveryTextOfAMessageItsEnd) {
    Take(kInternal, Internal(12, 0, 244, 'x'));
    Take(kInternal, Internal(20, 3, 348, 'x'));
    ASSERT_EQ(PortCalls().size(), 2u);
    for (const PortCall& call : PortCalls()) {
        // Where serial, path and name end in a request; and serial, product, manufacturer and path in a
        // device.
        const auto ends = call.operation == "mode" ? std::vector<std::size_t>{77, 205, 237}
                                                   : std::vector<std::size_t>{91, 155, 219, 347};
        for (std::size_t i = 9; i < call.record.size(); ++i) {
            const bool isEnd = std::find(ends.begin(), ends.end(), i) != ends.end();
            EXPECT_EQ(call.record[i], isEnd ? 0 : 'x') << call.operation << " at " << i;
        }
    }
}

TEST_F(UFrame, MessagesOfEveryLengthAreFilledUpWithZerosAndCutAtTheirSize) {
    for (std::uint32_t id = 0; id <= 60; ++id) {
        const Road road = RoadOf(id, 4);
        if (!road.operation) continue;
        Bytes whole = Internal(id, 4, 400, 0x41);
        for (const std::size_t end : {77, 205, 237, 91, 155, 219, 347})
            whole[end] = 0;
        for (std::size_t length = 8; length <= 400; ++length) {
            ClearPortCalls();
            Take(kInternal, Bytes(whole.begin(), whole.begin() + static_cast<long>(length)));
            Bytes expected(whole.begin(), whole.begin() + static_cast<long>(std::min(length, road.size)));
            expected.resize(road.size);
            ASSERT_THAT(PortCalls(), ElementsAre(PortCall{road.operation, expected}))
                << "id " << id << " length " << length;
        }
    }
}

TEST_F(UFrame, NoMessageOfAnyIdAndLengthIsReadBehindItsEnd) {
    for (std::uint32_t id = 0; id <= 60; ++id) {
        const Bytes whole = Internal(id, 3, 400, 0xFF);
        for (std::size_t length = 1; length <= 400; ++length)
            Take(kInternal, Bytes(whole.begin(), whole.begin() + static_cast<long>(length)));
    }
    EXPECT_THAT(Logs(192), IsEmpty());
}

TEST_F(UFrame, ReadsAnInternalMessageNoFurtherThanItGoes) {
    Take(kInternal, "1B");                // a sender and nothing more
    Take(kInternal, "00*4 1B");           // the id's first byte is all of it
    Take(kInternal, "00*4 FF FF FF FF");  // -1
    EXPECT_THAT(Logs(), ElementsAre(Line(160, "unknown msgID:0"), Line(128, "msgID:3"),
                                    Line(160, "unknown msgID:-1")));
}

TEST_F(UFrame, ASearchOfTheMediaPlayerIsOneForEachPortWhateverItNames) {
    Take(kMedia, "00*4 08 00*3 00*4 09 00*3 02 00*3");
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "SEARCH_PHONE dev_type:9 port:2")));
    EXPECT_THAT(PortCalls(), ElementsAre(PortCall{"search", Hex("01 00*3 12 00*3 01 01 00*2")},
                                         PortCall{"search", Hex("01 00*3 12 00*3 02 01 00*2")}));
}

TEST_F(UFrame, RefusesAMediaRequestOfNineteenBytes) {
    Take(kMedia, "00*4 08 00*14");
    ASSERT_EQ(Logs().size(), 1u);
    EXPECT_THAT(Logs()[0].text, HasSubstr("wrong size(19) or no str("));
    EXPECT_EQ(Logs()[0].level, 192);
}

TEST_F(UFrame, NamesUnknownMediaCommandsByTheirLowByte) {
    Take(kMedia, "00*4 03 00*15");
    Take(kMedia, "00*4 08 01 00*14");  // 264
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "unknown cmd:3"), Line(128, "unknown cmd:8")));
}

TEST_F(UFrame, ReadsThePersistentSettingsAgainWhenTheyChanged) {
    SetRecord(kUsbCertPersist, Hex("00 00 00 00"));
    TakeText("/data/sharedmemory/shm_usb_cert_persist");
    EXPECT_EQ(Setting().GetCustomerHubSupport(), 0u);
    EXPECT_THAT(StoreCalls(),
                ElementsAre(StoreCall{STORE_READ, kUsbCertPersist}, StoreCall{STORE_SYNC, kUsbCertPersist}));
}

TEST_F(UFrame, ANoticeOfThePersistentSettingsNeverTouchesTheOthers) {
    SetSwitches(1, 1, 1, 1);
    TakeText("shm_usb_cert_persist shm_usb_cert");
    EXPECT_EQ(Setting().GetUsbCert(), dcm::usb::StShmUsbCert{});
    for (const StoreCall& call : StoreCalls())
        EXPECT_EQ(call.id, kUsbCertPersist);
}

TEST_F(UFrame, LogsTheSwitchesBeforeAndAfterAChange) {
    SetSwitches(2, 3, 4, 5);
    TakeText("/data/sharedmemory/shm_usb_cert");
    EXPECT_THAT(Logs(), Wrote(128,
                              "test_force_enable1:0>2 test_force_enable2:0>3 device_mode1:0>4 "
                              "device_mode2:0>5"));
    EXPECT_THAT(PortCalls(), IsEmpty()) << "only changes between 0 and 1 are acted on";
    SetSwitches(0, 0, 0, 0);
    ClearLogs();
    TakeText("shm_usb_cert");
    EXPECT_THAT(Logs(), Wrote(128,
                              "test_force_enable1:2>0 test_force_enable2:3>0 device_mode1:4>0 "
                              "device_mode2:5>0"));
    EXPECT_THAT(PortCalls(), IsEmpty());
}

TEST_F(UFrame, ActsOnSwitchesFromOffToOnAndBackInTheirOrder) {
    SetSwitches(1, 1, 1, 1);
    TakeText("shm_usb_cert");
    EXPECT_THAT(PortCalls(), ElementsAre(PortCall{"signal test port 1 on"}, PortCall{"signal test port 2 on"},
                                         PortCall{"hub mode port 1 2"}, PortCall{"hub mode port 2 2"}));
    ClearPortCalls();
    TakeText("shm_usb_cert");
    EXPECT_THAT(PortCalls(), IsEmpty()) << "nothing changed";
    SetSwitches(0, 0, 0, 0);
    TakeText("shm_usb_cert");
    EXPECT_THAT(PortCalls(),
                ElementsAre(PortCall{"signal test port 1 off"}, PortCall{"signal test port 2 off"},
                            PortCall{"hub mode port 1 1"}, PortCall{"hub mode port 2 1"}));
}

TEST_F(UFrame, ActsOnTheSwitchThatChangedAlone) {
    SetSwitches(0, 0, 0, 1);
    TakeText("shm_usb_cert");
    SetSwitches(0, 1, 0, 1);
    TakeText("shm_usb_cert");
    EXPECT_THAT(PortCalls(), ElementsAre(PortCall{"hub mode port 2 2"}, PortCall{"signal test port 2 on"}));
}

TEST_F(UFrame, DeviceModeTwoIsNoChange) {
    SetSwitches(0, 0, 2, 0);
    TakeText("shm_usb_cert");
    SetSwitches(0, 0, 1, 0);
    TakeText("shm_usb_cert");
    SetSwitches(0, 0, 2, 0);
    TakeText("shm_usb_cert");
    EXPECT_THAT(PortCalls(), IsEmpty());
    EXPECT_EQ(Setting().GetUsbCert().device_mode1, 2u);
}

TEST_F(UFrame, KeepsTheSwitchesWhenTheStoreCannotBeRead) {
    SetSwitches(1, 0, 0, 0);
    TakeText("shm_usb_cert");
    FailStore(STORE_READ, kUsbCert);
    ClearLogs();
    TakeText("shm_usb_cert");
    EXPECT_EQ(Setting().GetUsbCert().test_force_enable1, 1u);
    EXPECT_THAT(Logs(), Wrote(128,
                              "test_force_enable1:1>1 test_force_enable2:0>0 device_mode1:0>0 "
                              "device_mode2:0>0"));
}

TEST_F(UFrame, RefusesTextsThatNameNoRecordOfOurs) {
    TakeText("/data/sharedmemory/shm_radio");
    TakeText(std::string("shm_usb_ceXt\0shm_usb_cert", 25));  // the text ends at its terminator
    TakeText("x");
    EXPECT_THAT(Logs(), ElementsAre(Line(160, "unknown str:/data/sharedmemory/shm_radio"),
                                    Line(160, "unknown str:shm_usb_ceXt"), Line(160, "unknown str:x")));
    EXPECT_THAT(StoreCalls(), IsEmpty());
}

TEST_F(UFrame, FindsTheRecordsNameAtTheEndOfALongText) {
    TakeText(std::string(60000, '/') + "shm_usb_cert_persist");
    EXPECT_THAT(StoreCalls(), Not(IsEmpty()));
}

TEST_F(UFrame, LogsThePowerStates) {
    Take(kPower, "83 91 01 01 02 03 FF");
    EXPECT_THAT(Logs(), ElementsAre(Line(128,
                                         "hmi_power_state:1 hmi_power_event:2 mmi_power_state:3 "
                                         "mmi_power_event:255")));
}

TEST_F(UFrame, LogsTheTerminals) {
    Take(kPower, "83 91 03 01 00 01 00 55 55");
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "clamp 15:1 50:0 S:1 X:0")));
}

TEST_F(UFrame, WhatAShortPowerMessageLeavesOutIsZero) {
    Take(kPower, "83 91 03");
    Take(kPower, "83 91 03 01 01");
    EXPECT_THAT(Logs(),
                ElementsAre(Line(128, "clamp 15:0 50:0 S:0 X:0"), Line(128, "clamp 15:1 50:1 S:0 X:0")));
}

TEST_F(UFrame, RefusesOtherPowerMessages) {
    Take(kPower, "83 91 02 00*4");
    Take(kPower, "84 91 01 00*4");
    Take(kPower, "83 9A 03 00*4");
    EXPECT_THAT(Logs(), ElementsAre(Line(160, "unknown packet cmd:83 subcmd:91,2"),
                                    Line(160, "unknown packet cmd:84 subcmd:91,1"),
                                    Line(160, "unknown packet cmd:83 subcmd:9a,3")));
}

TEST_F(UFrame, DiagnosisSetsTheAdaptionOfEachInterfaceByItsTopBit) {
    Take(kDiagnosis, "83 60 22 09 81 80 00 80 00");
    EXPECT_EQ(Adaption(1), 1);
    EXPECT_EQ(Adaption(2), 2);
    EXPECT_EQ(Adaption(3), 1);
    EXPECT_EQ(Adaption(4), 2);
    EXPECT_EQ(Adaption(0), 0);
    EXPECT_THAT(
        Logs(),
        ElementsAre(Line(128, "activiation for hub interface_1:1 interface_2:0 interface_3:1 interface_4:0"),
                    Line(128, "usb_adaption of port1 is 1"), Line(128, "usb_adaption of port2 is 2"),
                    Line(128, "usb_adaption of port3 is 1"), Line(128, "usb_adaption of port4 is 2")));
}

TEST_F(UFrame, TheOtherBitsOfAnAdaptionDoNotCount) {
    Take(kDiagnosis, "83 60 22 09 81 7F FF 7F FF");
    EXPECT_EQ(Adaption(1), 2);
    EXPECT_EQ(Adaption(2), 1);
    EXPECT_EQ(Adaption(3), 2);
    EXPECT_EQ(Adaption(4), 1);
}

TEST_F(UFrame, InterfacesThatAShortRequestLeavesOutAreNotActive) {
    Take(kDiagnosis, "83 60 22 09 81 80");
    EXPECT_EQ(Adaption(1), 1);
    EXPECT_EQ(Adaption(2), 2);
    EXPECT_EQ(Adaption(3), 2);
    EXPECT_EQ(Adaption(4), 2);
}

TEST_F(UFrame, DiagnosisSetsTheCoding) {
    Take(kDiagnosis, "83 60 22 05 57 00 40");
    EXPECT_EQ(Setting().GetUsbCoding(), 1);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "media usb configuration: 1"), Line(128, "usb_coding is 1")));
    Take(kDiagnosis, "83 60 22 05 57 FF BF");
    EXPECT_EQ(Setting().GetUsbCoding(), 2);
    Take(kDiagnosis, "83 60 22 05 57 00 00");
    EXPECT_EQ(Setting().GetUsbCoding(), 0);
    Take(kDiagnosis, "83 60 22 05 57 00 C0");
    EXPECT_EQ(Setting().GetUsbCoding(), 3);
}

TEST_F(UFrame, RefusesOtherDiagnosisRequests) {
    Take(kDiagnosis, "83 60 22 09 82");
    Take(kDiagnosis, "82 60 22 09 81 80 80 80 80");
    Take(kDiagnosis, "83 61 22 05 57 00 40");
    Take(kDiagnosis, "83 60 31 09 81");
    Take(kDiagnosis, "83 60 31 80 AA 02");
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "unknown diag packet cmd:83 subcmd:60,22 rdid:9,82"),
                                    Line(128, "unknown diag packet cmd:82 subcmd:60,22 rdid:9,81"),
                                    Line(128, "unknown diag packet cmd:83 subcmd:61,22 rdid:5,57"),
                                    Line(128, "unknown diag packet cmd:83 subcmd:60,31 rdid:9,81"),
                                    Line(128, "unknown diag packet cmd:83 subcmd:60,31 rdid:80,aa")));
    EXPECT_EQ(Setting().GetUsbCoding(), 3);
    EXPECT_EQ(Adaption(1), 0);
}

TEST_F(UFrame, AnswersAMountCheckWithThePathOfTheVolume) {
    TheStage().mounted_at = "/tmp/USB/PORT1/PART1/";
    TheStage().mounted_port = 1;
    Take(kTestInterface, "02 31 02 08 00");
    EXPECT_THAT(Packets(),
                ElementsAre(Packet{kTestInterface,
                                   Hex("82 31 01 01 2F746D702F5553422F504F5254312F50415254312F 00*11")}));
    ASSERT_EQ(Logs().size(), 2u);
    EXPECT_EQ(Logs()[0].level, 128);
    EXPECT_THAT(Logs()[0].text, ::testing::MatchesRegex("usb1 mount check node:0x[0-9a-f]+"));
    EXPECT_EQ(Logs()[1], Line(128, "result:1 mnt_path:/tmp/USB/PORT1/PART1/"));
}

TEST_F(UFrame, AnswersAMountCheckOfTheSecondPortByItself) {
    TheStage().mounted_at = "/tmp/USB/PORT1/PART1/";
    TheStage().mounted_port = 1;
    Take(kTestInterface, "02 31 02 08 01");
    EXPECT_THAT(Packets(), ElementsAre(Packet{kTestInterface, Hex("82 31 01 00 00*32")}));
    EXPECT_THAT(Logs(),
                ElementsAre(Line(128, "usb2 mount check node:(nil)"), Line(128, "result:0 mnt_path:(null)")));
    TheStage().mounted_port = 2;
    ClearPackets();
    Take(kTestInterface, "02 31 02 08 01 77 77");
    ASSERT_EQ(Packets().size(), 1u);
    EXPECT_EQ(Packets()[0].bytes[3], 1);
}

TEST_F(UFrame, AMountCheckWithoutASelectorIsOneOfTheFirstPort) {
    Take(kTestInterface, "02 31 02 08");
    EXPECT_THAT(Logs(),
                ElementsAre(Line(128, "usb1 mount check node:(nil)"), Line(128, "result:0 mnt_path:(null)")));
}

TEST_F(UFrame, RefusesOtherCommandsOfTheTestInterface) {
    Take(kTestInterface, "03 31 02 08 00");
    Take(kTestInterface, "02 30 02 08 00");
    Take(kTestInterface, "02 31 01 08 00");
    Take(kTestInterface, "02 31 02 07 00");
    Take(kTestInterface, "02 31 02 08 02");
    Take(kTestInterface, "02 31 02");
    EXPECT_THAT(Logs(),
                ElementsAre(Line(160, "unknown cmd"), Line(160, "unknown cmd"), Line(160, "unknown cmd"),
                            Line(160, "unknown extra_cmd:7 port:0"), Line(160, "unknown extra_cmd:8 port:2"),
                            Line(160, "unknown extra_cmd:0 port:0")));
    EXPECT_THAT(Packets(), IsEmpty());
}

}  // namespace
}  // namespace test
