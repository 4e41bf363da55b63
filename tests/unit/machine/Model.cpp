#include "Model.h"

#include <algorithm>
#include <cstdlib>

#include "support/Format.h"

namespace test {
namespace {

constexpr std::int64_t kMillisecond = 1000000;

// A record that is filled at offsets.
class Layout {
public:
    explicit Layout(std::size_t size) : m_bytes(size) {}

    Layout& U8(std::size_t at, unsigned value) { return Put(at, value, 1); }
    Layout& U16(std::size_t at, unsigned value) { return Put(at, value, 2); }
    Layout& U32(std::size_t at, unsigned value) { return Put(at, value, 4); }
    // In a field of so many bytes, the last of which stays zero.
    Layout& Text(std::size_t at, std::size_t size, const std::string& text) {
        std::copy_n(text.begin(), std::min(text.size(), size - 1), m_bytes.begin() + at);
        return *this;
    }
    Bytes Take() { return std::move(m_bytes); }

private:
    Layout& Put(std::size_t at, unsigned value, std::size_t size) {
        for (std::size_t byte = 0; byte < size; ++byte)
            m_bytes.at(at + byte) = static_cast<std::uint8_t>(value >> (8 * byte));
        return *this;
    }
    Bytes m_bytes;
};

// Where a phone is for libusb.
unsigned PhonePort(unsigned port) {
    return port > 9 ? port / 10 : port;
}

bool IsOneOf(E_STATE state, std::initializer_list<E_STATE> states) {
    return std::find(states.begin(), states.end(), state) != states.end();
}

unsigned NumberAt(const std::string& text, std::size_t at) {
    return static_cast<unsigned>(std::strtoul(text.c_str() + at, nullptr, 10));
}

}  // namespace

const char* const kStateNames[kStates] = {"DETACH",       "ATTACH",       "CP_SUPPORT",   "AA_CHANGING",
                                          "ML_CHANGING",  "CP_CHANGING",  "CL_CHANGING",  "RESETTING",
                                          "AA",           "ML",           "CP",           "CL",
                                          "AA_RESETTING", "ML_RESETTING", "CP_RESETTING", "CL_RESETTING"};

unsigned PortOfPath(const std::string& path) {
    if (path.find("/usb1/") == std::string::npos) return 0;
    const std::string last = path.substr(path.rfind('/') + 1);
    if (const std::size_t key = last.find("1-1."); key != std::string::npos) {
        const std::size_t dot = last.find('.', key + 4);
        return NumberAt(last, key + 4) + (dot == std::string::npos ? 0 : 10 * NumberAt(last, dot + 1));
    }
    if (const std::size_t key = path.find("1-1."); key != std::string::npos) return NumberAt(path, key + 4);
    return path.find("1-1") == std::string::npos ? 0 : 1;
}

Bytes Request::Record() const {
    return Layout(244)
        .U32(4, id)
        .U8(8, port)
        .U16(10, vid)
        .U16(12, pid)
        .Text(14, 64, serial)
        .Text(78, 128, path)
        .Text(206, 32, devid)
        .Take();
}

Bytes Switches::Record() const {
    return Layout(16)
        .U32(0, signal_test[0])
        .U32(4, signal_test[1])
        .U32(8, device_mode[0])
        .U32(12, device_mode[1])
        .Take();
}

Model::Node::Node(const Device& device)
    : port(device.port()),
      dev_type(device.dev_type()),
      vid(device.vid()),
      pid(device.pid()),
      usb_class(device.usb_class()),
      speed(device.kind->speed_code),
      serial(device.serial()),
      product(device.kind->product),
      manufacturer(device.kind->manufacturer),
      path(device.path()) {}

bool Model::Node::IsAccessory() const {
    return vid == 0x18d1 && (pid == 0x2d00 || pid == 0x2d01 || pid == 0x2d04 || pid == 0x2d05);
}

Bytes Coding::Adaption() const {
    Bytes request = Hex("83 60 22 09 81 80 80 80 80");
    for (const unsigned unit : {0u, 1u})
        if (inactive[unit]) request[5 + unit] = 0;
    return request;
}

Bytes Coding::UsbCoding() const {
    Bytes request = Hex("83 60 22 05 57 00 00");
    request[6] = static_cast<std::uint8_t>(usb << 6);
    return request;
}

// --- ports ---

Model::Port& Model::PortOf(unsigned number) {
    Port& port = m_ports[number];
    port.number = number;
    return port;
}

Model::Port* Model::Existing(unsigned number) {
    const auto found = m_ports.find(number);
    return found == m_ports.end() ? nullptr : &found->second;
}

std::vector<unsigned> Model::Ports() const {
    std::vector<unsigned> ports;
    for (const auto& [number, port] : m_ports)
        ports.push_back(number);
    return ports;
}

E_STATE Model::StateOf(unsigned port) const {
    const auto found = m_ports.find(port);
    return found == m_ports.end() ? DETACH : found->second.state;
}

void Model::Meet(const Port& port, const std::string& event) {
    m_met.insert({port.state, event});
}

// --- devices that come and go ---

void Model::Add(const Device& device) {
    if (IsInactive(device.port())) return;
    if (device.dev_type() == 1) return RemoveDevice(device.port());
    AddTo(PortOf(device.port()), Node(device));
}

void Model::AddTo(Port& port, const Node& node) {
    Meet(port, Format("add %u", node.IsAccessory() ? 0 : node.dev_type));
    switch (port.state) {
        case DETACH:
            port.stored = node;
            CheckCapability(port);
            Event(1, port, node);
            if (node.dev_type == 9) Media(2, port);
            port.state = AttachTarget(port);
            return;
        case AA_CHANGING:
            ArmCutting(false, node);
            return ReturnOfSwitched(port, node, false);
        case ML_CHANGING:
            ArmCutting(false, node);
            AnswerFor(6, 0, port, node);
            port.state = ML;
            return;
        case CL_CHANGING:
            if (port.IsApple()) {
                ArmCutting(false, node);
                AnswerFor(9, 0, port, node);
                port.state = CL;
            } else if (port.IsAndroid()) {
                ArmCutting(false, node);
                ReturnOfSwitched(port, node, true);
            }
            return;
        case CP:
            port.state = AppleTarget(port);
            return;
        case AA_RESETTING:
            return ReturnOfReset(port, node);
        case ML_RESETTING:
            ArmCutting(false, node);
            if (node.serial != port.stored.serial) return AnotherDevice(port, node);
            port.stored = node;
            Event(1, port, node);
            port.state = ATTACH;
            return;
        case CP_RESETTING:
            Arm(42, port.number);
            Event(1, port, node);
            port.state = AppleTarget(port);
            return;
        case CL_RESETTING:
            if (port.IsAndroid()) return ReturnOfReset(port, node);
            if (!port.IsApple()) return;
            Arm(40, port.number);
            Event(1, port, node);
            port.state = AppleTarget(port);
            return;
        default:
            return;
    }
}

void Model::ReturnOfSwitched(Port& port, const Node& node, bool carlife) {
    const unsigned id = carlife ? 8 : 5;
    if (node.IsAccessory()) {
        AnswerFor(id, 0, port, node);
        port.aoap_retry = 0;
        port.state = carlife ? CL : AA;
        return;
    }
    const bool last_tries = port.aoap_retry > 4;
    ++port.aoap_retry;
    const int result = StartAccessory(node.vid, node.pid, PhonePort(port.number), carlife);
    if (last_tries && result == 0) Meet(port, "a late start worked");
    if (!last_tries || result == 0) return Arm(39, port.number);
    Meet(port, "the last start failed");
    AnswerFor(id, 1, port, port.stored);
    port.state = ATTACH;
}

void Model::ReturnOfReset(Port& port, const Node& node) {
    ArmCutting(false, node);
    if (node.serial != port.stored.serial) return AnotherDevice(port, node);
    if (node.IsAccessory() && port.reset_retry > 9) Meet(port, "ten resets were in vain");
    if (!node.IsAccessory() || port.reset_retry > 9) return Accept(port, node);
    ++port.reset_retry;
    ResetPort(node.vid, node.pid, UnitPort(port.number));
}

void Model::Accept(Port& port, const Node& node) {
    port.stored = node;
    Event(1, port, node);
    port.reset_retry = 0;
    port.state = ATTACH;
}

void Model::AnotherDevice(Port& port, const Node& node) {
    Meet(port, "another device");
    Event(2, port, port.stored);
    port.state = DETACH;
    port.stored = node;
    CheckCapability(port);
    Event(1, port, node);
    port.state = AttachTarget(port);
}

void Model::Remove(const Device& device) {
    if (device.dev_type() == 1 || IsInactive(device.port())) return;
    RemoveFrom(PortOf(device.port()), Node(device));
}

void Model::RemoveFrom(Port& port, const Node& node) {
    Meet(port, "remove");
    switch (port.state) {
        case ATTACH:
            Arm(44, port.number);
            Event(2, port, node);
            if (port.stored.dev_type == 9) Media(5, port);
            port.state = DETACH;
            return;
        case CP_SUPPORT:
        case AA:
        case ML:
            Event(2, port, node);
            port.state = DETACH;
            return;
        case CL_CHANGING:
            if (!port.IsApple() && !port.IsAndroid()) return;
            [[fallthrough]];
        case AA_CHANGING:
        case ML_CHANGING:
            Arm(40, port.number);
            ArmCutting(true, node);
            return;
        case CP_CHANGING:
            if (port.tty) return;
            Event(2, port, port.stored);
            port.state = DETACH;
            return;
        case CL:
            if (!port.IsAndroid()) return;
            Event(2, port, node);
            port.state = DETACH;
            return;
        case AA_RESETTING:
        case ML_RESETTING:
        case CL_RESETTING:
            ArmCutting(true, node);
            return;
        default:
            return;
    }
}

void Model::Deferred(Port& port, const Node& node) {
    const bool gone = PortStatus(UnitPort(port.number)) == 2;
    Meet(port, gone ? "deferred, nothing there" : "deferred, something there");
    if (IsOneOf(port.state, {ATTACH, AA_CHANGING, ML_CHANGING, CL_CHANGING, AA, ML, CL})) {
        if (!gone) return;
        Event(2, port, node);
        port.state = DETACH;
    } else if (IsOneOf(port.state, {AA_RESETTING, ML_RESETTING, CL_RESETTING})) {
        Event(gone ? 2 : 1, port, gone ? node : port.stored);
        port.state = gone ? DETACH : ATTACH;
    }
}

void Model::HidAdd(unsigned number) {
    if (IsInactive(number)) return;
    Port& port = PortOf(number);
    Meet(port, "hid add");
    if (!port.IsApple() || port.state != ATTACH) return;
    CheckCapability(port);
    if (port.cp == 1) {
        Event(1, port, port.stored);
        Arm(44, port.number);
        port.state = CP_SUPPORT;
    } else {
        Arm(43, port.number);
    }
}

void Model::TtyAdd() {
    Port* port = Existing(m_carplay_port);
    if (!port) return;
    Meet(*port, "tty add");
    if (port->state == CP_CHANGING) port->state = CP;
    port->tty = true;
}

void Model::TtyRemove() {
    Port* port = Existing(m_carplay_port);
    if (!port) return;
    Meet(*port, "tty remove");
    port->tty = false;
}

void Model::TtyChange() {
    Port* port = Existing(m_carplay_port);
    if (!port) return;
    Meet(*port, "tty change");
    if (!IsOneOf(port->state, {CP_CHANGING, CP, CP_RESETTING})) return;
    ResetPort(port->stored.vid, port->stored.pid, UnitPort(port->number));
    Event(2, *port, port->stored);
    port->state = DETACH;
}

// --- requests ---

void Model::Ask(Request request) {
    request.port = PortOfPath(request.path);
    Port* port = Existing(request.port);
    if (!port) return;
    Meet(*port, Format("request %u", request.id));
    switch (request.id) {
        case 12:
            return Accessory(*port, request, false);
        case 13:
            return MirrorLink(*port, request);
        case 14:
            return CarPlay(*port, request);
        case 15:
            return Accessory(*port, request, true);
        case 16:
            return CarLifeOfApple(*port, request);
        case 17:
            return Reset(*port, request);
    }
}

const Device* Model::NodeFor(const Request& request, unsigned port, std::vector<unsigned> types) const {
    for (const unsigned type : types)
        for (const auto& device : m_world.devices())
            if (UnitPort(device->port()) == UnitPort(port) && device->dev_type() == type) {
                const bool same = device->vid() == request.vid && device->pid() == request.pid;
                return same ? device.get() : nullptr;
            }
    return nullptr;
}

void Model::Accessory(Port& port, const Request& request, bool carlife) {
    const unsigned id = carlife ? 8 : 5;
    if (port.state == (carlife ? CL : AA)) return Answer(id, 0, request);
    if (port.state != ATTACH || !NodeFor(request, port.number, {9, 10})) return Answer(id, 1, request);
    if (StartAccessory(request.vid, request.pid, PhonePort(port.number), carlife) != 0)
        return Answer(id, 1, request);
    Arm(39, request.port);
    port.devid = request.devid;
    port.state = carlife ? CL_CHANGING : AA_CHANGING;
}

void Model::MirrorLink(Port& port, const Request& request) {
    if (port.state != ATTACH || !NodeFor(request, port.number, {9, 10, 5})) return Answer(6, 1, request);
    // A network node behind a further hub has the number of the unit's port, and is not found for the phone.
    if (port.number < 10 && m_world.HasNet(port.number)) {
        Answer(6, 0, request);
        port.state = ML;
        return;
    }
    const unsigned libusb_port = PhonePort(port.number);
    int result = StartMirrorLink(request.vid, request.pid, libusb_port, false);
    if (request.vid == 0x0525 && request.pid == 0xa4a0)
        result = StartMirrorLink(request.vid, request.pid, libusb_port, true);
    if (result == 0) {
        Arm(39, request.port);
        port.devid = request.devid;
        port.state = ML_CHANGING;
    } else if (result == 1) {
        Answer(6, 0, request);
        port.state = ML;
    } else {
        Answer(6, 1, request);
    }
}

void Model::CarPlay(Port& port, const Request& request) {
    if (port.state != CP_SUPPORT || !NodeFor(request, port.number, {6})) return Answer(7, 1, request);
    port.devid = request.devid;
    port.state = CP_CHANGING;
    Answer(7, 0, request);
    m_carplay_port = UnitPort(request.port);
}

void Model::CarLifeOfApple(Port& port, const Request& request) {
    if (!IsOneOf(port.state, {ATTACH, CP_SUPPORT}) || !NodeFor(request, port.number, {6}))
        return Answer(9, 1, request);
    port.devid = request.devid;
    Answer(9, 0, request);
    port.state = CL;  // a second after CL_CHANGING, in which nobody else is heard
}

void Model::Reset(Port& port, const Request& request) {
    const unsigned unit_port = UnitPort(port.number);
    const auto finish = [&](int result, E_STATE next) {
        Answer(10, result == 0 ? 0 : 1, request);
        if (result == 0) port.state = next;
    };
    const auto remove = [&](std::vector<unsigned> types) {
        const Device* device = NodeFor(request, port.number, types);
        if (device) RemoveDevice(device->port());
        return device != nullptr;
    };
    const bool apple_carlife = IsOneOf(port.state, {CL, CL_CHANGING}) && port.IsApple();
    if (IsOneOf(port.state, {CP_CHANGING, CP})) {
        const int result = ResetPort(request.vid, request.pid, unit_port);
        if (result == 0) Arm(41, port.number);
        return finish(result, CP_RESETTING);
    }
    if (apple_carlife) {
        const int result = ResetPort(request.vid, request.pid, unit_port);
        if (result == 0) Arm(39, port.number);
        return finish(result, CL_RESETTING);
    }
    if (port.state == AA && remove({9, 10}))
        return finish(ResetPort(request.vid, request.pid, unit_port), AA_RESETTING);
    if (port.state == CL && port.IsAndroid() && remove({9, 10}))
        return finish(ResetPort(request.vid, request.pid, unit_port), CL_RESETTING);
    if (port.state == ML && remove({9, 10, 5})) return finish(ResetMirrorLinkPort(unit_port), ML_RESETTING);
    Answer(10, 1, request);
}

void Model::SearchFromSdcm() {
    for (const unsigned number : {1u, 2u})
        Search(number, false);
}

void Model::SearchFromMedia() {
    for (const unsigned number : {1u, 2u})
        Search(number, true);
}

void Model::Search(unsigned number, bool from_media) {
    Port* port = Existing(number);
    if (!port) return;
    Meet(*port, from_media ? "search of media" : "search of SDCM");
    if (!IsOneOf(port->state, {ATTACH, CP_SUPPORT})) return;
    if (!from_media)
        Event(1, *port, port->stored);
    else if (port->IsApple() || port->stored.dev_type == 10)
        Media(2, *port);
}

void Model::Switch(const Switches& now) {
    const Switches before = m_switches;
    m_switches = now;
    for (const unsigned unit : {0u, 1u}) {
        const std::uint32_t from = before.signal_test[unit];
        const std::uint32_t to = now.signal_test[unit];
        if (from + to != 1 || from > 1) continue;
        Meet(PortOf(unit + 1), "signal test");
        TestMode(unit + 1, to == 1);
    }
    for (const unsigned unit : {0u, 1u}) {
        const std::uint32_t from = before.device_mode[unit];
        const std::uint32_t to = now.device_mode[unit];
        if (from + to != 1 || from > 1) continue;
        const Port& port = PortOf(unit + 1);
        Meet(port, "hub mode");
        if (port.state == CP) Control(to == 1 ? 2 : 1, unit + 1);
    }
}

// --- timers ---

std::int64_t Model::LimitOf(E_KIND kind) {
    switch (kind) {
        case CUTTING:
            return 3000;
        case CH_TIMEOUT:
            return 20000;
        case CARPLAY_TIMEOUT:
            return 2000;
        case CARPLAY_CAPA:
            break;
    }
    return 5000;
}

void Model::TimePasses(std::int64_t nanoseconds) {
    m_now += nanoseconds;
    std::vector<Item> fired;
    std::vector<Item> kept;
    for (Item& item : m_items) {
        const std::int64_t waited = (m_now - item.since) / kMillisecond;
        const bool fires = waited >= LimitOf(item.kind);
        if (fires) fired.push_back(item);
        if (fires && item.kind == CARPLAY_CAPA) {
            ++item.polls;
            item.since = m_now;
        }
        if (!fires || (item.kind == CARPLAY_CAPA && item.polls < 5)) kept.push_back(item);
    }
    m_items = kept;
    for (const Item& item : fired) {
        if (IsInactive(item.port)) continue;
        Port& port = PortOf(item.port);
        if (item.kind == CUTTING) Deferred(port, item.node);
        if (item.kind == CH_TIMEOUT) ChTimeout(port);
        if (item.kind == CARPLAY_TIMEOUT) CarplayTimeout(port);
        if (item.kind != CARPLAY_CAPA) continue;
        Poll(port);
        if (item.polls < 4 || port.state != ATTACH) continue;
        Meet(port, "five polls in vain");
        ++m_polls_in_vain;
    }
}

void Model::ChTimeout(Port& port) {
    if (!IsOneOf(port.state, {AA_CHANGING, ML_CHANGING, CL_CHANGING})) return Meet(port, "CH timeout");
    const bool gone = PortStatus(UnitPort(port.number)) == 2;
    Meet(port, gone ? "CH timeout, nothing there" : "CH timeout, something there");
    if (gone) {
        Event(2, port, port.stored);
        port.state = DETACH;
        return;
    }
    AnswerFor(port.state == AA_CHANGING ? 5 : port.state == CL_CHANGING ? 8 : 6, 1, port, port.stored);
    port.state = ATTACH;
}

void Model::CarplayTimeout(Port& port) {
    if (port.state != CP_RESETTING) return Meet(port, "CarPlay timeout");
    const bool gone = PortStatus(UnitPort(port.number)) == 2;
    Meet(port, gone ? "CarPlay timeout, nothing there" : "CarPlay timeout, something there");
    if (!gone) return;
    Event(2, port, port.stored);
    port.state = DETACH;
}

void Model::Poll(Port& port) {
    Meet(port, "poll");
    if (!port.IsApple() || port.state != ATTACH) return;
    CheckCapability(port);
    if (port.cp != 1) return;
    Event(1, port, port.stored);
    Arm(44, port.number);
    port.state = CP_SUPPORT;
}

// --- capabilities ---

void Model::CheckCapability(Port& port) {
    const unsigned libusb_port = PhonePort(port.number);
    const Node& node = port.stored;
    if (port.state != DETACH && !(port.state == ATTACH && port.IsApple())) return;
    if (node.dev_type == 5) {
        port.aa = 2, port.ml = 1, port.cp = 2, port.cl = 2;
    } else if (port.IsApple()) {
        port.aa = 2, port.ml = 2, port.cl = 2;
        port.cp = AskCarPlay(node.vid, node.pid, libusb_port);
    } else if (port.IsAndroid()) {
        port.ml = 1, port.cp = 2, port.cl = 2;
        port.aa = node.IsAccessory() ? 3 : AskProtocol(node.vid, node.pid, libusb_port);
    }
}

E_STATE Model::AttachTarget(const Port& port) {
    if (port.aa == 3) return AA;
    if (port.cl == 3) return CL;
    return AppleTarget(port);
}

E_STATE Model::AppleTarget(const Port& port) {
    return port.cp == 1 ? CP_SUPPORT : ATTACH;
}

// --- the device accessor ---

const Device* Model::Open(unsigned vid, unsigned pid, unsigned libusb_port) const {
    if (m_world.usb_fails) return nullptr;
    for (const auto& device : m_world.devices())
        if (device->vid() == vid && device->pid() == pid && kPlace[device->place].libusb_port == libusb_port)
            return device->answers.opens ? device.get() : nullptr;
    return nullptr;
}

void Model::Transfer(const Device& device, const std::string& text) {
    m_said[{TO_DEVICE, UnitPort(device.port())}].push_back({text, {}});
}

unsigned Model::AskProtocol(unsigned vid, unsigned pid, unsigned libusb_port) {
    const Device* device = Open(vid, pid, libusb_port);
    if (!device) return 0;
    Transfer(*device, "51");
    return device->answers.protocol_bytes == 2 ? 1 : 2;
}

int Model::StartAccessory(unsigned vid, unsigned pid, unsigned libusb_port, bool carlife) {
    static const char* const kTexts[2][4] = {
        {"Android", "Android Open Automotive Protocol", "Android Open Automotive Protocol", "1.0"},
        {"Baidu", "CarLife", "Baidu CarLife", "1.0.0"}};
    const Device* device = Open(vid, pid, libusb_port);
    if (!device) return -1;
    Transfer(*device, "51");
    if (device->answers.protocol_bytes != 2 || device->answers.protocol < 1) return -1;
    for (int index = 0; index < 6; ++index) {
        std::string text = "52/" + std::to_string(index);
        if (index < 4) text += std::string(" ") + kTexts[carlife][index];
        if (index == 5) text += carlife ? " 0720000012345678" : " 0000000012345678";
        Transfer(*device, text);
        if (index == device->answers.failing_string) return -1;
    }
    Transfer(*device, "53");
    return device->answers.start == 0 ? 0 : -1;
}

unsigned Model::AskCarPlay(unsigned vid, unsigned pid, unsigned libusb_port) {
    const Device* device = Open(vid, pid, libusb_port);
    if (!device) return 0;
    Transfer(*device, "83");
    if (device->answers.cp_bytes < 0) return 0;
    return device->answers.cp_capability == 1 ? 1 : 2;
}

int Model::StartMirrorLink(unsigned vid, unsigned pid, unsigned libusb_port, bool again) {
    const Device* device = Open(vid, pid, libusb_port);
    if (!device) return -1;
    Transfer(*device, "240");
    return again ? device->answers.mirrorlink_again : device->answers.mirrorlink;
}

int Model::ResetPort(unsigned vid, unsigned pid, unsigned unit_port) {
    if (m_world.two_port_hub) return SwitchOffAndOn(unit_port);
    const Device* device = Open(vid, pid, unit_port);
    if (!device) return -1;
    m_said[{TO_DEVICE, 0}].push_back({"reset", {}});
    return device->answers.reset == -5 ? 0 : device->answers.reset;
}

int Model::ResetMirrorLinkPort(unsigned unit_port) {
    if (m_world.two_port_hub) return SwitchOffAndOn(unit_port);
    Run(unit_port, Format("echo 1-1.%u > /sys/bus/usb/drivers/usb/unbind", unit_port));
    return Run(unit_port, Format("echo 1-1.%u > /sys/bus/usb/drivers/usb/bind", unit_port)) ? 0 : -1;
}

int Model::SwitchOffAndOn(unsigned unit_port) {
    Control(3, unit_port);
    return Control(4, unit_port);
}

bool Model::Run(unsigned unit_port, const std::string& command) {
    m_said[{TO_PORT_CONTROL, unit_port}].push_back({command, {}});
    return m_world.failing_command.empty() || command.find(m_world.failing_command) == std::string::npos;
}

int Model::Control(unsigned mode, unsigned unit_port) {
    if (!Run(unit_port, Format("echo %u > /sys%s/port_sel", unit_port, kHost.c_str()))) return -1;
    return Run(unit_port, Format("echo %u > /sys%s/ka_hub_control", mode, kHost.c_str())) ? 0 : -1;
}

void Model::TestMode(unsigned unit_port, bool on) {
    if (!Run(unit_port, Format("echo %u > /sys%s/port_sel", unit_port, kHost.c_str()))) return;
    Run(unit_port, Format("echo %u > /sys%s/testmode", on ? 4u : 0u, kHost.c_str()));
}

int Model::PortStatus(unsigned unit_port) {
    if (!Run(unit_port, Format("echo %u > /sys%s/port_sel", unit_port, kHost.c_str()))) return 0;
    if (!m_world.odd_port_status.empty()) return 0;
    return m_world.IsConnected(unit_port) ? 1 : 2;
}

void Model::RemoveDevice(unsigned port) {
    const unsigned unit_port = UnitPort(port);
    std::string path = Format("%s/usb1/1-1/1-1.%u", kHost.c_str(), unit_port);
    if (port > 9) path += Format("/1-1.%u.%u", unit_port, port / 10);
    Run(unit_port, "echo 1 > /sys" + path + "/remove");
}

// --- reports ---

bool Model::IsInactive(unsigned port) const {
    const unsigned unit_port = UnitPort(port);
    return (unit_port == 1 || unit_port == 2) && m_coding.inactive[unit_port - 1];
}

void Model::Say(E_RECEIVER receiver, unsigned port, Bytes record) {
    if (IsInactive(port)) return;
    // SDCM hears with any coding but 0, media from 2 on; the monitor frame always.
    if (receiver == TO_SDCM && m_coding.usb == 0) return;
    if (receiver == TO_MEDIA && m_coding.usb < 2) return;
    std::string words = InWords(receiver, record);
    m_said[{receiver, UnitPort(port)}].push_back({std::move(words), std::move(record)});
}

void Model::Event(unsigned id, const Port& port, const Node& node) {
    Say(TO_SDCM, node.port,
        Layout(364)
            .U32(4, id)
            .U32(8, node.port)
            .U32(12, node.dev_type)
            .U16(16, node.vid)
            .U16(18, node.pid)
            .U8(20, node.usb_class)
            .U32(24, node.speed)
            .U32(28, port.aa)
            .U32(32, port.ml)
            .U32(36, port.cp)
            .U32(40, port.cl)
            .Text(44, 64, node.serial)
            .Text(108, 64, node.product)
            .Text(172, 64, node.manufacturer)
            .Text(236, 128, node.path)
            .Take());
}

void Model::Answer(unsigned id, unsigned result, const Request& request) {
    Bytes record = request.Record();
    record[4] = static_cast<std::uint8_t>(id);
    record[240] = static_cast<std::uint8_t>(result);
    Say(TO_SDCM, request.port, record);
}

void Model::AnswerFor(unsigned id, unsigned result, const Port& port, const Node& node) {
    Request about;
    about.port = port.number;
    about.vid = node.vid;
    about.pid = node.pid;
    about.serial = node.serial;
    about.path = node.path;
    about.devid = port.devid;
    Answer(id, result, about);
}

void Model::Media(unsigned cmd, const Port& port) {
    const Node& node = port.stored;
    Say(TO_MEDIA, port.number,
        Layout(360)
            .U32(0, 3)
            .U32(4, cmd)
            .U32(12, node.dev_type)
            .U32(16, UnitPort(port.number))
            .U16(20, node.vid)
            .U16(22, node.pid)
            .Text(36, 64, node.serial)
            .Text(100, 64, node.product)
            .Text(164, 64, node.manufacturer)
            .Text(228, 128, node.path)
            .U8(356, node.usb_class)
            .U8(357, node.speed)
            .Take());
}

// --- items ---

void Model::Arm(unsigned id, unsigned number) {
    Say(TO_MONITOR, number, Layout(12).U32(4, id).U8(8, number).Take());
    if (IsInactive(number)) return;
    const E_KIND kind = id <= 40 ? CH_TIMEOUT : id <= 42 ? CARPLAY_TIMEOUT : CARPLAY_CAPA;
    if (id % 2)
        ArmItem(kind, number, {});
    else
        CancelItem(kind, number);
}

void Model::ArmCutting(bool add, const Node& node) {
    Say(TO_MONITOR, node.port,
        Layout(348)
            .U32(4, add ? 37 : 38)
            .U8(8, node.port)
            .U32(12, node.dev_type)
            .U16(16, node.vid)
            .U16(18, node.pid)
            .U8(20, node.usb_class)
            .U32(24, node.speed)
            .Text(28, 64, node.serial)
            .Text(92, 64, node.product)
            .Text(156, 64, node.manufacturer)
            .Text(220, 128, node.path)
            .Take());
    if (IsInactive(node.port)) return;
    if (add)
        ArmItem(CUTTING, node.port, node);
    else
        CancelItem(CUTTING, node.port);
}

bool Model::IsArmed(E_KIND kind, unsigned port) const {
    return std::any_of(m_items.begin(), m_items.end(), [&](const Item& item) {
        return item.kind == kind && (item.port == port || UnitPort(item.port) == port);
    });
}

void Model::ArmItem(E_KIND kind, unsigned port, const Node& node) {
    if (!IsArmed(kind, port)) m_items.push_back({kind, port, m_now, 0, node});
}

void Model::CancelItem(E_KIND kind, unsigned port) {
    std::erase_if(m_items, [&](const Item& item) { return item.kind == kind && item.port == port; });
}

std::optional<std::int64_t> Model::UntilNextTimer() const {
    std::optional<std::int64_t> next;
    for (const Item& item : m_items) {
        const std::int64_t left = item.since + LimitOf(item.kind) * kMillisecond - m_now;
        if (!next || left < *next) next = left;
    }
    return next;
}

bool Model::IsPolling() const {
    return std::any_of(m_items.begin(), m_items.end(),
                       [](const Item& item) { return item.kind == CARPLAY_CAPA; });
}

std::string Model::Items() const {
    static const char* const kNames[] = {"cutting", "CH", "CarPlay", "poll"};
    std::string text;
    for (const Item& item : m_items)
        text += Format(" %s(port %u, %lld ms)", kNames[item.kind - CUTTING], item.port,
                       static_cast<long long>((m_now - item.since) / kMillisecond));
    return text;
}

Said Model::Take() {
    return std::exchange(m_said, {});
}

}  // namespace test
