#include "setting/USetting.h"

#include <pthread.h>

#include <cerrno>
#include <thread>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "record/StatusRecord.h"
#include "support/MemoryStore.h"
#include "support/RecordingPlatform.h"

namespace {

// What the mutex functions return instead of their deed; 0: they do it.
int s_init_result = 0;
int s_destroy_result = 0;

}  // namespace

extern "C" {
int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int __real_pthread_mutex_destroy(pthread_mutex_t* mutex);

int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    return s_init_result != 0 ? s_init_result : __real_pthread_mutex_init(mutex, attributes);
}
int __wrap_pthread_mutex_destroy(pthread_mutex_t* mutex) {
    return s_destroy_result != 0 ? s_destroy_result : __real_pthread_mutex_destroy(mutex);
}
}

namespace dcm::usb {
namespace {

using ::test::Bytes;
using ::test::ClearLogs;
using ::test::ClearStoreCalls;
using ::test::FailStore;
using ::test::Hex;
using ::test::Line;
using ::test::LogLine;
using ::test::Logs;
using ::test::PersistentRecord;
using ::test::Receivers;
using ::test::Record;
using ::test::SetRecord;
using ::test::STORE_READ;
using ::test::STORE_SET_NOTIFY;
using ::test::STORE_SYNC;
using ::test::STORE_WRITE;
using ::test::StoreCall;
using ::test::StoreCalls;
using ::test::Wrote;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

constexpr unsigned kCert = 143;
constexpr unsigned kPersist = 144;
constexpr const char* kNoSwitches = "test_force_enable1:0 test_force_enable2:0 device_mode1:0 device_mode2:0";

class USettingTest : public ::testing::Test {
protected:
    USettingTest() {
        s_init_result = s_destroy_result = 0;
        ::test::ResetPlatform();
        ::test::ResetStore();
        ::test::ClearLogs();  // of a former test's setting
    }
    ~USettingTest() override {
        s_init_result = s_destroy_result = 0;
        USetting::Release();
    }

    // As at start, with what the store holds now; what it logged and asked of the store is forgotten.
    USetting& Started() {
        USetting* setting = USetting::GetInstance();
        ClearLogs();
        ClearStoreCalls();
        return *setting;
    }

