#include <gmock/gmock.h>

#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>

#include "unit/kipcmon/Bytes.h"

namespace kipcmon {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

// The time of day is local: here that of Greenwich.
class Line : public testing::Test {
protected:
    Line() {
        setenv("TZ", "UTC", 1);
        tzset();
    }

    static std::string Of(const test::Sent& sent) {
        const test::Octets datagram = sent.Datagram();
        return LineOf(test::EntryOf(datagram), COLOUR_OFF);
    }
};

const test::Values kPhone = {{"cmd", "attach"}, {"dev_type", "phone"}, {"port", "2"},
                             {"vid", "0x18d1"}, {"serial", "R58"},     {"speed", "high"}};

TEST_F(Line, SaysTheFieldsByNameAndEnumerationsAsWords) {
    EXPECT_EQ(Of({.record = test::RecordOf("st_usb_pkt", kPhone)}),
              "22:13:20.123456      usb -> media    st_usb_pkt cmd=attach sub_cmd=- dev_type=phone port=2 "
              "vid=0x18d1 pid=0x0000 serial=\"R58\" usb_class=0x00 speed=high");
}

TEST_F(Line, OfWhatComesIn) {
    EXPECT_EQ(Of({.record = test::RecordOf("search", {{"port", "1"}, {"trigger", "media"}}),
                  .sender = "sdcm",
                  .receiver = "usb",
                  .direction = kipc::TAP_IN}),
              "22:13:20.123456     sdcm -> usb      search sender=command port=1 trigger=media");
}

TEST_F(Line, SaysWhatBecameOfARecordThatWasLost) {
    const test::Octets record = test::RecordOf("voltage", {{"port", "1"}, {"section", "critical"}});
    const std::string begin = "22:13:20.123456      usb -> voltage  voltage port=1 section=critical";
    EXPECT_EQ(Of({.record = record, .receiver = "voltage"}), begin);
    EXPECT_EQ(Of({.record = record, .receiver = "voltage", .outcome = kipc::TAP_NO_RECEIVER}),
              begin + " (no receiver)");
    EXPECT_EQ(Of({.record = record, .receiver = "voltage", .outcome = kipc::TAP_FULL}), begin + " (full)");
    EXPECT_EQ(Of({.record = record, .receiver = "voltage", .outcome = 9}), begin + " [outcome 9] (unknown)");
}

TEST_F(Line, MarksWhatIsWrongWithARecord) {
    test::Octets record = test::RecordOf("st_storage_pkt", {{"cmd", "mounted"}});
    record[135] = 1;
    std::fill(record.begin() + 21, record.begin() + 53, 'm');
    EXPECT_THAT(Of({.record = record, .receiver = "navi"}),
                EndsWith(" [mount_path is not terminated] [unused is not zero]"));
}

TEST_F(Line, ShowsAnUnknownRecordInHexAndCutsALongOne) {
    EXPECT_THAT(Of({.record = {0xde, 0xad, 0x1b}}), EndsWith(" 3 bytes that no description fits: dead1b"));
    EXPECT_THAT(Of({.record = {}}), EndsWith(" 0 bytes that no description fits: "));
    std::string hex;
    for (int i = 0; i < 64; ++i)
        hex += "ab";
    EXPECT_THAT(Of({.record = test::Octets(64, 0xab)}),
                EndsWith("64 bytes that no description fits: " + hex));
    EXPECT_THAT(Of({.record = test::Octets(65536, 0xab)}),
                EndsWith("65536 bytes that no description fits: " + hex + "..."));
}

TEST_F(Line, EscapesWhatATerminalWouldObey) {
    const std::string line = Of(
        {.record = test::RecordOf("st_usb_pkt", {{"product", "\033[2J\r\n\x9b\xff"}}), .receiver = "media"});
    EXPECT_THAT(line, HasSubstr("product=\"\\x1b[2J\\x0d\\x0a\\x9b\\xff\""));
    for (const char one : line)
        EXPECT_GE(static_cast<unsigned char>(one), 0x20);
}

TEST_F(Line, HasColoursOnlyWhenAsked) {
    const test::Octets datagram =
        test::Sent{.record = {0xde}, .direction = 0, .outcome = kipc::TAP_FULL}.Datagram();
    const Entry entry = test::EntryOf(datagram);
    EXPECT_THAT(LineOf(entry, COLOUR_OFF), Not(HasSubstr("\033")));
    EXPECT_EQ(LineOf(entry, COLOUR_ON),
              "\033[2m22:13:20.123456\033[0m \033[36m     usb -> media   \033[0m "
              "\033[1m1 bytes that no description fits: de\033[0m \033[31m[direction 0]\033[0m "
              "\033[33m(full)\033[0m");
    EXPECT_EQ(LostLine(1, COLOUR_OFF), "1 record was lost here");
    EXPECT_EQ(LostLine(2, COLOUR_ON), "\033[33m2 records were lost here\033[0m");
}

TEST_F(Line, OfAnyRecordCutAnywhereIsOneLine) {
    for (const records::Record& record : records::All())
        for (std::size_t length = 0; length <= record.size; ++length) {
            test::Octets bytes(record.size, 0x1b);
            for (const records::Field& field : record.fields)
                std::copy(field.always.begin(), field.always.end(),
                          bytes.begin() + static_cast<std::ptrdiff_t>(field.at));
            bytes.resize(length);
            const std::string line = Of({.record = bytes,
                                         .sender = std::string(record.from),
                                         .receiver = std::string(record.to.front())});
            EXPECT_EQ(line.find_first_of("\n\033"), std::string::npos) << line;
        }
}

TEST(JsonLine, HasEveryFieldItsWordAndTheBytes) {
    const test::Octets record = test::RecordOf("voltage", {{"port", "1"}, {"section", "critical"}});
    const test::Octets datagram =
        test::Sent{.record = record, .receiver = "voltage", .outcome = kipc::TAP_NO_RECEIVER, .lost = 4}
            .Datagram();
    EXPECT_EQ(
        JsonOf(test::EntryOf(datagram)),
        R"({"time":"2023-11-14T22:13:20.123456789Z","monotonic_ns":5000000123,"direction":"out","sender":"usb",)"
        R"("receiver":"voltage","outcome":"no receiver","record":"voltage",)"
        R"("fields":{"kind":5000,"port":1,"section":2},"words":{"section":"critical"},"faults":[],)"
        R"("hex":"881300000100000002000000","lost":4})");
}

TEST(JsonLine, OfAnUnknownRecordHasItsBytesOnly) {
    const test::Octets datagram = test::Sent{.record = {0xde, 0xad}, .direction = kipc::TAP_IN}.Datagram();
    const auto object = nlohmann::json::parse(JsonOf(test::EntryOf(datagram)));
    EXPECT_TRUE(object["record"].is_null());
    EXPECT_EQ(object["direction"], "in");
    EXPECT_EQ(object["fields"], nlohmann::json::object());
    EXPECT_EQ(object["hex"], "dead");
}

TEST(JsonLine, HoldsNumbersBelowZero) {
    const test::Octets record = test::RecordOf("mode_request", {{"result", "-2"}, {"id", "12"}});
    const test::Octets datagram =
        test::Sent{.record = record, .sender = "sdcm", .receiver = "usb"}.Datagram();
    const auto object = nlohmann::json::parse(JsonOf(test::EntryOf(datagram)));
    EXPECT_EQ(object["fields"]["result"], -2);
    EXPECT_EQ(object["words"]["id"], "request Android Auto");
}

TEST(JsonLine, HoldsBytesAsHex) {
    const test::Octets record = test::RecordOf("diag_external_optical_error_code", {{"status", "0aff00"}});
    const test::Octets datagram = test::Sent{.record = record, .receiver = "diag"}.Datagram();
    const auto object = nlohmann::json::parse(JsonOf(test::EntryOf(datagram)));
    EXPECT_EQ(object["fields"]["status"], "0aff00");
    EXPECT_EQ(object["fields"]["head"], "0160221005");
}

TEST(JsonLine, IsAsciiWhateverTheTextHolds) {
    const test::Octets record =
        test::RecordOf("st_usb_pkt", {{"product", "\xc3\xbc\033\xff\xe2\x80\xae"}, {"serial", "\"\\"}});
    const test::Octets datagram = test::Sent{.record = record}.Datagram();
    const std::string json = JsonOf(test::EntryOf(datagram));
    for (const char one : json) {
        EXPECT_GE(one, ' ');
        EXPECT_LT(one, 0x7f);
    }
    const auto object = nlohmann::json::parse(json);
    EXPECT_EQ(object["fields"]["product"], "\xc3\xbc\033\xef\xbf\xbd\xe2\x80\xae");
    EXPECT_EQ(object["fields"]["serial"], "\"\\");
}

TEST(JsonLine, LeavesOutWhatAShortRecordDoesNotReach) {
    test::Octets record = test::RecordOf("power", {{"about", "power"}, {"value1", "7"}});
    record.resize(4);
    const test::Octets datagram =
        test::Sent{.record = record, .sender = "power", .receiver = "usb"}.Datagram();
    const auto object = nlohmann::json::parse(JsonOf(test::EntryOf(datagram)));
    EXPECT_EQ(object["record"], "power");
    EXPECT_EQ(object["fields"]["value1"], 7);
    EXPECT_FALSE(object["fields"].contains("value2"));
    EXPECT_EQ(object["faults"], nlohmann::json({"ends after 4 of 7 bytes"}));
}

}  // namespace
}  // namespace kipcmon
