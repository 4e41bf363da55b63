#include "Show.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "Words.h"

namespace kipcsend {
namespace {

using Json = nlohmann::json;

TEST(Show, ARequestIsALineByTheDescription) {
    const auto bytes = Hex("02 31 02 08 01");
    EXPECT_EQ(TextOf({TO_SERVICE, "test", bytes}), "test -> usb  test_command extra_command=8 port=1");
}

TEST(Show, AnAnswerIsALineByTheDescription) {
    const auto bytes = BuildRecord("mode_result", {{"id", "result of CarPlay"},
                                                   {"port", "1"},
                                                   {"vid", "0x05ac"},
                                                   {"pid", "0x12a8"},
                                                   {"serial", "S1"},
                                                   {"result", "failed"}});
    EXPECT_EQ(TextOf({FROM_SERVICE, "sdcm", bytes}),
              "usb -> sdcm  mode_result id=result of CarPlay port=1 vid=0x05ac pid=0x12a8 serial=\"S1\" "
              "result=failed");
}

TEST(Show, WhatNoDescriptionFitsIsShownAsBytes) {
    const auto bytes = Hex("de ad");
    EXPECT_EQ(TextOf({FROM_SERVICE, "sdcm", bytes}), "usb -> sdcm  2 bytes that no description fits: de ad");
    const Json json = Json::parse(JsonOf({FROM_SERVICE, "sdcm", bytes}));
    EXPECT_TRUE(json["record"].is_null());
    EXPECT_EQ(json["hex"], "dead");
    EXPECT_EQ(json["fields"], Json::object());
}

TEST(Show, NothingOfAHostileTextReachesTheTerminal) {
    auto bytes = BuildRecord("mount_check_result", {{"mounted", "yes"}});
    const std::string hostile = "\x1b[2J\r\n\x9b\xff\"";
    std::copy(hostile.begin(), hostile.end(), bytes.begin() + 4);
    EXPECT_EQ(TextOf({FROM_SERVICE, "test", bytes}),
              "usb -> test  mount_check_result mounted=yes mount_path=\"\\x1b[2J\\x0d\\x0a\\x9b\\xff\\\"\"");
    const std::string json = JsonOf({FROM_SERVICE, "test", bytes});
    for (const char one : json)
        EXPECT_TRUE(one >= ' ' && one < 0x7f);
    EXPECT_EQ(Json::parse(json)["hex"].get<std::string>().substr(0, 24),
              "82310101"
              "1b5b324a0d0a9bff");
}

TEST(Show, JsonHasNumbersWordsAndWhetherItIsTheAnswer) {
    const auto bytes = Hex("01 60 31 80 aa 01");
    const Json json = Json::parse(JsonOf({FROM_SERVICE, "diag", bytes, true}));
    EXPECT_EQ(json, Json::parse(R"({"direction": "out", "sender": "usb", "receiver": "diag", "answer": true,
        "record": "diag_test_result", "fields": {"head": "01603180aa", "result": 1}, "words": {"result": "good"},
        "faults": [], "hex": "01603180aa01"})"));
    EXPECT_EQ(Json::parse(JsonOf({TO_SERVICE, "diag", bytes}))["direction"], "in");
}

TEST(Show, AShortRecordIsShownAsFarAsItGoes) {
    const auto bytes = Hex("83 91 01 07");
    const Json json = Json::parse(JsonOf({TO_SERVICE, "power", bytes}));
    EXPECT_EQ(json["record"], "power");
    EXPECT_EQ(json["fields"]["value1"], 7);
    EXPECT_FALSE(json["fields"].contains("value2"));
    EXPECT_EQ(json["faults"], Json::array({"ends after 4 of 7 bytes"}));
}

TEST(Show, WhatSdcmSaysInTheServicesNameHasItsDescriptionToo) {
    const auto bytes = BuildRecord("node", {{"id", "usb add"}, {"port", "1"}});
    EXPECT_EQ(DescriptionOf({TO_SERVICE, "sdcm", bytes}), records::Find("node"));
    EXPECT_EQ(DescriptionOf({TO_SERVICE, "power", bytes}), nullptr);
}

TEST(Show, BytesStandInRowsOfSixteen) {
    EXPECT_EQ(HexLines(Hex("000102030405060708090a0b0c0d0e0f10")),
              "    0000  00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f\n"
              "    0010  10\n");
    EXPECT_EQ(HexLines({}), "");
}

}  // namespace
}  // namespace kipcsend
