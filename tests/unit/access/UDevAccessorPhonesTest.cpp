// Operations on phones: which transfers a phone sees, and that nothing is kept whatever fails.
#include <libusb.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "gmock/gmock.h"
#include "support/Format.h"
#include "unit/access/AccessorBench.h"

#define HOST "/devices/soc/6a00000.ssusb/6a00000.dwc3/xhci-hcd.0.auto"

namespace test {
namespace {

using Class = dcm::usb::UDevAccessor;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

struct UsbError {
    int code;
    const char* name;
};
const UsbError kErrors[] = {
    {-1, "LIBUSB_ERROR_IO"},        {-2, "LIBUSB_ERROR_INVALID_PARAM"},
    {-3, "LIBUSB_ERROR_ACCESS"},    {-4, "LIBUSB_ERROR_NO_DEVICE"},
    {-5, "LIBUSB_ERROR_NOT_FOUND"}, {-6, "LIBUSB_ERROR_BUSY"},
    {-7, "LIBUSB_ERROR_TIMEOUT"},   {-8, "LIBUSB_ERROR_OVERFLOW"},
    {-9, "LIBUSB_ERROR_PIPE"},      {-10, "LIBUSB_ERROR_INTERRUPTED"},
    {-11, "LIBUSB_ERROR_NO_MEM"},   {-12, "LIBUSB_ERROR_NOT_SUPPORTED"},
    {-99, "LIBUSB_ERROR_OTHER"},
};

// The library has names for counts, too, and not the same ones in each version.
std::string ShortProtocol(int count) {
    return Format("failed to get protocol with the error:%d %s", count, libusb_error_name(count));
}

// --- what a phone on kPort sees ---

Transfer In(std::uint8_t request, std::uint16_t length) {
    return {0xC0, request, 0, 0, length, {}, 0, kPort, kVid, kPid};
}
Transfer Out(std::uint8_t request, std::uint16_t value, std::uint16_t index, unsigned timeout) {
    return {0x40, request, value, index, 0, {}, timeout, kPort, kVid, kPid};
}
Transfer Text(std::uint16_t index, const std::string& text) {
    Bytes bytes(text.begin(), text.end());
    bytes.push_back(0);
    return {0x40, 52, 0, index, static_cast<std::uint16_t>(bytes.size()), bytes, 0, kPort, kVid, kPid};
}

std::vector<Transfer> AndroidAutoSwitch() {
    return {In(51, 2),
            Text(0, "Android"),
            Text(1, "Android Open Automotive Protocol"),
            Text(2, "Android Open Automotive Protocol"),
            Text(3, "1.0"),
            Text(4, Class::kAccessoryURI),
            Text(5, "0000000012345678"),
            Out(53, 0, 0, 0)};
}
std::vector<Transfer> CarLifeSwitch() {
    return {In(51, 2),
            Text(0, "Baidu"),
            Text(1, "CarLife"),
            Text(2, "Baidu CarLife"),
            Text(3, "1.0.0"),
            Text(4, Class::kCarLifeAccessoryURI),
            Text(5, "0720000012345678"),
            Out(53, 0, 0, 0)};
}

// --- phones ---

// Accessory protocol 2, CarPlay, and MirrorLink: takes all that it can be asked.
Answer Willing(const Transfer& transfer) {
    if (transfer.request == 51) return Reply({2, 0});
    if (transfer.request == 0x53) return Reply({1, 0, 0, 0});
    return Taken(transfer);
}
FakePhone WillingPhone(std::uint8_t port = kPort) {
    return {kVid, kPid, port, Willing};
}
FakePhone PhoneThat(std::function<Answer(const Transfer&)> answer) {
    return {kVid, kPid, kPort, std::move(answer)};
}
// Everything but this one request is answered well.
FakePhone PhoneThatGives(Answer answer, std::uint8_t request) {
    return PhoneThat([answer, request](const Transfer& transfer) {
        return transfer.request == request ? answer : Willing(transfer);
    });
}
// The transfers before this one are answered well.
FakePhone PhoneThatFailsAt(std::size_t which, int result) {
    return PhoneThat([which, result](const Transfer& transfer) {
        return Transfers().size() == which + 1 ? Answer{result} : Willing(transfer);
    });
}

// --- operations ---

struct Operation {
    const char* name;
    int (Class::*run)(std::uint16_t vid, std::uint16_t pid, std::uint8_t port);
    std::vector<LogLine> announced;  // before the phone is opened
    int unreachable;                 // result when it cannot be opened
    int done;                        // result with a willing phone on a unit without the two-port hub
    std::size_t transfers;           // with a willing phone
    std::optional<int> failed;       // result of a transfer that fails; none: the libusb error
};

std::vector<Operation> Operations() {
    const LogLine accessory = Line(128, "v:1234 p:abcd port:2");
    const LogLine role = Line(128, "v:1234 p:abcd usb_path:2");
    const LogLine reset = Line(128, "port2 vid:1234 pid:abcd");
    return {
        {"StartAOAP", &Class::StartAOAP, {accessory}, -1, 0, 8, -1},
        {"StartCarLifeAOAP", &Class::StartCarLifeAOAP, {accessory}, -1, 0, 8, -1},
        {"DiscernAACapability", &Class::DiscernAACapability, {}, 0, 1, 1, 2},
        {"DiscernCPCapability", &Class::DiscernCPCapability, {}, 0, 1, 1, 0},
        {"DiscernMLCapability", &Class::DiscernMLCapability, {}, 0, 0, 1, 0},
        {"StartMirrorLink", &Class::StartMirrorLink, {}, -1, 0, 1, {}},
        {"RequestRoleSwitch", &Class::RequestRoleSwitch, {role}, -1, 0, 1, {}},
        {"RequestCarLifeRoleSwitch", &Class::RequestCarLifeRoleSwitch, {role}, -1, 0, 1, {}},
        {"StartCarplay", &Class::StartCarplay, {role}, -1, 0, 1, {}},
        {"StartCarLife", &Class::StartCarLife, {role}, -1, 0, 1, {}},
        {"ResetPort", &Class::ResetPort, {reset}, -1, 0, 0, {}},
        {"StartCPPortReset", &Class::StartCPPortReset, {reset}, -1, 0, 0, {}},
        {"StartCLPortReset", &Class::StartCLPortReset, {reset}, -1, 0, 0, {}},
        {"StartAAPortReset", &Class::StartAAPortReset, {reset}, -1, 0, 0, {}},
    };
}

int Do(const Operation& operation, std::uint8_t port = kPort) {
    return (Class::GetInstance()->*operation.run)(kVid, kPid, port);
}

std::vector<LogLine> Then(std::vector<LogLine> lines, const std::vector<LogLine>& more) {
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

// --- opening ---

class EachPhoneOperation : public AccessorBench {
protected:
    // Fails with these lines, keeps nothing, and has kept the lock once; the next phone is served.
    void ExpectUnreachable(const Operation& operation, const std::vector<LogLine>& lines) {
        EXPECT_EQ(Do(operation), operation.unreachable);
        EXPECT_THAT(Logs(), ElementsAreArray(Then(operation.announced, lines)));
        EXPECT_THAT(Transfers(), IsEmpty());
        EXPECT_EQ(Locks(), 1);
        ExpectAllGivenBack();
        ResetUsb();
        Plug(WillingPhone());
        EXPECT_EQ(Do(operation), operation.done);
    }
    template <typename Check>
    void ForEach(Check check) {
        for (const Operation& operation : Operations()) {
            SCOPED_TRACE(operation.name);
            Renew();
            check(operation);
        }
    }
    template <typename Check>
    void ForEachAndError(Check check) {
        for (const UsbError& error : kErrors) {
            SCOPED_TRACE(error.name);
            ForEach([&](const Operation& operation) { check(operation, error); });
        }
    }
};

TEST_F(EachPhoneOperation, GivesBackHandleAndContextUnderTheLockAndUsesOneOfEach) {
    ForEach([this](const Operation& operation) {
        bool always_locked = true;
        OnUsbCall([&always_locked](const std::string&) { always_locked = always_locked && IsLocked(); });
        Plug(WillingPhone());
        EXPECT_EQ(Do(operation), operation.done);
        EXPECT_TRUE(always_locked);
        EXPECT_EQ(Locks(), 1);
        std::vector<std::string> calls = {
            "init", "get_device_list", "get_device_descriptor", "get_port_number",
            "open", "free_device_list"};
        const std::size_t uses = operation.transfers;
        calls.insert(calls.end(), uses ? uses : 1, uses ? "control_transfer" : "reset_device");
        calls.insert(calls.end(), {"close", "exit"});
        EXPECT_THAT(UsbCalls(), ElementsAreArray(calls));
        ExpectAllGivenBack();
    });
}

TEST_F(EachPhoneOperation, FailsWithoutLibusb) {
    ForEachAndError([this](const Operation& operation, const UsbError& error) {
        Plug(WillingPhone());
        FailUsbInit(error.code);
        ExpectUnreachable(operation, {Line(192, "failed to initialize libusb")});
    });
}

TEST_F(EachPhoneOperation, FailsWithoutTheListOfDevices) {
    ForEachAndError([this](const Operation& operation, const UsbError& error) {
        Plug(WillingPhone());
        FailUsbList(error.code);
        ExpectUnreachable(operation,
                          {Line(192, Format("libusb_get_device_list error:%d %s", error.code, error.name)),
                           Line(192, "failed to open dev_handle")});
    });
}

TEST_F(EachPhoneOperation, FailsWhenThePhonesDescriptorCannotBeRead) {
    ForEachAndError([this](const Operation& operation, const UsbError& error) {
        FakePhone phone = WillingPhone();
        phone.descriptor_error = error.code;
        Plug(phone);
        ExpectUnreachable(
            operation, {Line(192, Format("libusb_get_device_descriptor error:%d %s", error.code, error.name)),
                        Line(192, "failed to open dev_handle")});
    });
}

TEST_F(EachPhoneOperation, FailsWhenThePhoneCannotBeOpened) {
    ForEachAndError([this](const Operation& operation, const UsbError& error) {
        FakePhone phone = WillingPhone();
        phone.open_error = error.code;
        Plug(phone);
        ExpectUnreachable(operation,
                          {Line(192, "fail to open libusb"), Line(192, "failed to open dev_handle")});
    });
}

TEST_F(EachPhoneOperation, FailsWhenThePhoneLeavesBetweenListAndOpen) {
    ForEach([this](const Operation& operation) {
        FakePhone phone = WillingPhone();
        phone.leaves_when_listed = true;
        Plug(phone);
        ExpectUnreachable(operation,
                          {Line(192, "fail to open libusb"), Line(192, "failed to open dev_handle")});
    });
}

TEST_F(EachPhoneOperation, FailsWhenNothingIsPluggedIn) {
    ForEach([this](const Operation& operation) {
        ExpectUnreachable(operation, {Line(192, "failed to open dev_handle")});
    });
}

TEST_F(EachPhoneOperation, FailsAmongOtherDevices) {
    ForEach([this](const Operation& operation) {
        for (int at = 0; at < 127; ++at)  // one of the ids is right, and the port is
            Plug({at % 2 ? kVid : std::uint16_t{1}, at % 2 ? std::uint16_t{1} : kPid, kPort});
        ExpectUnreachable(operation, {Line(192, "failed to open dev_handle")});
    });
}

TEST_F(EachPhoneOperation, FindsThePhoneBehind126OtherDevices) {
    ForEach([](const Operation& operation) {
        for (int at = 0; at < 126; ++at)
            Plug({kVid, 1, kPort});
        Plug(WillingPhone());
        EXPECT_EQ(Do(operation), operation.done);
        ExpectAllGivenBack();
    });
}

TEST_F(EachPhoneOperation, GoesOnBehindADeviceWhoseDescriptorCannotBeRead) {
    ForEach([](const Operation& operation) {
        FakePhone broken = WillingPhone();
        broken.descriptor_error = -1;
        Plug(broken);
        Plug(WillingPhone());
        EXPECT_EQ(Do(operation), operation.done);
        EXPECT_THAT(Logs(), Wrote(192, "libusb_get_device_descriptor error:-1 LIBUSB_ERROR_IO"));
    });
}

TEST_F(EachPhoneOperation, DoesNotFindThePhoneOnAnotherPort) {
    ForEach([this](const Operation& operation) {
        Plug(WillingPhone(1));
        ExpectUnreachable(operation, {Line(128, "usb_path: 2, libusb port_num: 1"),
                                      Line(192, "failed to open dev_handle")});
    });
}

TEST_F(EachPhoneOperation, OfTwoEqualPhonesTakesTheOneOnThePort) {
    ForEach([](const Operation& operation) {
        FakePhone other = WillingPhone(1);
        other.reset_result = -1;
        Plug(other);
        Plug(WillingPhone(2));
        EXPECT_EQ(Do(operation), operation.done);
        EXPECT_THAT(Logs(), Wrote(128, "usb_path: 2, libusb port_num: 1"));
        EXPECT_THAT(Transfers(), ::testing::Each(::testing::Field(&Transfer::port, 2)));
        EXPECT_EQ(Transfers().size(), operation.transfers);
    });
}

TEST_F(EachPhoneOperation, OfTwoPhonesOnEqualPortsTakesTheFirstOne) {
    ForEach([](const Operation& operation) {
        Plug(WillingPhone());
        FakePhone second = PhoneThat([](const Transfer&) {
            ADD_FAILURE() << "the second phone was asked";
            return Stall();
        });
        second.reset_result = -1;
        Plug(second);
        EXPECT_EQ(Do(operation), operation.done);
        EXPECT_THAT(UsbCalls(), ::testing::Contains("get_port_number").Times(1));
    });
}

TEST_F(EachPhoneOperation, DoesNotTryTheSecondPhoneWhenTheFirstCannotBeOpened) {
    ForEach([this](const Operation& operation) {
        FakePhone first = WillingPhone();
        first.open_error = -3;
        Plug(first);
        Plug(WillingPhone());
        ExpectUnreachable(operation,
                          {Line(192, "fail to open libusb"), Line(192, "failed to open dev_handle")});
    });
}

TEST_F(EachPhoneOperation, GivesAllBackWhateverTheTransferGives) {
    ForEachAndError([](const Operation& operation, const UsbError& error) {
        for (std::size_t which = 0; which < operation.transfers; ++which) {
            ResetUsb();
            Plug(PhoneThatFailsAt(which, error.code));
            EXPECT_EQ(Do(operation), operation.failed.value_or(error.code));
            EXPECT_EQ(Transfers().size(), which + 1);  // nothing is sent behind a failure
            ExpectAllGivenBack();
        }
        ResetUsb();
        Plug(WillingPhone());
        EXPECT_EQ(Do(operation), operation.done);
    });
}

TEST_F(EachPhoneOperation, GivesAllBackWhenThePhoneIsPulledInTheMiddle) {
    ForEach([](const Operation& operation) {
        for (std::size_t which = 0; which < operation.transfers; ++which) {
            ResetUsb();
            int phone = 0;
            phone = Plug(PhoneThat([&phone, which](const Transfer& transfer) {
                if (Transfers().size() == which + 1) Unplug(phone);
                return Willing(transfer);
            }));
            EXPECT_EQ(Do(operation), operation.failed.value_or(-4));
            EXPECT_EQ(Transfers().size(), which + 1);
            ExpectAllGivenBack();
        }
    });
}

// --- one operation at a time ---

TEST_F(EachPhoneOperation, WaitsForAPhoneThatNeverAnswersUntilItIsPulled) {
    const int phone = Plug(PhoneThatGives(Never(), 51));
    int capability = -1;
    int status = -1;
    std::thread asks([&] { capability = Accessor().DiscernAACapability(kVid, kPid, kPort); });
    while (Transfers().empty())
        std::this_thread::yield();
    std::thread controls([&] { status = Accessor().ControlKaHub(dcm::usb::HUB_ON, 1); });
    while (Locks() < 2)
        std::this_thread::yield();
    EXPECT_THAT(Deeds(), IsEmpty());  // no command comes between
    Unplug(phone);
    asks.join();
    controls.join();
    EXPECT_EQ(capability, 2);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(Deeds().size(), 2u);
}

TEST_F(EachPhoneOperation, IsAloneAlsoWhenThreadsAskForAllOfThem) {
    Plug(WillingPhone());
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back([] {
            for (int round = 0; round < 20; ++round) {
                for (const Operation& operation : Operations())
                    EXPECT_EQ(Do(operation), operation.done) << operation.name;
                EXPECT_EQ(Accessor().ControlTestMode(dcm::usb::TESTMODE_NORMAL, 1), 0);
                EXPECT_EQ(Accessor().StartRemoveUsb(12), 0);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(MostUsbContexts(), 1);
    EXPECT_EQ(Locks(), 4 * 20 * 16);
}

// --- Android ---

// The two switches differ in what they say of us, and in what they log.
struct Switch {
    int (Class::*run)(std::uint16_t vid, std::uint16_t pid, std::uint8_t port);
    std::vector<Transfer> transfers;
    std::vector<std::string> failures;  // of the strings, then of the start
};

std::vector<Switch> Switches() {
    return {
        {&Class::StartAOAP,
         AndroidAutoSwitch(),
         {"failed to Send kAccessoryManufacturerName", "failed to Send kAccessoryModelName",
          "failed to Send kAccessoryDescription", "failed to Send kAccessoryVersion",
          "failed to Send kAccessoryURI", "failed to Send kAccessorySerialNumber",
          "failed to Send ACCESSORY_START"}},
        {&Class::StartCarLifeAOAP,
         CarLifeSwitch(),
         {"failed to Send kCarLifeAccessoryManufacturerName", "failed to Send kCarLifeAccessoryModelName",
          "failed to Send kCarLifeAccessoryDescription", "failed to Send kCarLifeAccessoryVersion",
          "failed to Send kCarLifeAccessoryURI", "failed to Send kCarLifeAccessorySerialNumber",
          "failed to Send ACCESSORY_START"}},
    };
}

class AndroidSwitch : public AccessorBench {
protected:
    template <typename Check>
    void ForBoth(Check check) {
        for (const Switch& one : Switches()) {
            SCOPED_TRACE(one.failures.front());
            Renew();
            check(one);
        }
    }
    static int Start(const Switch& one) { return (Class::GetInstance()->*one.run)(kVid, kPid, kPort); }
};

TEST_F(AndroidSwitch, NamesTheUnitAndStartsTheAccessory) {
    ForBoth([](const Switch& one) {
        Plug(WillingPhone());
        EXPECT_EQ(Start(one), 0);
        EXPECT_THAT(Transfers(), ElementsAreArray(one.transfers));
        EXPECT_THAT(Logs(), ElementsAre(Line(128, "v:1234 p:abcd port:2"),
                                        Line(128, "succeed to get protocol (ver=2)")));
    });
}

TEST_F(AndroidSwitch, SendsTextsWithTheirTerminatingZero) {
    Plug(WillingPhone());
    EXPECT_EQ(Accessor().StartAOAP(kVid, kPid, kPort), 0);
    EXPECT_EQ(Transfers()[4].sent, Hex("31 2E 30 00"));
    EXPECT_EQ(Transfers()[4].length, 4);
}

TEST_F(AndroidSwitch, NamesWebAddresses) {
    EXPECT_THAT(Class::kAccessoryURI, ::testing::StartsWith("https://"));
    EXPECT_THAT(Class::kCarLifeAccessoryURI, ::testing::StartsWith("https://"));
}

TEST_F(AndroidSwitch, StopsAtTheFirstStringThatFails) {
    ForBoth([this](const Switch& one) {
        for (std::size_t which = 0; which < one.failures.size(); ++which) {
            const std::size_t transfer = which + 1;
            const int length = one.transfers[transfer].length;
            std::vector<int> results = {length + 1};  // more than was sent; of the start: anything but 0
            if (length > 0) results.insert(results.end(), {0, length - 1});
            for (const UsbError& error : kErrors)
                results.push_back(error.code);
            for (const int result : results) {
                SCOPED_TRACE(Format("%s, result %d", one.failures[which].c_str(), result));
                Renew();
                Plug(PhoneThatFailsAt(transfer, result));
                EXPECT_EQ(Start(one), -1);
                EXPECT_THAT(Transfers(), ElementsAreArray(one.transfers.data(), transfer + 1));
                EXPECT_THAT(Logs(), ElementsAre(Line(128, "v:1234 p:abcd port:2"),
                                                Line(128, "succeed to get protocol (ver=2)"),
                                                Line(192, one.failures[which])));
                ExpectAllGivenBack();
            }
        }
    });
}

TEST_F(AndroidSwitch, SendsNothingWithoutAProtocol) {
    ForBoth([this](const Switch& one) {
        for (const UsbError& error : kErrors) {
            Renew();
            Plug(PhoneThatGives({error.code}, 51));
            EXPECT_EQ(Start(one), -1);
            EXPECT_THAT(Transfers(), ElementsAre(In(51, 2)));
            EXPECT_THAT(Logs(192), ElementsAre(Line(192, Format("failed to get protocol with the error:%d %s",
                                                                error.code, error.name)),
                                               Line(192, "failed to getAOAPProtocol")));
            ExpectAllGivenBack();
        }
    });
}

TEST_F(AndroidSwitch, SendsNothingAfterAnAnswerOfOneByte) {
    ForBoth([](const Switch& one) {
        Plug(PhoneThatGives(Reply({2}), 51));
        EXPECT_EQ(Start(one), -1);
        EXPECT_THAT(Transfers(), ElementsAre(In(51, 2)));
        EXPECT_THAT(Logs(192),
                    ElementsAre(Line(192, ShortProtocol(1)), Line(192, "failed to getAOAPProtocol")));
    });
}

TEST_F(AndroidSwitch, SendsNothingAfterAnEmptyAnswer) {
    ForBoth([](const Switch& one) {
        Plug(PhoneThatGives(Reply({}), 51));
        EXPECT_EQ(Start(one), -1);
        EXPECT_THAT(Transfers(), ElementsAre(In(51, 2)));
        EXPECT_THAT(Logs(192),
                    ElementsAre(Line(192, ShortProtocol(0)), Line(192, "failed to getAOAPProtocol")));
    });
}

TEST_F(AndroidSwitch, SendsNothingToAPhoneOfProtocolZero) {
    ForBoth([](const Switch& one) {
        Plug(PhoneThatGives(Reply({0, 0}), 51));
        EXPECT_EQ(Start(one), -1);
        EXPECT_THAT(Transfers(), ElementsAre(In(51, 2)));
        EXPECT_THAT(Logs(), ElementsAre(Line(128, "v:1234 p:abcd port:2"),
                                        Line(128, "succeed to get protocol (ver=0)"),
                                        Line(192, "failed to getAOAPProtocol")));
    });
}

TEST_F(AndroidSwitch, TakesTheSmallestAndTheGreatestProtocol) {
    ForBoth([](const Switch& one) {
        Plug(PhoneThatGives(Reply({1, 0}), 51));
        EXPECT_EQ(Start(one), 0);
        ResetUsb();
        Plug(PhoneThatGives(Reply({0xFF, 0xFF}), 51));
        EXPECT_EQ(Start(one), 0);
        EXPECT_THAT(Logs(), Wrote(128, "succeed to get protocol (ver=65535)"));
    });
}

TEST_F(AndroidSwitch, NeedsAnOpenPhone) {
    EXPECT_EQ(Accessor().StartAccessoryMode(nullptr), -1);
    EXPECT_EQ(Accessor().StartCarLifeAccessoryMode(nullptr), -1);
    EXPECT_EQ(Accessor().GetAOAPProtocol(nullptr), -1);
    const LogLine line = Line(192, "dev_handle is null");
    EXPECT_THAT(Logs(), ElementsAre(line, line, line));
}

// The handle's owner is the caller.
class OpenPhone : public AccessorBench {
protected:
    libusb_device_handle* Open(FakePhone phone) {
        Plug(std::move(phone));
        libusb_init(&m_context);
        m_handle = Accessor().OpenDeviceWithPort(m_context, kVid, kPid, kPort);
        return m_handle;
    }
    void TearDown() override {
        if (m_handle) libusb_close(m_handle);
        if (m_context) libusb_exit(m_context);
        AccessorBench::TearDown();
    }

    libusb_context* m_context = nullptr;
    libusb_device_handle* m_handle = nullptr;
};

TEST_F(OpenPhone, HoldsTheDeviceButNotTheList) {
    ASSERT_TRUE(Open(WillingPhone()));
    EXPECT_EQ(HeldOfUsb(), (UsbHeld{1, 1, 0, 1}));
    EXPECT_EQ(Locks(), 0);
}

TEST_F(OpenPhone, TellsItsProtocolLittleEndian) {
    ASSERT_TRUE(Open(PhoneThatGives(Reply({2, 1}), 51)));
    EXPECT_EQ(Accessor().GetAOAPProtocol(m_handle), 258);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "succeed to get protocol (ver=258)")));
}

TEST_F(OpenPhone, GivesTheCountOfAShortProtocol) {
    ASSERT_TRUE(Open(PhoneThatGives(Reply({2}), 51)));
    EXPECT_EQ(Accessor().GetAOAPProtocol(m_handle), 1);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, ShortProtocol(1))));
}