    // What the start logs between the adaptions and its end.
    std::vector<LogLine> LogsOfStore() {
        ClearLogs();
        USetting::GetInstance();
        std::vector<LogLine> lines = Logs();
        lines.erase(lines.begin(), lines.begin() + 5);
        return lines;
    }
};

TEST_F(USettingTest, StartsWithCodingThreeUnknownAdaptionsAndTheDefaultRecords) {
    const USetting& setting = Started();
    EXPECT_EQ(setting.GetUsbCoding(), 3);
    for (unsigned char port = 0; port < 5; ++port)
        EXPECT_EQ(setting.GetUsbAdaption(port), 0) << "port " << int{port};
    EXPECT_EQ(setting.GetUsbCert(), StShmUsbCert{});
    EXPECT_EQ(setting.GetCustomerHubSupport(), 1U);
}

TEST_F(USettingTest, WritesBothRecordsIntoAnEmptyStoreAndSyncsOnlyThePersistentOne) {
    USetting::GetInstance();
    EXPECT_THAT(
        StoreCalls(),
        ElementsAre(StoreCall{STORE_READ, kCert}, StoreCall{STORE_WRITE, kCert, Hex("00*16")},
                    StoreCall{STORE_SET_NOTIFY, kCert, {}, 4096}, StoreCall{STORE_READ, kPersist},
                    StoreCall{STORE_WRITE, kPersist, Hex("01 00 00 00")},
                    StoreCall{STORE_SET_NOTIFY, kPersist, {}, 4096}, StoreCall{STORE_SYNC, kPersist}));
    EXPECT_EQ(Record(kCert), Hex("00*16"));
    EXPECT_EQ(PersistentRecord(kCert), std::nullopt);
    EXPECT_EQ(PersistentRecord(kPersist), Hex("01 00 00 00"));
}

TEST_F(USettingTest, LogsItsStartOverAnEmptyStoreLineByLine) {
    USetting::GetInstance();
    EXPECT_THAT(Logs(),
                ElementsAre(AllOf(Field(&LogLine::level, 32),
                                  Field(&LogLine::text, MatchesRegex("constructor ptr:0x[0-9a-f]+"))),
                            Line(128, "usb_adaption of port1 is 0"), Line(128, "usb_adaption of port2 is 0"),
                            Line(128, "usb_adaption of port3 is 0"), Line(128, "usb_adaption of port4 is 0"),
                            Line(128, "succeed to write shm_usb_cert"),
                            Line(128, "succeed to set_notify shm_usb_cert"),
                            Line(128, "succeed to write shm_usb_cert_persist"),
                            Line(128, "succeed to set_notify shm_usb_cert_persist"),
                            Line(128, "succeed to sync shm_usb_cert_persist")));
}

TEST_F(USettingTest, TakesTheRecordsThatAreThereAndAsksForNewsOfThePersistentOneOnly) {
    SetRecord(kCert, Hex("01000000 02000000 03000000 04000000"));
    SetRecord(kPersist, Hex("00000000"));
    EXPECT_THAT(LogsOfStore(), ElementsAre(Line(128, "succeed to read shm_usb_cert"),
                                           Line(128, "succeed to read shm_usb_cert_persist"),
                                           Line(128, "succeed to set_notify shm_usb_cert_persist")));
    EXPECT_THAT(StoreCalls(), ElementsAre(StoreCall{STORE_READ, kCert}, StoreCall{STORE_READ, kPersist},
                                          StoreCall{STORE_SET_NOTIFY, kPersist, {}, 4096}));
    EXPECT_EQ(USetting::GetInstance()->GetUsbCert(), (StShmUsbCert{1, 2, 3, 4}));
    EXPECT_EQ(USetting::GetInstance()->GetCustomerHubSupport(), 0U);
}

TEST_F(USettingTest, KeepsItsDefaultsForWhatAShortRecordDoesNotHold) {
    SetRecord(kCert, Hex("07000000"));
    SetRecord(kPersist, {});
    const USetting& setting = Started();
    EXPECT_EQ(setting.GetUsbCert(), (StShmUsbCert{7, 0, 0, 0}));
    EXPECT_EQ(setting.GetCustomerHubSupport(), 1U);
}

TEST_F(USettingTest, AsksForNothingMoreWhenARecordCannotBeWritten) {
    FailStore(STORE_WRITE, kCert);
    FailStore(STORE_WRITE, kPersist, -2);
    EXPECT_THAT(LogsOfStore(), ElementsAre(Line(192, "failed to write shm_usb_cert"),
                                           Line(192, "failed to write shm_usb_cert_persist")));
    EXPECT_EQ(Receivers(kCert), 0U);
    EXPECT_EQ(Receivers(kPersist), 0U);
    EXPECT_EQ(PersistentRecord(kPersist), std::nullopt);
    EXPECT_EQ(USetting::GetInstance()->GetUsbCert(), StShmUsbCert{});
    EXPECT_EQ(USetting::GetInstance()->GetCustomerHubSupport(), 1U);
}

TEST_F(USettingTest, LogsThatTheNewRecordsAreNotWatched) {
    FailStore(STORE_SET_NOTIFY, kCert);
    FailStore(STORE_SET_NOTIFY, kPersist);
    EXPECT_THAT(LogsOfStore(), ElementsAre(Line(128, "succeed to write shm_usb_cert"),
                                           Line(192, "failed to set_notify shm_usb_cert"),
                                           Line(128, "succeed to write shm_usb_cert_persist"),
                                           Line(192, "failed to set_notify shm_usb_cert_persist"),
                                           Line(128, "succeed to sync shm_usb_cert_persist")));
}

TEST_F(USettingTest, LogsThatAFoundRecordIsNotWatched) {
    SetRecord(kCert, Hex("00*16"));
    SetRecord(kPersist, Hex("01000000"));
    FailStore(STORE_SET_NOTIFY, kPersist);
    EXPECT_THAT(LogsOfStore(), ElementsAre(Line(128, "succeed to read shm_usb_cert"),
                                           Line(128, "succeed to read shm_usb_cert_persist"),
                                           Line(192, "failed to set_notify shm_usb_cert_persist")));
}

TEST_F(USettingTest, LogsThatTheNewPersistentRecordIsNotSaved) {
    SetRecord(kCert, Hex("00*16"));
    FailStore(STORE_SYNC, kPersist);
    EXPECT_THAT(LogsOfStore(), ElementsAre(Line(128, "succeed to read shm_usb_cert"),
                                           Line(128, "succeed to write shm_usb_cert_persist"),
                                           Line(128, "succeed to set_notify shm_usb_cert_persist"),
                                           Line(192, "failed to sync shm_usb_cert_persist")));
}

TEST_F(USettingTest, StoresEveryCodingAsItComes) {
    USetting& setting = Started();
    for (const int coding : {0, 1, 2, 3, -1, 77}) {
        ClearLogs();
        setting.SetUsbCoding(static_cast<E_USB_CODING>(coding));
        EXPECT_EQ(setting.GetUsbCoding(), coding);
        EXPECT_THAT(Logs(), ElementsAre(Line(128, "usb_coding is " + std::to_string(coding))));
    }
}

TEST_F(USettingTest, LogsTheCodingWithItsNumber) {
    Started().SetUsbCoding(USB_CODING_0);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "usb_coding is 0")));
}

