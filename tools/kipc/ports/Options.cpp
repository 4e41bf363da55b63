#include "ports/Options.h"

#include <iostream>
#include <memory>

#include "shared/CommandLine.h"

namespace ports {
namespace {

using namespace kipc_tools;

constexpr double kLeastSeconds = 0.1;
constexpr double kMostSeconds = 86400;

std::string NoSeconds(const std::string& text) {
    double seconds = 0;
    const bool fits = IsNumber(text, &seconds) && seconds >= kLeastSeconds && seconds <= kMostSeconds;
    return fits ? "" : "'" + text + "' is no number of seconds from 0.1 to 86400";
}

constexpr char kFooter[] =
    "Exit status:\n"
    "  0  shown; with a table that refreshes or --watch: a signal came\n"
    "  2  wrong options\n"
    "  4  the service does not answer, or the output cannot be written\n"
    "  5  what answers shows no status of this version\n";

}  // namespace

std::optional<Options> ReadOptions(int argc, const char* const* argv, int* exit_code) {
    Options options;
    options.folder = DefaultFolder();
    std::string colour = "auto";

    CLI::App app("Shows what is plugged into which USB port, and how the USB service is.",
                 "usbservice-ports");
    app.formatter(std::make_shared<Help>());
    app.footer(kFooter);
    app.set_version_flag("--version", PORTS_VERSION);
    app.add_option("--dir", options.folder, "Folder of the sockets; else KIPC_DIR, else /run/kipc")
        ->type_name("DIR");
    app.add_flag("--json", options.json, "One JSON object instead of a table");
    CLI::Option* once = app.add_flag("--once", options.once, "One table, also on a terminal");
    app.add_flag("--watch", options.watch, "Again and again; with --json an object a line for each change")
        ->excludes(once);
    app.add_option("--interval", options.interval_s, "Time between two looks, else 1")
        ->check(CLI::Validator(NoSeconds, ""))
        ->type_name("SECONDS");
    app.add_option("--color", colour, "Colour: auto (on a terminal, unless NO_COLOR is set), always, never")
        ->check(CLI::Validator(NoColour, ""))
        ->type_name("WHEN");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // Help and version come this way too.
        *exit_code = app.exit(error, std::cout, std::cerr) == 0 ? EXIT_AS_ASKED : EXIT_USAGE;
        return std::nullopt;
    }
    options.colour = kColours.at(colour);
    return options;
}

}  // namespace ports
