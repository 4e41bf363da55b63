#include "monitor/Filter.h"

#include <gmock/gmock.h>

#include "unit/kipcmon/Bytes.h"

namespace kipcmon {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

bool Passes(const Filter& filter, const test::Sent& sent) {
    const test::Octets datagram = sent.Datagram();
    return filter.Passes(test::EntryOf(datagram));
}

test::Sent Search(std::string_view port) {
    return {.record = test::RecordOf("search", {{"port", port}}), .sender = "sdcm", .receiver = "usb"};
}

TEST(MonitorFilter, WithoutAnythingPassesEverything) {
    EXPECT_TRUE(Passes({}, Search("1")));
    EXPECT_TRUE(Passes({}, {.record = {1}, .sender = "?", .receiver = ""}));
}

TEST(MonitorFilter, TakesOneOfItsProcesses) {
    EXPECT_TRUE(Passes({.senders = {"media", "sdcm"}}, Search("1")));
    EXPECT_FALSE(Passes({.senders = {"media"}}, Search("1")));
    EXPECT_TRUE(Passes({.receivers = {"usb"}}, Search("1")));
    EXPECT_FALSE(Passes({.receivers = {"us", "usb2"}}, Search("1")));
}

TEST(MonitorFilter, TakesOneOfItsPortsAndIds) {
    EXPECT_TRUE(Passes({.ports = {2, 1}}, Search("1")));
    EXPECT_FALSE(Passes({.ports = {2}}, Search("1")));
    EXPECT_TRUE(Passes({.ids = {18}}, Search("1")));
    EXPECT_FALSE(Passes({.ids = {17}}, Search("1")));
}

TEST(MonitorFilter, OfSeveralKindsWantsAll) {
    EXPECT_TRUE(Passes({.senders = {"sdcm"}, .ids = {18}, .ports = {1}}, Search("1")));
    EXPECT_FALSE(Passes({.senders = {"sdcm"}, .ids = {18}, .ports = {2}}, Search("1")));
    EXPECT_FALSE(Passes({.senders = {"media"}, .ids = {18}, .ports = {1}}, Search("1")));
}

TEST(MonitorFilter, OfAPortPassesNothingThatHasNone) {
    const test::Sent coding{.record = test::RecordOf("diag_coding"), .sender = "diag", .receiver = "usb"};
    EXPECT_FALSE(Passes({.ports = {0}}, coding));
    EXPECT_FALSE(Passes({.ids = {0}}, coding));
    EXPECT_FALSE(Passes({.ports = {0}}, {.record = {}}));
}

TEST(MonitorFilter, OfAPortPassesNoRecordThatEndsBeforeIt) {
    test::Sent command{.record = test::RecordOf("test_command"), .sender = "test", .receiver = "usb"};
    EXPECT_TRUE(Passes({.ports = {0}}, command));
    command.record.resize(4);
    EXPECT_FALSE(Passes({.ports = {0}}, command));
}

TEST(MonitorIds, AreNumbersOrWords) {
    EXPECT_THAT(IdsOf("18"), ElementsAre(18));
    EXPECT_THAT(IdsOf("0x12"), ElementsAre(18));
    EXPECT_THAT(IdsOf("4294967295"), ElementsAre(4294967295));
    EXPECT_THAT(IdsOf("search"), ElementsAre(18));
    EXPECT_THAT(IdsOf("request Android Auto"), ElementsAre(12));
    for (const char* none : {"", "0x", "1 ", " 1", "-1", "+1", "4294967296", "searches", "18x", "attach"})
        EXPECT_THAT(IdsOf(none), IsEmpty()) << none;
}

TEST(MonitorProcesses, AreThoseOfTheUnitOrSixteenHexDigits) {
    for (const char* name :
         {"usb", "monitor", "media", "sdcm", "settings", "0000080000000000", "0123456789abcdef"})
        EXPECT_TRUE(IsProcess(name)) << name;
    for (const char* name : {"", "Media", "medi", "0123456789ABCDEF", "0123456789abcde", "0123456789abcdef0"})
        EXPECT_FALSE(IsProcess(name)) << name;
}

}  // namespace
}  // namespace kipcmon
