#include "World.h"

#include <algorithm>
#include <cstdlib>

#include "support/Format.h"

namespace test {
namespace {

const std::string kZero("\0", 1);

std::string InterfacePath(const std::string& path, std::size_t number) {
    return path + path.substr(path.rfind('/')) + Format(":1.%zu", number);
}

}  // namespace

const Place kPlace[kPlaces] = {
    {1, 1, false, "/1-1.1"},
    {2, 2, false, "/1-1.2"},
    {12, 1, true, "/1-1.2/1-1.2.1"},
    {32, 3, true, "/1-1.2/1-1.2.3"},
};

const std::vector<Kind> kKinds = {
    {"galaxy", 0x04e8, 0x6860, "SAM", "Galaxy", "R58", "480", 2, 9, {{"ff", "00", "02"}, {"08", "50", "02"}}},
    {"pixel", 0x18d1, 0x4ee1, "Goo", "Pixel", "9A", "480", 2, 9, {{"ff", "00", "02"}}},
    {"nameless", 0x2717, 0xff40, "Mi", "Phone", nullptr, "12", 1, 9, {{"ff", "00", "02"}}},
    {"player", 0x1949, 0x0281, "MP", "Player", "M1", "480", 2, 10, {{"06", "01", "03"}}},
    {"mirror", 0x0525, 0xa4a0, "PLX", "Mirror", "ML1", "480", 2, 9, {{"02", "00", "01"}, {"0a", "00", "02"}}},
    {"nokia", 0x0421, 0x0661, "Nok", "C7", "N1", "480", 2, 9, {{"02", "00", "01"}}},
    {"iphone", 0x05ac, 0x12a8, "App", "iPhone", "F2L", "480", 2, 6, {{"06", "01", "03"}, {"ff", "00", "02"}}},
    {"shuttle", 0x05ac, 0x1300, "App", "Shuffle", "S1", "12", 1, 8, {{"08", "50", "02"}}},
    {"stick", 0x0781, 0x5581, "SD", "Ultra", "4C5", "480", 2, 5, {{"08", "50", "02"}}},
    {"adapter", 0x0403, 0x6001, "FT", "Serial", "A9", "12", 1, 1, {{"ff", "00", "02"}}},
};

unsigned Device::dev_type() const {
    return accessory_pid ? 9 : kind->dev_type;
}

std::vector<InterfaceKind> Device::interfaces() const {
    if (accessory_pid) return {{"ff", "00", "02"}};
    return kind->interfaces;
}

unsigned Device::usb_class() const {
    return static_cast<unsigned>(std::strtoul(interfaces().front().usb_class, nullptr, 16));
}

std::string Device::serial() const {
    if (!kind->serial) return Format("%x_%x", vid(), pid());
    return std::string(kind->serial) + which;
}

World::World(bool two_port_hub) : two_port_hub(two_port_hub) {
    Attribute("/devices/soc/soc:common_gpio_default/board_id", "X53");
}

Device* World::At(E_PLACE place) const {
    for (const auto& device : m_devices)
        if (device->place == place) return device.get();
    return nullptr;
}

Device* World::AnyOn(unsigned unit_port) const {
    for (const auto& device : m_devices)
        if (UnitPort(device->port()) == unit_port) return device.get();
    return nullptr;
}

bool World::IsConnected(unsigned unit_port) const {
    return AnyOn(unit_port) || (unit_port == 2 && m_has_hub);
}

void World::Attribute(const std::string& path, const std::string& text) {
    std::string& known = m_attributes[path];
    if (known == text) return;
    known = text;
    if (text.empty())
        m_sys.Remove(path);
    else
        m_sys.Set(path, text + "\n");
}

std::string World::Event(const char* action, const std::string& path, const char* subsystem,
                         const std::string& more) {
    return action + ("@" + path) + kZero + "ACTION=" + action + kZero + "DEVPATH=" + path + kZero +
           "SUBSYSTEM=" + subsystem + kZero + more + Format("SEQNUM=%lu", ++m_seqnum) + kZero;
}

void World::DescribeInterface(const std::string& path, std::size_t number, const InterfaceKind& interface) {
    Attribute(path + "/bInterfaceClass", interface.usb_class);
    Attribute(path + "/bInterfaceSubClass", "00");
    Attribute(path + "/bInterfaceProtocol", interface.protocol);
    Attribute(path + "/bInterfaceNumber", Format("%02zx", number));
    Attribute(path + "/bNumEndpoints", interface.endpoints);
}

std::vector<std::string> World::AddInterfaces(const Device& device) {
    std::vector<std::string> events;
    const std::vector<InterfaceKind> interfaces = device.interfaces();
    for (std::size_t number = 0; number < interfaces.size(); ++number)
        events.push_back(Event("add", InterfacePath(device.path(), number), "usb",
                               "DEVTYPE=usb_interface" + kZero +
                                   Format("PRODUCT=%x/%x/100", device.vid(), device.pid()) + kZero));
    return events;
}

std::vector<std::string> World::StartUnit() {
    if (!two_port_hub) return {};
    Attribute(kHub + "/bNumInterfaces", " 1");
    Attribute(kHub + "/speed", "480");
    DescribeInterface(InterfacePath(kHub, 0), 0, {"09", "00", "01"});
    const std::string product = "PRODUCT=424/4504/100" + kZero;
    return {Event("add", kHub, "usb", "DEVTYPE=usb_device" + kZero + product),
            Event("add", InterfacePath(kHub, 0), "usb", "DEVTYPE=usb_interface" + kZero + product)};
}

std::vector<std::string> World::PlugHub() {
    m_has_hub = true;
    const std::string path = kHub + "/1-1.2";
    Attribute(path + "/bNumInterfaces", " 1");
    Attribute(path + "/manufacturer", "Hub");
    Attribute(path + "/product", "Four");
    Attribute(path + "/serial", "H4");
    Attribute(path + "/speed", "480");
    DescribeInterface(InterfacePath(path, 0), 0, {"09", "00", "01"});
    const std::string product = "PRODUCT=5e3/608/100" + kZero;
    return {Event("add", path, "usb", "DEVTYPE=usb_device" + kZero + product),
            Event("add", InterfacePath(path, 0), "usb", "DEVTYPE=usb_interface" + kZero + product)};
}

std::vector<std::string> World::PullHub() {
    m_has_hub = false;
    const std::string path = kHub + "/1-1.2";
    return {Event("remove", InterfacePath(path, 0), "usb", "DEVTYPE=usb_interface" + kZero),
            Event("remove", path, "usb", "DEVTYPE=usb_device" + kZero)};
}

std::vector<std::string> World::Plug(const Device& wanted) {
    m_devices.push_back(std::make_unique<Device>(wanted));
    const Device& device = *m_devices.back();
    const std::string path = device.path();
    const std::vector<InterfaceKind> interfaces = device.interfaces();
    Attribute(path + "/bNumInterfaces", Format("%2zu", interfaces.size()));
    Attribute(path + "/manufacturer", device.kind->manufacturer);
    Attribute(path + "/product", device.kind->product);
    Attribute(path + "/serial", device.kind->serial ? device.serial() : "");
    Attribute(path + "/speed", device.kind->speed);
    for (std::size_t number = 0; number < interfaces.size(); ++number)
        DescribeInterface(InterfacePath(path, number), number, interfaces[number]);
    std::vector<std::string> events = {Event(
        "add", path, "usb",
        "DEVTYPE=usb_device" + kZero + Format("PRODUCT=%x/%x/100", device.vid(), device.pid()) + kZero)};
    for (std::string& event : AddInterfaces(device))
        events.push_back(std::move(event));
    return events;
}

std::vector<std::string> World::Pull(E_PLACE place) {
    const Device device = *At(place);
    std::erase_if(m_devices, [place](const auto& other) { return other->place == place; });
    std::vector<std::string> events;
    for (const std::string& path : device.functions)
        events.push_back(Event("remove", path, path.ends_with("net/usb0") ? "net" : "hid", ""));
    for (std::size_t number = device.interfaces().size(); number-- > 0;)
        events.push_back(
            Event("remove", InterfacePath(device.path(), number), "usb", "DEVTYPE=usb_interface" + kZero));
    events.push_back(Event("remove", device.path(), "usb", "DEVTYPE=usb_device" + kZero));
    return events;
}

std::vector<std::string> World::Rebind(E_PLACE place) {
    return AddInterfaces(*At(place));
}

std::vector<std::string> World::AddHid(E_PLACE place) {
    Device& device = *At(place);
    device.functions.push_back(
        InterfacePath(device.path(), 0) +
        Format("/0003:05AC:12A8.%04zX/hidraw/hidraw%zu", device.functions.size(), device.functions.size()));
    return {Event("add", device.functions.back(), "hid", "")};
}

std::vector<std::string> World::AddNet(E_PLACE place) {
    Device& device = *At(place);
    device.functions.push_back(InterfacePath(device.path(), 0) + "/net/usb0");
    return {Event("add", device.functions.back(), "net", "")};
}

std::string World::Tty(const char* action, const std::string& name) {
    return Event(action, "/devices/platform/gadget/tty/" + name, "tty", "DEVNAME=" + name + kZero);
}

bool World::HasFunction(E_PLACE place, const char* kind) const {
    const Device* device = At(place);
    return device &&
           std::any_of(device->functions.begin(), device->functions.end(),
                       [kind](const std::string& path) { return path.find(kind) != std::string::npos; });
}

bool World::HasNet(unsigned unit_port) const {
    for (const auto& device : m_devices)
        if (UnitPort(device->port()) == unit_port && HasFunction(device->place, "/net/")) return true;
    return false;
}

int World::RunCommand(const std::string& command) {
    if (!failing_command.empty() && command.find(failing_command) != std::string::npos) return -1;
    if (command.ends_with("/port_sel")) {
        const auto port = static_cast<unsigned>(std::strtoul(command.c_str() + 5, nullptr, 10));
        Attribute(kHost + "/ka_hub_port_status", !odd_port_status.empty() ? odd_port_status
                                                 : IsConnected(port)      ? "1"
                                                                          : "0");
    }
    return 0;
}

}  // namespace test