TEST_F(OpenPhone, GivesTheErrorOfAProtocolThatFailed) {
    ASSERT_TRUE(Open(PhoneThatGives(Stall(), 51)));
    EXPECT_EQ(Accessor().GetAOAPProtocol(m_handle), -9);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "failed to get protocol with the error:-9 LIBUSB_ERROR_PIPE")));
}

TEST_F(OpenPhone, IsSwitchedThroughItsHandle) {
    ASSERT_TRUE(Open(WillingPhone()));
    EXPECT_EQ(Accessor().StartAccessoryMode(m_handle), 0);
    EXPECT_THAT(Transfers(), ElementsAreArray(AndroidAutoSwitch()));
    ClearTransfers();
    EXPECT_EQ(Accessor().StartCarLifeAccessoryMode(m_handle), 0);
    EXPECT_THAT(Transfers(), ElementsAreArray(CarLifeSwitch()));
}

// --- capabilities ---

using AndroidCapability = AccessorBench;

TEST_F(AndroidCapability, IsThereWhenAProtocolIsWhole) {
    for (const auto& [low, high, version] : {std::tuple{2, 0, 2}, {0, 0, 0}, {1, 2, 513}}) {
        Renew();
        Plug(PhoneThatGives(Reply({static_cast<std::uint8_t>(low), static_cast<std::uint8_t>(high)}), 51));
        EXPECT_EQ(Accessor().DiscernAACapability(kVid, kPid, kPort), 1);
        EXPECT_THAT(Transfers(), ElementsAre(In(51, 2)));
        EXPECT_THAT(Logs(), ElementsAre(Line(128, Format("succeed to get protocol (ver=%d)", version))));
    }
}