TEST_F(USettingTest, TakesTheAdaptionOfPortZeroAsOfTheOthers) {
    USetting& setting = Started();
    setting.SetUsbAdaption(0, USB_ADAPTION_ACTIVE);
    setting.SetUsbAdaption(4, USB_ADAPTION_INACTIVE);
    EXPECT_EQ(setting.GetUsbAdaption(0), USB_ADAPTION_ACTIVE);
    EXPECT_EQ(setting.GetUsbAdaption(4), USB_ADAPTION_INACTIVE);
    EXPECT_EQ(setting.GetUsbAdaption(1), USB_ADAPTION_UNKNOWN);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "usb_adaption of port0 is 1"),
                                    Line(128, "usb_adaption of port4 is 2")));
}

TEST_F(USettingTest, RefusesTheAdaptionOfAPortThatThereIsNot) {
    USetting& setting = Started();
    setting.SetUsbAdaption(5, USB_ADAPTION_ACTIVE);
    setting.SetUsbAdaption(255, USB_ADAPTION_ACTIVE);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "port is wrong(5)"), Line(192, "port is wrong(255)")));
    for (unsigned char port = 0; port < 5; ++port)
        EXPECT_EQ(setting.GetUsbAdaption(port), USB_ADAPTION_UNKNOWN) << "port " << int{port};
    EXPECT_EQ(setting.GetUsbAdaption(5), USB_ADAPTION_UNKNOWN);
    EXPECT_EQ(setting.GetUsbAdaption(255), USB_ADAPTION_UNKNOWN);
}

TEST_F(USettingTest, HoldsTheTestSwitchesThatItIsGiven) {
    USetting& setting = Started();
    const StShmUsbCert cert{1, 0, 4294967295U, 2};
    setting.SetUsbCert(&cert);
    EXPECT_EQ(setting.GetUsbCert(), cert);
    EXPECT_THAT(Logs(), ElementsAre(Line(128,
                                         "test_force_enable1:1 test_force_enable2:0 device_mode1:-1 "
                                         "device_mode2:2")));
}

TEST_F(USettingTest, RefusesNullRecordsAndKeepsItsOwn) {
    USetting& setting = Started();
    setting.SetUsbCert(nullptr);
    setting.SetUsbCertPersist(nullptr);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "cert is null"), Line(192, "persist is null")));
    EXPECT_EQ(setting.GetUsbCert(), StShmUsbCert{});
    EXPECT_EQ(setting.GetCustomerHubSupport(), 1U);
}

TEST_F(USettingTest, HoldsTheHubSupportThatItIsGiven) {
    USetting& setting = Started();
    const StShmUsbCertPersist persist{0};
    setting.SetUsbCertPersist(&persist);
    EXPECT_EQ(setting.GetCustomerHubSupport(), 0U);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "customer_hub_support:0")));
}

TEST_F(USettingTest, TellsThatTheTestSwitchesChangedAndLogsThemTwice) {
    USetting& setting = Started();
    SetRecord(kCert, Hex("00000000 01000000 00000000 01000000"));
    EXPECT_TRUE(setting.UpdateUsbCert());
    EXPECT_EQ(setting.GetUsbCert(), (StShmUsbCert{0, 1, 0, 1}));
    const std::string text = "test_force_enable1:0 test_force_enable2:1 device_mode1:0 device_mode2:1";
    EXPECT_THAT(Logs(), ElementsAre(Line(128, text), Line(128, text)));
    EXPECT_THAT(StoreCalls(), ElementsAre(StoreCall{STORE_READ, kCert}));
}

