#include "Request.h"

#include <gmock/gmock.h>

#include <string>

#include "Words.h"

namespace kipcsend {
namespace {

using testing::ElementsAre;

// The text in a field of so many bytes.
std::string Field(const std::string& text, std::size_t width) {
    std::string field = text;
    field.resize(width);
    return field;
}

std::string Text(const std::vector<unsigned char>& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

Request RequestOf(const std::string& line) {
    const auto parsed = Parse(line);
    EXPECT_TRUE(std::holds_alternative<Order>(parsed)) << line;
    return std::holds_alternative<Order>(parsed) ? std::get<Order>(parsed).request : Request{};
}

struct Golden {
    const char* line;
    const char* sender;
    const char* bytes;
};

class Requests : public testing::TestWithParam<Golden> {};

TEST_P(Requests, AreTheBytesThatThePeerSends) {
    const Request request = RequestOf(GetParam().line);
    EXPECT_EQ(request.sender, GetParam().sender);
    EXPECT_EQ(request.bytes, Hex(GetParam().bytes));
}

INSTANTIATE_TEST_SUITE_P(
    Short, Requests,
    testing::Values(
        Golden{"sdcm search", "sdcm", "00000000 12000000 00000000"},
        Golden{"media search", "media", "00000000 08000000 00000000 00000000 00000000"},
        Golden{"media search --dev-type Apple --port 2", "media",
               "00000000 08000000 00000000 06000000 02000000"},
        Golden{"diag adaption", "diag", "83 60 22 09 81 80 80 80 80"},
        Golden{"diag adaption --port2 off --port4 off", "diag", "83 60 22 09 81 80 00 80 00"},
        Golden{"diag adaption --port1 off --port2 on --port3 off", "diag", "83 60 22 09 81 00 80 00 80"},
        Golden{"diag coding --value 3", "diag", "83 60 22 05 57 00 c0"},
        Golden{"diag coding --value 1", "diag", "83 60 22 05 57 00 40"},
        Golden{"diag coding --value 0", "diag", "83 60 22 05 57 00 00"},
        Golden{"diag self-test", "diag", "83 60 31 80 aa 03"},
        Golden{"power states --hmi-state 1 --hmi-event 2 --mmi-state 3 --mmi-event 255", "power",
               "83 91 01 01 02 03 ff"},
        Golden{"power terminals --terminal15 1 --terminal-s 1", "power", "83 91 03 01 00 01 00"},
        Golden{"power terminals --terminal50 1 --terminal-x 2", "power", "83 91 03 00 01 00 02"},
        Golden{"test mount-check --port 1", "test", "02 31 02 08 00"},
        Golden{"test mount-check --port 2", "test", "02 31 02 08 01"},
        Golden{"settings changed --record shm_usb_cert", "settings", "73686d5f7573625f6365727400"},
        Golden{"raw diag 836031 80:AA 03", "diag", "83 60 31 80 aa 03"},
        Golden{"raw sdcm --record command id=30 port=2", "sdcm", "00000000 1e000000 02000000"},
        Golden{"raw test --record test_command extra_command=9 port=0x7f", "test", "02 31 02 09 7f"}));

TEST(Requests, OfTheSettingsStoreNameTheRecordByItsPath) {
    const Request switches = RequestOf("settings switches --signal-test1 on");
    EXPECT_EQ(Text(switches.bytes), std::string("/data/sharedmemory/shm_usb_cert") + '\0');
    const Request hub = RequestOf("settings customer-hub --support off");
    EXPECT_EQ(Text(hub.bytes), std::string("/data/sharedmemory/shm_usb_cert_persist") + '\0');
}

struct GoldenMode {
    const char* name;
    unsigned char id;
    const char* result;
};

class ModeRequests : public testing::TestWithParam<GoldenMode> {};

TEST_P(ModeRequests, NameThePhoneAndAwaitTheirOwnResult) {
    const Request request = RequestOf(
        std::string("sdcm ") + GetParam().name +
        " --port 21 --vid 05ac --pid 0x12A8 --serial 00008030 --devpath /devices/usb1/1-1 --devid phone-7");
    std::string head = {0,      0,      0,      0,     static_cast<char>(GetParam().id), 0, 0, 0, 21, 0,
                        '\xac', '\x05', '\xa8', '\x12'};
    EXPECT_EQ(request.sender, "sdcm");
    EXPECT_EQ(Text(request.bytes), head + Field("00008030", 64) + Field("/devices/usb1/1-1", 128) +
                                       Field("phone-7", 32) + std::string(6, '\0'));
    EXPECT_EQ(request.answer.record, "mode_result");
    EXPECT_THAT(request.answer.known_by,
                ElementsAre(FieldValue{"id", GetParam().result}, FieldValue{"devid", "phone-7"}));
}

INSTANTIATE_TEST_SUITE_P(All, ModeRequests,
                         testing::Values(GoldenMode{"android-auto", 12, "result of Android Auto"},
                                         GoldenMode{"mirrorlink", 13, "result of MirrorLink"},
                                         GoldenMode{"carplay", 14, "result of CarPlay"},
                                         GoldenMode{"carlife-android", 15, "result of CarLife on Android"},
                                         GoldenMode{"carlife-iphone", 16, "result of CarLife on iPhone"},
                                         GoldenMode{"reset", 17, "result of reset"}));

TEST(ModeRequests, AreAllThatTheDescriptionKnows) {
    EXPECT_EQ(Modes().size(), 6u);
}

// --- answers ---

std::vector<unsigned char> Result(const std::string& id, const std::string& devid,
                                  const std::string& result) {
    return BuildRecord("mode_result", {{"id", id}, {"devid", devid}, {"result", result}});
}

bool IsAnswerTo(const Request& request, const std::string& record, const std::vector<unsigned char>& bytes) {
    return IsAnswer(request.answer, records::Find(record), bytes);
}

TEST(Answers, ToAModeRequestHaveItsIdAndItsNameOfThePhone) {
    const Request request = RequestOf("sdcm carplay --vid 1 --pid 2 --devpath /d --devid mine");
    EXPECT_TRUE(IsAnswerTo(request, "mode_result", Result("result of CarPlay", "mine", "done")));
    EXPECT_FALSE(IsAnswerTo(request, "mode_result", Result("result of MirrorLink", "mine", "done")));
    EXPECT_FALSE(IsAnswerTo(request, "mode_result", Result("result of CarPlay", "mine too", "done")));
    EXPECT_FALSE(IsAnswerTo(request, "scan", BuildRecord("scan", {})));
    EXPECT_FALSE(IsAnswer(request.answer, nullptr, Hex("00")));
}

TEST(Answers, ToAModeRequestWithoutANameOfThePhoneAreAllOfItsId) {
    const Request request = RequestOf("sdcm reset --vid 1 --pid 2 --devpath /d");
    EXPECT_TRUE(IsAnswerTo(request, "mode_result", Result("result of reset", "anybody's", "failed")));
}

TEST(Answers, OfAModeSucceedWhenItIsDone) {
    const Request request = RequestOf("sdcm reset --vid 1 --pid 2 --devpath /d");
    const records::Record& record = *records::Find("mode_result");
    EXPECT_TRUE(IsSuccess(request.answer, record, Result("result of reset", "", "done")));
    EXPECT_FALSE(IsSuccess(request.answer, record, Result("result of reset", "", "failed")));
    EXPECT_FALSE(IsSuccess(request.answer, record, Result("result of reset", "", "7")));
}

TEST(Answers, ToASearchAreAttachedDevicesOnly) {
    const Request sdcm = RequestOf("sdcm search");
    EXPECT_TRUE(IsAnswerTo(sdcm, "device_event", BuildRecord("device_event", {{"id", "device attached"}})));
    EXPECT_FALSE(IsAnswerTo(sdcm, "device_event", BuildRecord("device_event", {{"id", "device detached"}})));
    EXPECT_EQ(sdcm.answer.most, 2u);
    const Request media = RequestOf("media search");
    EXPECT_TRUE(IsAnswerTo(media, "st_usb_pkt", BuildRecord("st_usb_pkt", {{"cmd", "attach"}})));
    EXPECT_FALSE(IsAnswerTo(media, "st_usb_pkt", BuildRecord("st_usb_pkt", {{"cmd", "detach"}})));
}

TEST(Answers, OfTheSelfTestAndTheMountCheckSayYesOrNo) {
    const Request self_test = RequestOf("diag self-test");
    const records::Record& result = *records::Find("diag_test_result");
    EXPECT_TRUE(IsSuccess(self_test.answer, result, BuildRecord("diag_test_result", {{"result", "good"}})));
    EXPECT_FALSE(IsSuccess(self_test.answer, result, BuildRecord("diag_test_result", {{"result", "bad"}})));
    EXPECT_FALSE(IsAnswerTo(self_test, "diag_socket1_open", BuildRecord("diag_socket1_open", {})));
    const Request check = RequestOf("test mount-check --port 1");
    const records::Record& mounted = *records::Find("mount_check_result");
    EXPECT_TRUE(IsSuccess(check.answer, mounted, BuildRecord("mount_check_result", {{"mounted", "yes"}})));
    EXPECT_FALSE(IsSuccess(check.answer, mounted, BuildRecord("mount_check_result", {{"mounted", "no"}})));
}

TEST(Answers, AreNotAwaitedWhereTheServiceGivesNone) {
    for (const char* line : {"diag adaption", "diag coding --value 2", "power states", "power terminals",
                             "settings changed --record x", "settings switches --device-mode1 1",
                             "settings customer-hub --support on"})
        EXPECT_EQ(RequestOf(line).answer.kind, ANSWER_NONE) << line;
}

TEST(Answers, ToRawBytesAreWhateverComes) {
    const Request raw = RequestOf("raw diag 00");
    EXPECT_TRUE(IsAnswer(raw.answer, nullptr, Hex("0102")));
    EXPECT_EQ(raw.answer.timeout.count(), 0);
}

// --- what cannot be built ---

std::string Complaint(const std::string& record, const std::vector<FieldValue>& values) {
    try {
        BuildRecord(record, values);
    } catch (const BadValue& error) {
        return error.what();
    }
    return "none";
}

TEST(BuildRecord, RefusesWhatNoFieldCanHold) {
    EXPECT_EQ(Complaint("no_such", {}), "there is no record no_such");
    EXPECT_EQ(Complaint("search", {{"colour", "1"}}), "search has no field colour");
    EXPECT_EQ(Complaint("search", {{"port", "256"}}), "port cannot be '256' (1 byte)");
    EXPECT_EQ(Complaint("mode_request", {{"vid", "0x10000"}}), "vid cannot be '0x10000' (2 bytes)");
    EXPECT_EQ(Complaint("mode_request", {{"devid", std::string(32, 'x')}}),
              "devid cannot be '" + std::string(32, 'x') + "' (32 bytes)");
    EXPECT_EQ(Complaint("mode_request", {{"devid", std::string(31, 'x')}}), "none");
}

TEST(BytesOfHex, TakesPairsOfDigitsWithBlanksAndColonsBetween) {
    EXPECT_EQ(BytesOfHex("00fFa0 01:02"), (std::vector<unsigned char>{0, 255, 0xa0, 1, 2}));
    for (const char* bad : {"0", "0 1", "0g", "0x10", "000"})
        EXPECT_THROW(BytesOfHex(bad), BadValue) << bad;
}

}  // namespace
}  // namespace kipcsend
