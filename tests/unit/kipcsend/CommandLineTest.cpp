#include "CommandLine.h"

#include <gmock/gmock.h>

#include <cstdlib>

#include "ExitCode.h"
#include "Words.h"

namespace kipcsend {
namespace {

using testing::HasSubstr;

// Parsed to its end: the number to end with and what was said on standard error.
struct Refusal {
    int exit;
    std::string text;
};

Refusal Refused(const std::string& line) {
    testing::internal::CaptureStderr();
    const auto parsed = Parse(line);
    const std::string text = testing::internal::GetCapturedStderr();
    return {std::holds_alternative<int>(parsed) ? std::get<int>(parsed) : -1, text};
}

Order OrderOf(const std::string& line) {
    const auto parsed = Parse(line);
    EXPECT_TRUE(std::holds_alternative<Order>(parsed)) << line;
    return std::holds_alternative<Order>(parsed) ? std::get<Order>(parsed) : Order{};
}

TEST(CommandLine, RefusesWhatNoRequestMeans) {
    for (const char* line : {"",
                             "nobody",
                             "sdcm",
                             "sdcm dance",
                             "power search",
                             "diag coding",
                             "diag coding --value 4",
                             "diag coding --value",
                             "diag adaption --port5 on",
                             "diag adaption --port1 maybe",
                             "test mount-check",
                             "test mount-check --port 3",
                             "settings switches",
                             "settings switches --signal-test1 10",
                             "settings customer-hub",
                             "settings changed",
                             "raw",
                             "raw nobody 00",
                             "--timeout -1 sdcm search",
                             "--timeout nan sdcm search",
                             "--timeout inf sdcm search",
                             "--timeout 3601 sdcm search",
                             "--timeout soon sdcm search",
                             "--dir= sdcm search",
                             "sdcm search diag self-test",
                             "sdcm search 00"}) {
        const Refusal refusal = Refused(line);
        EXPECT_EQ(refusal.exit, EXIT_USAGE) << line;
        EXPECT_NE(refusal.text, "") << line;
    }
}

TEST(CommandLine, SaysWhichValueIsWrong) {
    EXPECT_EQ(Refused("sdcm carplay --port 300").text, "kipcsend: port cannot be '300' (1 byte)\n");
    EXPECT_EQ(Refused("sdcm carplay --vid hello --port 1").text,
              "kipcsend: vid cannot be '0xhello' (2 bytes)\n");
    EXPECT_EQ(Refused("power states --hmi-state 256").text, "kipcsend: value1 cannot be '256' (1 byte)\n");
    EXPECT_EQ(Refused("raw diag").text, "kipcsend: there is nothing to send: give hex digits, or --record\n");
    EXPECT_EQ(Refused("raw diag 8g").text, "kipcsend: '8g' is not pairs of hex digits\n");
    EXPECT_EQ(Refused("raw diag --record diag_coding coding").text,
              "kipcsend: 'coding' is not FIELD=VALUE\n");
    EXPECT_EQ(Refused("raw diag --record nothing").text, "kipcsend: there is no record nothing\n");
    EXPECT_THAT(Refused("settings switches --signal-test1 yes").text,
                HasSubstr("'yes' is not on, off or 0 to 9"));
}

TEST(CommandLine, HelpIsNoFailure) {
    testing::internal::CaptureStdout();
    const auto parsed = Parse("sdcm carplay --help");
    const std::string help = testing::internal::GetCapturedStdout();
    EXPECT_EQ(std::get<int>(parsed), EXIT_DONE);
    EXPECT_THAT(help, HasSubstr("Speaks as sdcm"));
    EXPECT_THAT(help, HasSubstr("id=result of CarPlay"));
    EXPECT_THAT(help, HasSubstr("waits 5 s"));
}

TEST(CommandLine, OptionsOfTheProgramStandAnywhere) {
    for (const char* line : {"--dir /r --timeout 1.5 -v -n --json test mount-check --port 1",
                             "test mount-check --port 1 -v -n --json --dir /r --timeout 1.5",
                             "test --json mount-check -n --dir /r -v --timeout 1.5 --port 1"}) {
        const Options options = OrderOf(line).options;
        EXPECT_EQ(options.root, "/r") << line;
        EXPECT_EQ(options.timeout, std::chrono::milliseconds(1500)) << line;
        EXPECT_TRUE(options.verbose && options.dry_run) << line;
        EXPECT_EQ(options.format, FORMAT_JSON) << line;
    }
}

TEST(CommandLine, TheFolderIsTheEnvironmentsOrTheUnits) {
    setenv("KIPC_DIR", "/elsewhere", 1);
    EXPECT_EQ(OrderOf("sdcm search").options.root, "/elsewhere");
    setenv("KIPC_DIR", "", 1);
    EXPECT_EQ(OrderOf("sdcm search").options.root, "/run/kipc");
    unsetenv("KIPC_DIR");
    EXPECT_EQ(OrderOf("sdcm search").options.root, "/run/kipc");
}

TEST(CommandLine, WithoutATimeoutTheRequestsOwnCounts) {
    EXPECT_EQ(OrderOf("sdcm search").options.timeout, std::nullopt);
    EXPECT_EQ(OrderOf("sdcm search --timeout 0").options.timeout, std::chrono::milliseconds(0));
}

TEST(CommandLine, APhoneIsNamedByItsPortOrInFull) {
    EXPECT_FALSE(OrderOf("sdcm reset --vid 18d1 --pid 2d00 --devpath /d").incomplete);
    const auto by_port = OrderOf("sdcm reset --port 2 --vid 18d1").incomplete;
    ASSERT_TRUE(by_port);
    EXPECT_EQ(by_port->mode->name, "reset");
    EXPECT_EQ(by_port->phone.port, "2");
    EXPECT_EQ(by_port->phone.vid, "0x18d1");
    EXPECT_EQ(by_port->phone.devpath, "");
    EXPECT_EQ(Refused("sdcm reset --vid 18d1 --pid 2d00").text,
              "kipcsend: which phone? Give --port, or --devpath, --vid and --pid\n");
}

TEST(CommandLine, SwitchesThatAreNotNamedStayAsTheyAre) {
    const auto order = OrderOf("settings switches --signal-test2 on --device-mode1 off --device-mode2 2");
    const auto& change = std::get<SwitchChange>(order.change);
    EXPECT_EQ(change.signal_test1, std::nullopt);
    EXPECT_EQ(change.signal_test2, 1u);
    EXPECT_EQ(change.device_mode1, 0u);
    EXPECT_EQ(change.device_mode2, 2u);
    const dcm::usb::StShmUsbCert changed = Changed({1, 0, 1, 0}, change);
    EXPECT_EQ(changed, (dcm::usb::StShmUsbCert{1, 1, 0, 2}));
    EXPECT_EQ(TextOf(changed), "signal-test1=1 signal-test2=1 device-mode1=0 device-mode2=2");
}

TEST(CommandLine, SupportOfCustomersHubsIsWritten) {
    EXPECT_EQ(std::get<HubChange>(OrderOf("settings customer-hub --support off").change).customer_hub_support,
              0u);
    EXPECT_EQ(std::get<HubChange>(OrderOf("settings customer-hub --support 1").change).customer_hub_support,
              1u);
    EXPECT_TRUE(std::holds_alternative<std::monostate>(OrderOf("settings changed --record x").change));
}

}  // namespace
}  // namespace kipcsend
