#include "Script.h"

#include <algorithm>
#include <iterator>

#include "support/Format.h"
#include "support/MemoryStore.h"

namespace test {
namespace {

constexpr unsigned long kFromService = 4096;  // SDCM as well
constexpr unsigned long kFromSettings = 0;
constexpr unsigned long kFromMedia = 0x800000;
constexpr unsigned long kFromTestInterface = 0x40000000000;
constexpr unsigned long kFromDiagnosis = 0x0800000000000000;
constexpr unsigned kCertRecord = 143;
constexpr std::int64_t kMillisecond = 1000000;

Bytes Text(const std::string& text) {
    return {text.begin(), text.end()};
}

std::string NameOf(const Device& device) {
    std::string name = Format("%s-%c", device.kind->name, device.which);
    if (device.accessory_pid) name += Format(" as accessory %x", device.accessory_pid);
    return name + Format(" on port %u", device.port());
}

bool IsChanging(E_STATE state) {
    return state == AA_CHANGING || state == ML_CHANGING || state == CL_CHANGING;
}

bool IsResetting(E_STATE state) {
    return state >= AA_RESETTING && state <= CL_RESETTING;
}

}  // namespace

Step Script::Next() {
    Step step;
    step.passes = m_lot.Below(4);
    Faults(step);
    if (PollsEnd(step)) return step;
    if (m_model.IsPolling() && m_lot.Percent(40) && TimeMoves(step)) return step;
    const unsigned chance = m_lot.Below(100);
    if (chance < 14 && TimeMoves(step)) return step;
    if (chance < 26 && Tty(step)) return step;
    if (chance < 31 && Search(step)) return step;
    if (chance < 34 && Menu(step)) return step;
    if (chance < 37 && Diagnosis(step)) return step;
    if ((IsAnyPort(CP) || IsAnyPort(CP_CHANGING)) && m_lot.Percent(20)) {
        if (m_lot.Percent(65) && Tty(step)) return step;
        Menu(step);
        return step;
    }
    Noise(step);
    const unsigned first = 1 + m_lot.Below(2);
    // A phone in the first socket of a hub has the number of port 1 for libusb, and may be taken for one
    // there.
    m_both_ports = m_world.IsEmpty(PLACE_12) && m_lot.Percent(50);
    std::vector<Part> parts = {OnPort(first)};
    if (m_both_ports) parts.push_back(OnPort(3 - first));
    for (Part& part : parts)
        Join(step, std::move(part));
    return step;
}

void Script::Join(Step& step, Part part) {
    if (!step.text.empty() && !step.text.ends_with(' ')) step.text += "; ";
    step.text += part.text;
    std::move(part.happening.uevents.begin(), part.happening.uevents.end(),
              std::back_inserter(step.happening.uevents));
    std::move(part.happening.messages.begin(), part.happening.messages.end(),
              std::back_inserter(step.happening.messages));
    for (const auto& effect : part.effects)
        effect();
}

// Things outside that do not work in this step.
void Script::Faults(Step& step) {
    m_world.failing_command.clear();
    m_world.odd_port_status.clear();
    m_world.usb_fails = false;
    if (!m_lot.Percent(8)) return;
    const unsigned fault = m_lot.Below(7);
    static const char* const kCommands[] = {"/port_sel", "/ka_hub_control", "/remove", "/bind", "/testmode"};
    if (fault < 5) m_world.failing_command = kCommands[fault];
    if (fault == 5) m_world.odd_port_status = "5";
    if (fault == 6) m_world.usb_fails = true;
    step.text = fault == 6   ? "(libusb fails) "
                : fault == 5 ? "(odd port status) "
                             : Format("(no %s) ", kCommands[fault]);
}

// Messages that change nothing for a phone, but touch what the frames share.
void Script::Noise(Step& step) {
    if (!m_lot.Percent(40)) return;
    auto& messages = step.happening.messages;
    switch (m_lot.Below(3)) {
        case 0:
            messages.push_back({kFromTestInterface, {0x02, 0x31, 0x02, 8, 0}});
            break;
        case 1:
            messages.push_back({kFromDiagnosis, m_coding.Adaption()});
            break;
        case 2:
            messages.push_back({kFromDiagnosis, m_coding.UsbCoding()});
            break;
    }
}

bool Script::TimeMoves(Step& step) {
    static const std::vector<std::int64_t> kSteps = {1, 100, 900, 1999, 2000, 2999, 3000, 4999, 5000, 20000};
    step.time = m_lot.OneOf(kSteps) * kMillisecond + m_lot.Below(1000000);
    const auto next = m_model.UntilNextTimer();
    if (next && m_lot.Percent(70)) step.time = *next - (m_lot.Percent(30) ? 1 : 0);
    step.time = std::max<std::int64_t>(step.time, 1);
    step.text += Format("%lld.%06lld ms pass", static_cast<long long>(step.time / kMillisecond),
                        static_cast<long long>(step.time % kMillisecond));
    m_model.TimePasses(step.time);
    return true;
}

// After the last poll there is none.
bool Script::PollsEnd(Step& step) {
    if (m_polls_in_vain == m_model.PollsInVain()) return false;
    m_polls_in_vain = m_model.PollsInVain();
    step.time = 6000 * kMillisecond;
    step.text += "6000 ms pass";
    m_model.TimePasses(step.time);
    return true;
}

bool Script::Tty(Step& step) {
    const bool is_starting = IsAnyPort(CP_CHANGING);
    if (!is_starting && !IsAnyPort(CP) && m_lot.Percent(60)) return false;
    const std::string name = Format("ttyGS%u", m_lot.Below(2));
    const auto known = std::find(m_ttys.begin(), m_ttys.end(), name);
    static const char* const kActions[] = {"add", "add", "remove", "change"};
    const std::string action = kActions[m_lot.Below(is_starting ? 3 : 4)];
    step.text += "tty " + action + " " + name;
    step.happening.uevents = {m_world.Tty(action.c_str(), name)};
    if (action == "remove") {
        if (known == m_ttys.end()) return true;
        m_ttys.erase(known);
        m_model.TtyRemove();
    } else if (action == "change" && known != m_ttys.end()) {
        m_model.TtyChange();
    } else {
        if (known == m_ttys.end()) m_ttys.push_back(name);
        m_model.TtyAdd();
    }
    return true;
}

bool Script::Search(Step& step) {
    if (m_lot.Percent(50)) {
        step.text += "search of SDCM";
        step.happening.messages = {{kFromService, Hex("00*4 12 00*7")}};
        m_model.SearchFromSdcm();
    } else {
        step.text += "search of media";
        step.happening.messages = {{kFromMedia, Hex("00*4 08 00*15")}};
        m_model.SearchFromMedia();
    }
    return true;
}

bool Script::Menu(Step& step) {
    std::uint32_t* const values[] = {&m_switches.signal_test[0], &m_switches.signal_test[1],
                                     &m_switches.device_mode[0], &m_switches.device_mode[1]};
    for (unsigned changes = 1 + m_lot.Below(3); changes > 0; --changes)
        *values[m_lot.Below(4)] = m_lot.Percent(10) ? 2 : m_lot.Below(2);
    for (const unsigned unit : {0u, 1u})
        if (m_model.StateOf(unit + 1) == CP && m_lot.Percent(60)) m_switches.device_mode[unit] ^= 1;
    step.text += Format("engineering menu %u %u %u %u", *values[0], *values[1], *values[2], *values[3]);
    SetRecord(kCertRecord, m_switches.Record());
    step.happening.messages = {{kFromSettings, Text("shm_usb_cert")}};
    m_model.Switch(m_switches);
    return true;
}

// Ports that are not active, and codings that forbid to speak of devices, do not last.
bool Script::Diagnosis(Step& step) {
    const bool is_odd = m_coding.usb < 2 || m_coding.inactive[0] || m_coding.inactive[1];
    m_coding = {};
    if (!is_odd && m_lot.Percent(50)) m_coding.inactive[m_lot.Below(2)] = true;
    if (!is_odd && m_lot.Percent(50)) m_coding.usb = m_lot.Below(4);
    step.text += Format("diagnosis: coding %u, inactive %d %d", m_coding.usb, m_coding.inactive[0],
                        m_coding.inactive[1]);
    step.happening.messages = {{kFromDiagnosis, m_coding.Adaption()}, {kFromDiagnosis, m_coding.UsbCoding()}};
    m_model.Configure(m_coding);
    return true;
}

bool Script::IsAnyPort(E_STATE state) const {
    return m_model.StateOf(1) == state || m_model.StateOf(2) == state;
}

// --- one port of the unit ---

Script::Part Script::OnPort(unsigned unit_port) {
    if (unit_port == 2 && m_world.IsEmpty(PLACE_2) && m_world.IsEmpty(PLACE_12) &&
        m_world.IsEmpty(PLACE_32) && m_lot.Percent(m_world.HasHub() ? 8 : 15))
        return Hub();
    const E_PLACE place = PlaceOn(unit_port);
    return m_world.IsEmpty(place) ? OnEmptyPlace(place) : OnDevice(place);
}

E_PLACE Script::PlaceOn(unsigned unit_port) {
    if (unit_port == 1) return PLACE_1;
    if (!m_world.HasHub()) return PLACE_2;
    return m_both_ports || m_lot.Percent(75) ? PLACE_32 : PLACE_12;
}

Script::Part Script::Hub() {
    Part part;
    part.text = m_world.HasHub() ? "the hub is pulled" : "a hub is plugged into port 2";
    part.happening.uevents = m_world.HasHub() ? m_world.PullHub() : m_world.PlugHub();
    return part;
}

Script::Part Script::OnEmptyPlace(E_PLACE place) {
    Part part;
    const bool known = m_last.contains(place);
    if (known && m_lot.Percent(12)) {
        Ask(part, place);
        return part;
    }
    const E_STATE state = m_model.StateOf(kPlace[place].port);
    const bool comes_back = known && m_lot.Percent(IsChanging(state) || IsResetting(state) ? 88 : 25);
    Plug(part, comes_back ? Returned(place) : NewDevice(place));
    return part;
}

Device Script::NewDevice(E_PLACE place) {
    Device device{};
    device.place = place;
    device.kind = &kKinds[m_lot.Below(static_cast<unsigned>(kKinds.size()))];
    if (m_lot.Percent(30)) device.kind = &kKinds[m_lot.OneOf<unsigned>({0, 4, 6, 6})];
    device.which = m_lot.Percent(70) ? 'a' : 'b';
    if (device.IsAndroid() && m_lot.Percent(8)) device.accessory_pid = 0x2d00;
    device.stubborn = m_lot.Percent(22);
    device.answers = DrawAnswers();
    return device;
}

// The phone that was there last, as a phone comes back in this state of its port.
Device Script::Returned(E_PLACE place) {
    Device device = m_last.at(place);
    const E_STATE state = m_model.StateOf(device.port());
    const bool is_told = device.stubborn ? m_lot.Percent(2) : m_lot.Percent(80);
    if (is_told && device.IsAndroid()) {
        if (state == AA_CHANGING || state == CL_CHANGING)
            device.accessory_pid = m_lot.OneOf<unsigned>({0x2d00, 0x2d01, 0x2d04, 0x2d05});
        else if (state != ML_CHANGING)
            device.accessory_pid = 0;
    }
    if (m_lot.Percent(5)) device.answers = DrawAnswers();
    return device;
}

Answers Script::DrawAnswers() {
    Answers answers;
    answers.cp_capability = m_lot.OneOf<unsigned>({0, 1, 1, 1, 2, 2, 0x01000001});
    if (m_lot.Percent(15)) answers.mirrorlink = m_lot.OneOf<int>({-9, -7, 1});
    if (m_lot.Percent(15)) answers.mirrorlink_again = m_lot.OneOf<int>({-9, -7, 1});
    if (m_lot.Percent(75)) return answers;
    switch (m_lot.Below(8)) {
        case 0:
            answers.opens = false;
            break;
        case 1:
            answers.protocol = static_cast<int>(m_lot.Below(3));
            break;
        case 2:
            answers.protocol_bytes = 1;
            break;
        case 3:
            answers.protocol_bytes = -9;
            break;
        case 4:
            answers.failing_string = static_cast<int>(m_lot.Below(6));
            break;
        case 5:
            answers.start = -9;
            break;
        case 6:
            answers.cp_bytes = -7;
            break;
        case 7:
            answers.reset = m_lot.OneOf<int>({-5, -4, -1});
            break;
    }
    return answers;
}

void Script::Plug(Part& part, const Device& device) {
    part.text += NameOf(device) + " is plugged in";
    for (std::string& event : m_world.Plug(device))
        part.happening.uevents.push_back(std::move(event));
    part.effects.push_back([this, device] { m_model.Add(device); });
}

void Script::Pull(Part& part, E_PLACE place) {
    const Device device = *m_world.At(place);
    part.text += NameOf(device) + " is pulled";
    for (std::string& event : m_world.Pull(place))
        part.happening.uevents.push_back(std::move(event));
    part.effects.push_back([this, device] { m_model.Remove(device); });
    Device last = device;
    last.functions.clear();
    m_last.insert_or_assign(place, last);
}

Script::E_DEED Script::Deed(E_PLACE place) {
    if (m_lot.Percent(12)) return static_cast<E_DEED>(m_lot.Below(kDeeds));
    const Device& device = *m_world.At(place);
    const E_STATE state = m_model.StateOf(device.port());
    const unsigned chance = m_lot.Below(100);
    if (IsChanging(state) || IsResetting(state))
        return chance < 55 ? REPLUG : chance < 75 ? PULL : chance < 88 ? ASK : REBIND;
    if (state == DETACH) return chance < 40 ? PULL : chance < 75 ? REBIND : ASK;
    if (state == ATTACH && device.IsApple())
        return chance < 45 ? HID : chance < 75 ? ASK : chance < 90 ? ANSWERS : PULL;
    return chance < 65 ? ASK : chance < 75 ? ANSWERS : chance < 92 ? PULL : chance < 96 ? NET : REPLUG;
}

Script::Part Script::OnDevice(E_PLACE place) {
    Part part;
    Device& device = *m_world.At(place);
    switch (Deed(place)) {
        case PULL:
            Pull(part, place);
            return part;
        case REPLUG:
            Pull(part, place);
            part.text += ", ";
            Plug(part, Returned(place));
            return part;
        case REBIND:
            part.text = NameOf(device) + " is bound again";
            part.happening.uevents = m_world.Rebind(place);
            part.effects.push_back([this, device] { m_model.Add(device); });
            return part;
        case HID:
            part.text = NameOf(device) + " has a hid node";
            part.happening.uevents = m_world.AddHid(place);
            part.effects.push_back([this, device] { m_model.HidAdd(UnitPort(device.port())); });
            return part;
        case NET:
            if (m_world.HasFunction(place, "/net/")) break;
            part.text = NameOf(device) + " has a network node";
            part.happening.uevents = m_world.AddNet(place);
            return part;
        case ANSWERS:
            part.text = NameOf(device) + " answers otherwise";
            device.answers = DrawAnswers();
            return part;
        case ASK:
        case kDeeds:
            break;
    }
    Ask(part, place);
    return part;
}

unsigned Script::RequestFor(const Device& device, E_STATE state) {
    if (m_lot.Percent(25)) return 12 + m_lot.Below(6);
    if (state == CP_SUPPORT) return m_lot.Percent(80) ? 14 : 16;
    if (state == ATTACH)
        return device.IsApple() ? m_lot.OneOf<unsigned>({14, 16}) : m_lot.OneOf<unsigned>({12, 13, 15});
    return 17;
}

void Script::Ask(Part& part, E_PLACE place) {
    const Device* const there = m_world.At(place);
    const Device& device = there ? *there : m_last.at(place);
    Request request;
    request.id = RequestFor(device, m_model.StateOf(device.port()));
    request.port = m_lot.Percent(90) ? device.port() : m_lot.Below(4);
    request.vid = device.vid();
    request.pid = m_lot.Percent(93) ? device.pid() : device.pid() + 1;
    request.serial = m_lot.Percent(95) ? device.serial() : "another";
    request.path = device.path();
    request.devid = Format("dev%u", ++m_requests);
    if (m_lot.Percent(6))
        request.path = m_lot.OneOf<std::string>(
            {"", kHub + "/1-1.4", "/devices/elsewhere/1-1.1", request.path + "/" + "1-1.4:1.0", kHub});
    // What belongs to the other port of the unit is asked for when nothing else happens there.
    const unsigned asked = UnitPort(PortOfPath(request.path));
    if (asked != 0 && asked != UnitPort(device.port())) request.path = device.path();
    part.text += Format("request %u for %s, %04x:%04x, path '%s'", request.id, NameOf(device).c_str(),
                        request.vid, request.pid, request.path.substr(request.path.rfind('/') + 1).c_str());
    part.happening.messages.push_back({kFromService, request.Record()});
    part.effects.push_back([this, request] { m_model.Ask(request); });
}

}  // namespace test