TEST_F(AndroidCapability, IsNotThereAfterAShortAnswer) {
    Plug(PhoneThatGives(Reply({2}), 51));
    EXPECT_EQ(Accessor().DiscernAACapability(kVid, kPid, kPort), 2);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, Format("not support, failed to get protocol with the error:%s",
                                                     libusb_error_name(1)))));
    Renew();
    Plug(PhoneThatGives(Reply({}), 51));
    EXPECT_EQ(Accessor().DiscernAACapability(kVid, kPid, kPort), 2);
}

TEST_F(AndroidCapability, IsNotThereAfterAnyError) {
    for (const UsbError& error : kErrors) {
        Renew();
        Plug(PhoneThatGives({error.code}, 51));
        EXPECT_EQ(Accessor().DiscernAACapability(kVid, kPid, kPort), 2);
        EXPECT_THAT(Transfers(), ElementsAre(In(51, 2)));
        EXPECT_THAT(Logs(),
                    ElementsAre(Line(
                        192, Format("not support, failed to get protocol with the error:%s", error.name))));
    }
}

using CarplayCapability = AccessorBench;

TEST_F(CarplayCapability, IsThereWhenTheAnswerIsOne) {
    Plug(PhoneThatGives(Reply({1, 0, 0, 0}), 0x53));
    EXPECT_EQ(Accessor().DiscernCPCapability(kVid, kPid, kPort), 1);
    EXPECT_THAT(Transfers(), ElementsAre(In(0x53, 4)));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "support, data[1]")));
}

