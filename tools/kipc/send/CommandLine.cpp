#include "CommandLine.h"

#include <deque>
#include <memory>

#include "ExitCode.h"
#include "shared/CommandLine.h"

namespace kipcsend {

namespace {

const std::vector<std::string> kPeers = {"sdcm", "media", "diag", "power", "test", "settings"};
constexpr std::size_t kHelpColumn = 32;
constexpr double kMostSeconds = 3600;

// Vendor and product ids are hexadecimal, as everybody writes them.
std::string HexNumber(const std::string& digits) {
    return digits.empty() || digits.starts_with("0x") ? digits : "0x" + digits;
}

std::uint32_t SwitchValue(const std::string& value) {
    if (value == "on" || value == "off") return value == "on";
    return static_cast<std::uint32_t>(std::stoul(value));
}

std::string IsSwitchValue(const std::string& value) {
    const bool is_number = value.size() == 1 && value[0] >= '0' && value[0] <= '9';
    return is_number || value == "on" || value == "off" ? "" : "'" + value + "' is not on, off or 0 to 9";
}

std::string IsSeconds(const std::string& value) {
    double seconds = 0;
    const bool fits = kipc_tools::IsNumber(value, &seconds) && seconds >= 0 && seconds <= kMostSeconds;
    return fits ? "" : "'" + value + "' is no number of seconds";
}

std::string SecondsOf(const Answer& answer) {
    return std::to_string(answer.timeout.count() / 1000) + " s";
}

// The values that options are read into live as long as the parser.
class Parser {
public:
    Parser();
    std::variant<Order, int> Parse(int count, const char* const* words);

private:
    CLI::App* AddPeer(const std::string& name, const std::string& about);
    CLI::App* AddRequest(CLI::App* peer, const std::string& name, const std::string& about,
                         const std::string& answer);
    std::string* AddText(CLI::App* to, const std::string& option, const std::string& about,
                         const std::string& otherwise = "");

    void AddSdcm();
    void AddMode(CLI::App* sdcm, const Mode& mode);
    void AddMedia();
    void AddDiag();
    void AddAdaption(CLI::App* diag);
    void AddPower();
    void AddTest();
    void AddSettings();
    void AddSwitches(CLI::App* settings);
    void AddRaw();

