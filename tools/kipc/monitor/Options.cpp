#include "monitor/Options.h"

#include <iostream>
#include <memory>

#include "shared/CommandLine.h"

namespace kipcmon {
namespace {

using namespace kipc_tools;

constexpr double kMostSeconds = 1e9;

std::string NoProcess(const std::string& name) {
    if (IsProcess(name)) return "";
    std::string names = "usb, monitor";
    for (const records::Process& process : records::Processes())
        names += ", " + std::string(process.name);
    return "there is no process '" + name + "', only " + names + " and 16 hex digits";
}

std::string NoId(const std::string& id) {
    return IdsOf(id).empty() ? "there is no id '" + id + "'" : "";
}

std::string NoSeconds(const std::string& text) {
    double seconds = 0;
    const bool fits = IsNumber(text, &seconds) && seconds > 0 && seconds <= kMostSeconds;
    return fits ? "" : "'" + text + "' is no number of seconds";
}

std::string NoCount(const std::string& text) {
    std::uint64_t count = 0;
    const bool fits = IsNumber(text, &count) && count > 0;
    return fits ? "" : "'" + text + "' is no number of records";
}

std::string NoPort(const std::string& text) {
    return PortOf(text) ? "" : "'" + text + "' is no port";
}

constexpr char kFooter[] =
    "Exit status:\n"
    "  0  --count was reached; or without --count: a signal, the timeout or the file's end came\n"
    "  1  fewer records than --count\n"
    "  2  wrong options\n"
    "  3  another monitor listens already\n"
    "  4  a socket or a file cannot be opened, read or written\n"
    "  5  the file of --read is no capture of a tap, or ends too early\n";

}  // namespace

std::optional<Options> ReadOptions(int argc, const char* const* argv, int* exit_code) {
    Options options;
    options.folder = DefaultFolder();
    bool json = false;
    double timeout_s = 0;
    std::string colour = "auto";
    std::vector<std::string> ids, ports;

    CLI::App app("Shows every record that the USB service sends and receives, one a line.", "kipcmon");
    app.formatter(std::make_shared<Help>());
    app.footer(kFooter);
    app.set_version_flag("--version", KIPCMON_VERSION);
    auto each = [&app](const char* name, std::vector<std::string>& values, const char* help,
                       std::string (*complaint)(const std::string&), const char* type) {
        app.add_option(name, values, help)
            ->check(CLI::Validator(complaint, ""))
            ->type_name(type)
            ->allow_extra_args(false);  // one value; given again for another
    };
    CLI::Option* folder =
        app.add_option("--dir", options.folder, "Folder of the sockets; else KIPC_DIR, else /run/kipc")
            ->type_name("DIR");
    each("--sender", options.filter.senders,
         "Only records from this process (may be repeated, as the next three)", NoProcess, "NAME");
    each("--receiver", options.filter.receivers, "Only records to this process", NoProcess, "NAME");
    each("--id", ids, "Only records with this id, a number or its word", NoId, "ID");
    each("--port", ports, "Only records about this port", NoPort, "NUMBER");
    app.add_flag("--json", json, "One JSON object a line");
    app.add_option("--color", colour, "Colour: auto (on a terminal, unless NO_COLOR is set), always, never")
        ->check(CLI::Validator(NoColour, ""))
        ->type_name("WHEN");
    app.add_option("--count", options.count, "End after this many records")
        ->check(CLI::Validator(NoCount, ""))
        ->type_name("NUMBER");
    CLI::Option* timeout = app.add_option("--timeout", timeout_s, "End after this time")
                               ->check(CLI::Validator(NoSeconds, ""))
                               ->type_name("SECONDS");
    app.add_option("--write", options.write,
                   "Write the records to a pcapng file too; -: to standard output instead")
        ->type_name("FILE");
    app.add_option("--read", options.read, "Show the records of such a file; -: of standard input")
        ->type_name("FILE")
        ->excludes(folder)
        ->excludes(timeout);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // Help and version come this way too.
        *exit_code = app.exit(error, std::cout, std::cerr) == 0 ? EXIT_AS_ASKED : EXIT_USAGE;
        return std::nullopt;
    }
    options.colour = kColours.at(colour);
    if (json) options.format = FORMAT_JSON;
    if (*timeout) options.timeout_s = timeout_s;
    for (const std::string& id : ids)
        for (const std::int64_t number : IdsOf(id))
            options.filter.ids.push_back(number);
    for (const std::string& port : ports)
        options.filter.ports.push_back(*PortOf(port));
    return options;
}

}  // namespace kipcmon