TEST_F(CarplayCapability, IsNotThereWhenTheAnswerIsAnythingElse) {
    const std::vector<std::pair<Bytes, unsigned>> rows = {
        {{0, 0, 0, 0}, 0},
        {{2, 0, 0, 0}, 2},
        {{0, 0, 0, 1}, 16777216},
        {{1, 0, 0, 1}, 16777217},
        {{1, 1, 0, 0}, 257},
        {{1, 0, 1, 0}, 65537},
        {{}, 0},
        {{0xFF, 0xFF, 0xFF, 0xFF}, 4294967295},
    };
    for (const auto& [answer, value] : rows) {
        Renew();
        Plug(PhoneThatGives(Reply(answer), 0x53));
        EXPECT_EQ(Accessor().DiscernCPCapability(kVid, kPid, kPort), 2);
        EXPECT_THAT(Logs(), ElementsAre(Line(128, Format("not support, data[%u]", value))));
    }
}

TEST_F(CarplayCapability, OfAShortAnswerIsWhatCame) {
    Plug(PhoneThatGives(Reply({1}), 0x53));
    EXPECT_EQ(Accessor().DiscernCPCapability(kVid, kPid, kPort), 1);
}

TEST_F(CarplayCapability, IsUnknownAfterAnyError) {
    for (const UsbError& error : kErrors) {
        Renew();
        Plug(PhoneThatGives({error.code}, 0x53));
        EXPECT_EQ(Accessor().DiscernCPCapability(kVid, kPid, kPort), 0);
        EXPECT_THAT(Logs(), ElementsAre(Line(192, "fail to send control transfer")));
        ExpectAllGivenBack();
    }
}