TEST_F(USettingTest, TellsOfAChangeInEachOfTheFourSwitches) {
    USetting& setting = Started();
    for (std::size_t byte : {0, 4, 8, 12, 15}) {
        Bytes record = Hex("00*16");
        record[byte] = 1;
        SetRecord(kCert, record);
        EXPECT_TRUE(setting.UpdateUsbCert()) << "byte " << byte;
        EXPECT_EQ(::test::BytesOf(setting.GetUsbCert()), record);
        EXPECT_FALSE(setting.UpdateUsbCert()) << "byte " << byte;
    }
}

TEST_F(USettingTest, ChangesNothingWhenTheSameTestSwitchesCome) {
    USetting& setting = Started();
    EXPECT_FALSE(setting.UpdateUsbCert());
    EXPECT_EQ(setting.GetUsbCert(), StShmUsbCert{});
    EXPECT_THAT(Logs(), ElementsAre(Line(128, kNoSwitches)));
    EXPECT_THAT(StoreCalls(), ElementsAre(StoreCall{STORE_READ, kCert}));
}

TEST_F(USettingTest, TakesWhatAShortRecordOfTestSwitchesLacksAsZero) {
    USetting& setting = Started();
    const StShmUsbCert cert{1, 1, 1, 1};
    setting.SetUsbCert(&cert);
    SetRecord(kCert, Hex("01000000"));
    EXPECT_TRUE(setting.UpdateUsbCert());
    EXPECT_EQ(setting.GetUsbCert(), (StShmUsbCert{1, 0, 0, 0}));
}

TEST_F(USettingTest, KeepsItsTestSwitchesWhenTheyCannotBeRead) {
    USetting& setting = Started();
    const StShmUsbCert cert{1, 0, 1, 0};
    setting.SetUsbCert(&cert);
    ClearLogs();
    FailStore(STORE_READ, kCert);
    EXPECT_FALSE(setting.UpdateUsbCert());
    EXPECT_EQ(setting.GetUsbCert(), cert);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "failed to read shm_usb_cert")));
}

TEST_F(USettingTest, TellsThatTheHubSupportChangedAndSavesIt) {
    USetting& setting = Started();
    SetRecord(kPersist, Hex("00000000"));
    EXPECT_TRUE(setting.UpdateUsbCertPersist());
    EXPECT_EQ(setting.GetCustomerHubSupport(), 0U);
    EXPECT_EQ(PersistentRecord(kPersist), Hex("00000000"));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "customer_hub_support:0"),
                                    Line(128, "succeed to sync shm_usb_cert_persist"),
                                    Line(128, "customer_hub_support:0")));
}

TEST_F(USettingTest, SavesTheHubSupportAlsoWhenTheSameValueComes) {
    USetting& setting = Started();
    EXPECT_FALSE(setting.UpdateUsbCertPersist());
    EXPECT_EQ(setting.GetCustomerHubSupport(), 1U);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "customer_hub_support:1"),
                                    Line(128, "succeed to sync shm_usb_cert_persist")));
    EXPECT_THAT(StoreCalls(), ElementsAre(StoreCall{STORE_READ, kPersist}, StoreCall{STORE_SYNC, kPersist}));
}

TEST_F(USettingTest, TakesTheNewHubSupportAlsoWhenItCannotBeSaved) {
    USetting& setting = Started();
    SetRecord(kPersist, Hex("02000000"));
    FailStore(STORE_SYNC, kPersist);
    EXPECT_TRUE(setting.UpdateUsbCertPersist());
    EXPECT_EQ(setting.GetCustomerHubSupport(), 2U);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "customer_hub_support:2"),
                                    Line(192, "failed to sync shm_usb_cert_persist"),
                                    Line(128, "customer_hub_support:2")));
}

TEST_F(USettingTest, KeepsTheHubSupportWhenTheRecordHoldsNothing) {
    USetting& setting = Started();
    SetRecord(kPersist, {});
    EXPECT_FALSE(setting.UpdateUsbCertPersist());
    EXPECT_EQ(setting.GetCustomerHubSupport(), 1U);
}

TEST_F(USettingTest, KeepsTheHubSupportWhenItCannotBeReadAndSavesNothing) {
    USetting& setting = Started();
    FailStore(STORE_READ, kPersist);
    EXPECT_FALSE(setting.UpdateUsbCertPersist());
    EXPECT_EQ(setting.GetCustomerHubSupport(), 1U);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "failed to read shm_usb_cert_persist")));
    EXPECT_THAT(StoreCalls(), ElementsAre(StoreCall{STORE_READ, kPersist}));
}