    CLI::App m_app{"Speaks to the USB service as one of its peers would, and shows the answer.", "kipcsend"};
    Order m_order;
    double m_timeout = 0;
    bool m_json = false;
    std::deque<std::string> m_texts;
};

Parser::Parser() {
    m_order.options.root = kipc_tools::DefaultFolder();
    m_app.get_formatter()->column_width(kHelpColumn);
    m_app.set_version_flag("--version", KIPCSEND_VERSION);
    m_app.require_subcommand(1);
    m_app.fallthrough();
    m_app.add_option("--dir", m_order.options.root, "Folder of the sockets; else KIPC_DIR, else /run/kipc")
        ->type_name("DIR")
        ->check(CLI::Validator([](std::string& folder) { return folder.empty() ? "is empty" : ""; }, ""));
    m_app
        .add_option("--timeout", m_timeout,
                    "How long to wait for the answer; 0: not at all; else the request's own")
        ->type_name("SECONDS")
        ->check(CLI::Validator(IsSeconds, ""));
    m_app.add_flag("-v,--verbose", m_order.options.verbose, "Show what is sent, too");
    m_app.add_flag("-n,--dry-run", m_order.options.dry_run, "Show what would be sent, and send nothing");
    m_app.add_flag("--json", m_json, "One JSON object a line");
    m_app.footer(
        "Each peer has its requests: kipcsend PEER --help. These options may stand anywhere.\n"
        "Ends with 0: success, 1: answered with failure, 2: wrong use, 3: no answer, 4: the service was not\n"
        "reached, 5: sent, but the answer goes elsewhere (the peer itself is running).");
    AddSdcm();
    AddMedia();
    AddDiag();
    AddPower();
    AddTest();
    AddSettings();
    AddRaw();
}

std::variant<Order, int> Parser::Parse(int count, const char* const* words) {
    try {
        m_app.parse(count, words);
    } catch (const CLI::ParseError& error) {
        return m_app.exit(error) == 0 ? EXIT_DONE : EXIT_USAGE;
    } catch (const BadValue& error) {
        Complain(error.what());
        return EXIT_USAGE;
    }
    m_order.options.format = m_json ? FORMAT_JSON : FORMAT_TEXT;
    if (m_app.count("--timeout") > 0)
        m_order.options.timeout = std::chrono::milliseconds(static_cast<long>(m_timeout * 1000));
    return m_order;
}

CLI::App* Parser::AddPeer(const std::string& name, const std::string& about) {
    CLI::App* peer = m_app.add_subcommand(name, about);
    peer->require_subcommand(1);
    peer->footer("The options of kipcsend itself (kipcsend --help) may stand anywhere.");
    return peer;
}

CLI::App* Parser::AddRequest(CLI::App* peer, const std::string& name, const std::string& about,
                             const std::string& answer) {
    CLI::App* request = peer->add_subcommand(name, about);
    request->footer("Speaks as " + peer->get_name() + ", on the service's socket usb/" + peer->get_name() +
                    ".\nAnswer: " + answer +
                    ".\nThe options of kipcsend itself (kipcsend --help) may stand anywhere.");
    return request;
}

std::string* Parser::AddText(CLI::App* to, const std::string& option, const std::string& about,
                             const std::string& otherwise) {
    m_texts.push_back(otherwise);
    to->add_option(option, m_texts.back(), about);
    return &m_texts.back();
}

// --- SDCM ---

void Parser::AddSdcm() {
    CLI::App* sdcm = AddPeer("sdcm", "Requests of the device connection manager (SDCM)");
    for (const Mode& mode : Modes())
        AddMode(sdcm, mode);
    CLI::App* search = AddRequest(
        sdcm, "search", "Ask which phones are attached",
        "device_event, id=device attached, for each port where something is attached and no mode runs; "
        "nothing else (waits " +
            SecondsOf(SearchBySdcm().answer) + ")");
    search->callback([this] { m_order.request = SearchBySdcm(); });
}

void Parser::AddMode(CLI::App* sdcm, const Mode& mode) {
    CLI::App* request =
        AddRequest(sdcm, std::string(mode.name), std::string(mode.about),
                   "mode_result, id=" + std::string(mode.result) +
                       ", result=done or failed; none for a port that never saw a device (waits " +
                       std::to_string(mode.timeout.count() / 1000) +
                       " s).\nWhat is not given is asked from the service's status socket, by --port");
    std::string* port = AddText(request, "--port", "Port number, of two digits behind a hub");
    std::string* devpath =
        AddText(request, "--devpath", "Sysfs path of the phone; the service takes the port from it");
    std::string* vid = AddText(request, "--vid", "Vendor id of the phone as it is now, hexadecimal");
    std::string* pid = AddText(request, "--pid", "Product id, the same");
    std::string* serial = AddText(request, "--serial", "Serial number");
    std::string* devid =
        AddText(request, "--devid", "SDCM's own name of the phone; the answer gives it back");
    request->callback([=, this, &mode] {
        const Phone phone{*port, HexNumber(*vid), HexNumber(*pid), *serial, *devpath, *devid};
        m_order.request = AskForMode(mode, phone);  // refuses what no field can hold
        if (!devpath->empty() && !vid->empty() && !pid->empty()) return;
        if (port->empty()) throw BadValue("which phone? Give --port, or --devpath, --vid and --pid");
        m_order.incomplete = ModeOrder{&mode, phone};
    });
}

// --- media ---

void Parser::AddMedia() {
    CLI::App* media = AddPeer("media", "Requests of the media service");
    CLI::App* search = AddRequest(
        media, "search", "Ask which Apple and MTP devices are attached",
        "st_usb_pkt, cmd=attach, for each port with an Apple, Apple shuttle or MTP device and no mode; "
        "nothing else (waits " +
            SecondsOf(SearchByMedia("0", "0").answer) + ")");
    std::string* dev_type =
        AddText(search, "--dev-type", "Type in the request; the service only logs it", "none");
    std::string* port = AddText(search, "--port", "Port in the request; the service only logs it", "0");
    search->callback([=, this] { m_order.request = SearchByMedia(*dev_type, *port); });
}

// --- diagnosis ---

void Parser::AddDiag() {
    CLI::App* diag = AddPeer("diag", "Requests of vehicle diagnosis");
    AddAdaption(diag);
    CLI::App* coding =
        AddRequest(diag, "coding", "Set the media USB configuration",
                   "none; what the service then tells media, navigation, speech and SDCM changes");
    std::string* value = AddText(coding, "--value", "0 to 3: nobody is told below 1, all are from 2 on");
    coding->get_option("--value")->required()->check(CLI::IsMember({"0", "1", "2", "3"}));
    coding->callback([=, this] { m_order.request = SetCoding(static_cast<unsigned>(std::stoul(*value))); });

    CLI::App* test =
        AddRequest(diag, "self-test", "Let the hub test its sockets",
                   "two packets for each socket, then diag_test_result, result=good or bad (could not "
                   "run; then it comes alone) (waits " +
                       SecondsOf(RunSelfTest().answer) + ")");
    test->callback([this] { m_order.request = RunSelfTest(); });
}

void Parser::AddAdaption(CLI::App* diag) {
    CLI::App* adaption = AddRequest(diag, "adaption", "Activate or deactivate the ports, always all four",
                                    "none; of an inactive port most peers hear nothing any more");
    std::vector<std::string*> ports;
    for (unsigned i = 1; i <= kAdaptionPorts; ++i) {
        const std::string option = "--port" + std::to_string(i);
        ports.push_back(AddText(adaption, option, "On: active, off: not", "on"));
        adaption->get_option(option)->check(CLI::IsMember({"on", "off"}))->capture_default_str();
    }
    adaption->callback([=, this] {
        bool active[kAdaptionPorts];
        for (unsigned i = 0; i < kAdaptionPorts; ++i)
            active[i] = *ports[i] == "on";
        m_order.request = SetAdaption(active);
    });
}

// --- power management ---

void Parser::AddPower() {
    CLI::App* power = AddPeer("power", "Notifications of power management");
    struct Kind {
        const char* name;
        const char* about;
        std::vector<std::pair<const char*, const char*>> values;
        Request (*make)(const std::vector<std::string>& values);
    };
    const Kind kinds[] = {
        {"states",
         "Tell the power states",
         {{"--hmi-state", "Power state of the HMI"},
          {"--hmi-event", "Its power event"},
          {"--mmi-state", "Power state of the MMI"},
          {"--mmi-event", "Its power event"}},
         TellPowerStates},
        {"terminals",
         "Tell the states of the terminals (clamps)",
         {{"--terminal15", "Terminal 15"},
          {"--terminal50", "Terminal 50"},
          {"--terminal-s", "Terminal S"},
          {"--terminal-x", "Terminal X"}},
         TellTerminals},
    };
    for (const Kind& kind : kinds) {
        CLI::App* request = AddRequest(power, kind.name, kind.about, "none; the service logs it");
        std::vector<std::string*> values;
        for (const auto& [option, about] : kind.values) {
            values.push_back(AddText(request, option, about, "0"));
            request->get_option(option)->capture_default_str()->type_name("0..255");
        }
        request->callback([this, values, make = kind.make] {
            std::vector<std::string> texts;
            for (const std::string* value : values)
                texts.push_back(*value);
            m_order.request = make(texts);
        });
    }
}

// --- test interface ---

void Parser::AddTest() {
    CLI::App* test = AddPeer("test", "Requests of the test interface");
    CLI::App* check = AddRequest(
        test, "mount-check", "Ask whether a stick is mounted at a port, and where",
        "mount_check_result, mounted=yes (success) or no (waits " + SecondsOf(CheckMount(1).answer) + ")");
    std::string* port = AddText(check, "--port", "1 or 2");
    check->get_option("--port")->required()->check(CLI::IsMember({"1", "2"}));
    check->callback([=, this] { m_order.request = CheckMount(*port == "1" ? 1 : 2); });
}

// --- settings store ---

void Parser::AddSettings() {
    CLI::App* settings =
        AddPeer("settings", "What the engineering menu writes to the settings store, and that it did");
    CLI::App* changed = AddRequest(settings, "changed", "Tell that a record of the store was written",
                                   "none; the service reads the record, and logs what it finds");
    std::string* path = AddText(changed, "--record", "Path or name: shm_usb_cert or shm_usb_cert_persist");
    changed->get_option("--record")->required();
    changed->callback([=, this] { m_order.request = TellSettingChanged(*path); });

    AddSwitches(settings);

    CLI::App* hub =
        AddRequest(settings, "customer-hub", "Write whether customers' hubs are supported, and tell it",
                   "none; the service logs customer_hub_support");
    std::string* support = AddText(hub, "--support", "On or off");
    hub->get_option("--support")->required()->check(CLI::Validator(IsSwitchValue, ""));
    hub->callback([=, this] {
        m_order.change = HubChange{SwitchValue(*support)};
        m_order.request = TellSettingChanged(HubPath());
    });
}

void Parser::AddSwitches(CLI::App* settings) {
    CLI::App* switches =
        AddRequest(settings, "switches", "Write the engineering menu's switches, and tell it",
                   "none; the service logs each switch with its old and new value");
    const std::vector<std::pair<const char*, const char*>> kSwitches = {
        {"--signal-test1", "Signal quality test on port 1: on, off or a number"},
        {"--signal-test2", "The same on port 2"},
        {"--device-mode1", "Port 1 in device mode; the service acts only while CarPlay runs there"},
        {"--device-mode2", "The same on port 2"}};
    std::vector<std::pair<CLI::Option*, std::string*>> values;
    for (const auto& [option, about] : kSwitches) {
        std::string* value = AddText(switches, option, about);
        values.emplace_back(switches->get_option(option)->check(CLI::Validator(IsSwitchValue, "")), value);
    }
    switches->require_option(1, 0);
    switches->callback([=, this] {
        std::optional<std::uint32_t> given[4];
        for (std::size_t i = 0; i < values.size(); ++i)
            if (values[i].first->count() > 0) given[i] = SwitchValue(*values[i].second);
        m_order.change = SwitchChange{given[0], given[1], given[2], given[3]};
        m_order.request = TellSettingChanged(SwitchesPath());
    });
}

// --- anything ---

void Parser::AddRaw() {
    CLI::App* raw = m_app.add_subcommand("raw", "Any bytes, or any record of the description");
    raw->footer(
        "Speaks as the peer that is named. No answer is awaited, unless --timeout is given: then all that "
        "comes\n"
        "for that peer is shown until time is up, and 3 says that nothing came.\n"
        "  kipcsend raw diag 83 60 31 80 aa 03\n"
        "  kipcsend raw sdcm --record message 'id=reset hub'\n"
        "The options of kipcsend itself (kipcsend --help) may stand anywhere.");
    std::string* sender = AddText(raw, "SENDER", "sdcm, media, diag, power, test or settings");
    raw->get_option("SENDER")->required()->check(CLI::IsMember(kPeers));
    std::string* name =
        AddText(raw, "--record", "A record by its name, filled by FIELD=VALUE, the rest zero");
    auto values = std::make_shared<std::vector<std::string>>();
    raw->add_option("BYTES", *values, "Hex digits; with --record: FIELD=VALUE, by words or numbers");
    raw->callback([=, this] {
        if (name->empty()) {
            std::string digits;
            for (const std::string& value : *values)
                digits += digits.empty() ? value : " " + value;
            m_order.request = SendRaw(*sender, BytesOfHex(digits));
            if (m_order.request.bytes.empty())
                throw BadValue("there is nothing to send: give hex digits, or --record");
            return;
        }
        std::vector<FieldValue> fields;
        for (const std::string& value : *values) {
            const std::size_t sign = value.find('=');
            if (sign == std::string::npos) throw BadValue("'" + value + "' is not FIELD=VALUE");
            fields.emplace_back(value.substr(0, sign), value.substr(sign + 1));
        }
        m_order.request = SendRaw(*sender, BuildRecord(*name, fields));
    });
}

}  // namespace

std::variant<Order, int> ParseCommandLine(int count, const char* const* words) {
    return Parser().Parse(count, words);
}

}  // namespace kipcsend