using MirrorLink = AccessorBench;

const Transfer kMirrorLinkCommand = Out(0xF0, 0x0101, 0x1004, 1000);

TEST_F(MirrorLink, ProbeSendsTheCommandAndTellsNothing) {
    Plug(WillingPhone());
    EXPECT_EQ(Accessor().DiscernMLCapability(kVid, kPid, kPort), 0);
    EXPECT_THAT(Transfers(), ElementsAre(kMirrorLinkCommand));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "status[0]")));
}

TEST_F(MirrorLink, ProbeLogsAnErrorAndTellsNothing) {
    for (const UsbError& error : kErrors) {
        Renew();
        Plug(PhoneThatGives({error.code}, 0xF0));
        EXPECT_EQ(Accessor().DiscernMLCapability(kVid, kPid, kPort), 0);
        EXPECT_THAT(Logs(), ElementsAre(Line(192, Format("error in %s", error.name))));
    }
}

TEST_F(MirrorLink, StartIsTheSameCommand) {
    Plug(WillingPhone());
    EXPECT_EQ(Accessor().StartMirrorLink(kVid, kPid, kPort), 0);
    EXPECT_THAT(Transfers(), ElementsAre(kMirrorLinkCommand));
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(MirrorLink, StartGivesTheErrorOfTheCommand) {
    for (const UsbError& error : kErrors) {
        Renew();
        Plug(PhoneThatGives({error.code}, 0xF0));
        EXPECT_EQ(Accessor().StartMirrorLink(kVid, kPid, kPort), error.code);
        EXPECT_THAT(Logs(), ElementsAre(Line(192, Format("error in %s", error.name))));
    }
}

TEST_F(MirrorLink, StartEndsWhenThePhoneDoesNotAnswerInASecond) {
    Plug(PhoneThatGives(Never(), 0xF0));
    EXPECT_EQ(Accessor().StartMirrorLink(kVid, kPid, kPort), -7);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "error in LIBUSB_ERROR_TIMEOUT")));
}