TEST_F(USettingTest, WorksOnWithoutAMutexOfItsOwn) {
    s_init_result = EAGAIN;
    USetting* setting = USetting::GetInstance();
    EXPECT_EQ(Logs().at(1), Line(192, "failed to init mutex"));
    setting->SetUsbCoding(USB_CODING_1);
    EXPECT_EQ(setting->GetUsbCoding(), USB_CODING_1);
}

TEST_F(USettingTest, LogsItsEndAndAMutexThatIsStillInUse) {
    Started();
    s_destroy_result = EBUSY;
    USetting::Release();
    EXPECT_THAT(Logs(), ElementsAre(AllOf(Field(&LogLine::level, 32),
                                          Field(&LogLine::text, MatchesRegex("destructor ptr:0x[0-9a-f]+"))),
                                    Line(192, "failed to destroy mutex")));
}

TEST_F(USettingTest, LogsOnlyItsEndWhenAllIsWell) {
    Started();
    USetting::Release();
    EXPECT_THAT(Logs(), ElementsAre(Field(&LogLine::text, MatchesRegex("destructor ptr:0x[0-9a-f]+"))));
}

TEST_F(USettingTest, IsReadByOtherThreadsWhileItChanges) {
    USetting& setting = Started();
    std::thread reader([&setting] {
        for (int round = 0; round < 1000; ++round) {
            EXPECT_LE(setting.GetUsbCoding(), 3);
            EXPECT_LE(setting.GetUsbAdaption(1), 2);
            EXPECT_LE(setting.GetCustomerHubSupport(), 1U);
            EXPECT_LE(setting.GetUsbCert().device_mode2, 1U);
        }
    });
    for (unsigned round = 0; round < 200; ++round) {
        const StShmUsbCert cert{round % 2, round % 2, round % 2, round % 2};
        const StShmUsbCertPersist persist{round % 2};
        setting.SetUsbCoding(static_cast<E_USB_CODING>(round % 4));
        setting.SetUsbAdaption(1, static_cast<E_USB_ADAPTION>(round % 3));
        setting.SetUsbCert(&cert);
        setting.SetUsbCertPersist(&persist);
    }
    reader.join();
}

using USettingDeathTest = USettingTest;

TEST_F(USettingDeathTest, StopsTheServiceWhenASecondOneIsMade) {
    Started();
    EXPECT_DEATH(USetting second, "USingleton.h:19: .*T = dcm::usb::USetting.*!m_pInstance");
}

// ---- What tools see of it

TEST_F(USettingTest, ShowsToolsWhatIsSetAtEachChange) {
    SetRecord(kCert, Hex("01000000 02000000 03000000 04000000"));
    SetRecord(kPersist, Hex("00000000"));
    USetting& setting = Started();
    const auto shown = [] { return ::test::Shown<SettingsStatus>(STATUS_SETTINGS); };
    ASSERT_THAT(shown(), ::testing::SizeIs(1));
    SettingsStatus expected{};
    expected.coding = 3;
    expected.force_enable[0] = 1;
    expected.force_enable[1] = 2;
    expected.device_mode[0] = 3;
    expected.device_mode[1] = 4;
    EXPECT_EQ(::test::BytesOf(shown()[0]), ::test::BytesOf(expected)) << "after the start";

    setting.SetUsbCoding(USB_CODING_1);
    expected.coding = 1;
    EXPECT_EQ(::test::BytesOf(shown()[0]), ::test::BytesOf(expected));

    setting.SetUsbAdaption(1, USB_ADAPTION_ACTIVE);
    setting.SetUsbAdaption(4, USB_ADAPTION_INACTIVE);
    expected.adaption[0] = 1;
    expected.adaption[3] = 2;
    EXPECT_EQ(::test::BytesOf(shown()[0]), ::test::BytesOf(expected));

    SetRecord(kCert, Hex("00000000 01000000 00000000 01000000"));
    SetRecord(kPersist, Hex("01000000"));
    EXPECT_TRUE(setting.UpdateUsbCert());
    expected.force_enable[0] = 0;
    expected.force_enable[1] = 1;
    expected.device_mode[0] = 0;
    expected.device_mode[1] = 1;
    EXPECT_EQ(::test::BytesOf(shown()[0]), ::test::BytesOf(expected));
    EXPECT_TRUE(setting.UpdateUsbCertPersist());
    expected.customer_hub_support = 1;
    EXPECT_EQ(::test::BytesOf(shown()[0]), ::test::BytesOf(expected));

    USetting::Release();
    EXPECT_THAT(shown(), IsEmpty());
}

}  // namespace
}  // namespace dcm::usb