// --- role switch ---

using RoleSwitch = AccessorBench;

TEST_F(RoleSwitch, AsksAnApplePhoneToBeTheHost) {
    Plug(WillingPhone());
    EXPECT_EQ(Accessor().RequestRoleSwitch(kVid, kPid, kPort), 0);
    EXPECT_THAT(Transfers(), ElementsAre(Out(0x51, 1, 0, 0)));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "v:1234 p:abcd usb_path:2")));
}

TEST_F(RoleSwitch, AsksAnApplePhoneForCarLife) {
    Plug(WillingPhone());
    EXPECT_EQ(Accessor().RequestCarLifeRoleSwitch(kVid, kPid, kPort), 0);
    EXPECT_THAT(Transfers(), ElementsAre(Out(0x51, 0, 0, 0)));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "v:1234 p:abcd usb_path:2")));
}

TEST_F(RoleSwitch, GivesTheErrorOfTheTransfer) {
    for (const UsbError& error : kErrors) {
        Renew();
        Plug(PhoneThatGives({error.code}, 0x51));
        EXPECT_EQ(Accessor().RequestRoleSwitch(kVid, kPid, kPort), error.code);
        EXPECT_EQ(Accessor().RequestCarLifeRoleSwitch(kVid, kPid, kPort), error.code);
        EXPECT_THAT(Logs(192),
                    ElementsAre(Line(192, Format("fail to send role switch packet[%d]", error.code)),
                                Line(192, Format("fail to send role switch packet[%d][%s]", error.code,
                                                 error.name))));
    }
}

TEST_F(RoleSwitch, IsAllThatStartsAModeWithoutTheTwoPortHub) {
    for (const std::uint8_t ports : {0, 1, 3}) {
        Renew();
        SetHubPorts(ports);
        Plug(WillingPhone());
        EXPECT_EQ(Accessor().StartCarplay(kVid, kPid, kPort), 0);
        EXPECT_EQ(Accessor().StartCarLife(kVid, kPid, kPort), 0);
        EXPECT_THAT(Transfers(), ElementsAre(Out(0x51, 1, 0, 0), Out(0x51, 0, 0, 0)));
        EXPECT_THAT(Logs(), ElementsAre(Line(128, "v:1234 p:abcd usb_path:2"), Line(192, "not 2 port hub"),
                                        Line(128, "v:1234 p:abcd usb_path:2"), Line(192, "not 2 port hub")));
        EXPECT_THAT(Deeds(), IsEmpty());
    }
}

TEST_F(RoleSwitch, IsFollowedByADevicePortOnTheTwoPortHub) {
    for (const auto run : {&Class::StartCarplay, &Class::StartCarLife}) {
        Renew();
        SetHubPorts(2);
        Plug(WillingPhone());
        EXPECT_EQ((Accessor().*run)(kVid, kPid, kPort), 0);
        EXPECT_EQ(Transfers().size(), 1u);
        EXPECT_THAT(Deeds(), ElementsAre("locked: echo 2 > /sys" HOST "/port_sel",
                                         "locked: echo 2 > /sys" HOST "/ka_hub_control"));
        EXPECT_THAT(
            Logs(),
            ElementsAre(Line(128, "v:1234 p:abcd usb_path:2"), Line(128, "hub to device mode !!"),
                        Line(128, "port2 mode:HUB_DEVICE"), Line(128, "echo 2 > /sys" HOST "/port_sel"),
                        Line(128, "echo 2 > /sys" HOST "/ka_hub_control")));
        EXPECT_EQ(Locks(), 2);
    }
}

TEST_F(RoleSwitch, ThatFailsLeavesThePortAsItIs) {
    for (const auto run : {&Class::StartCarplay, &Class::StartCarLife}) {
        Renew();
        SetHubPorts(2);
        EXPECT_EQ((Accessor().*run)(kVid, kPid, kPort), -1);  // no phone
        Plug(PhoneThatGives(Stall(), 0x51));
        EXPECT_EQ((Accessor().*run)(kVid, kPid, kPort), -9);
        EXPECT_THAT(Deeds(), IsEmpty());
    }
}

TEST_F(RoleSwitch, FailsWhenThePortDoesNotBecomeADevicePort) {
    for (const auto run : {&Class::StartCarplay, &Class::StartCarLife}) {
        for (const int command : {0, 1}) {
            Renew();
            SetHubPorts(2);
            Plug(WillingPhone());
            FailCommand(command, ENOMEM);
            EXPECT_EQ((Accessor().*run)(kVid, kPid, kPort), -1);
            ExpectAllGivenBack();
        }
    }
}

// --- reset of the phone itself ---

using PhoneReset = AccessorBench;

TEST_F(PhoneReset, ResetsThePhone) {
    Plug(WillingPhone());
    EXPECT_EQ(Accessor().ResetPort(kVid, kPid, kPort), 0);
    EXPECT_THAT(UsbCalls(), ::testing::Contains("reset_device").Times(1));
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "port2 vid:1234 pid:abcd"), Line(128, "reset result [0]")));
}

TEST_F(PhoneReset, SucceedsWhenThePhoneHasAlreadyComeBack) {
    FakePhone phone = WillingPhone();
    phone.reset_result = -5;
    Plug(phone);
    EXPECT_EQ(Accessor().ResetPort(kVid, kPid, kPort), 0);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "port2 vid:1234 pid:abcd"), Line(128, "reset result [-5]"),
                                    Line(128, "if ret is -5(not found), make success")));
}

TEST_F(PhoneReset, GivesEveryOtherError) {
    for (const UsbError& error : kErrors) {
        if (error.code == -5) continue;
        Renew();
        FakePhone phone = WillingPhone();
        phone.reset_result = error.code;
        Plug(phone);
        EXPECT_EQ(Accessor().ResetPort(kVid, kPid, kPort), error.code);
        EXPECT_THAT(Logs(), ElementsAre(Line(128, "port2 vid:1234 pid:abcd"),
                                        Line(128, Format("reset result [%d]", error.code))));
        ExpectAllGivenBack();
    }
}

TEST_F(PhoneReset, IsTheResetOfEachModeWithoutTheTwoPortHub) {
    for (const std::uint8_t ports : {0, 1, 3}) {
        for (const auto run :
             {&Class::StartCPPortReset, &Class::StartCLPortReset, &Class::StartAAPortReset}) {
            Renew();
            SetHubPorts(ports);
            FakePhone phone = WillingPhone();
            phone.reset_result = -6;
            Plug(phone);
            EXPECT_EQ((Accessor().*run)(kVid, kPid, kPort), -6);
            EXPECT_THAT(Deeds(), IsEmpty());
        }
    }
}

}  // namespace
}  // namespace test
