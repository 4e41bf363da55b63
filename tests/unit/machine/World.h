// What is plugged into the unit at the moment, and how it behaves: phones and other devices at four places,
// the kernel's view of them (attributes, uevents), and how they answer control transfers. Changed by the
// test's thread only, while nothing runs.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/SysTree.h"

namespace test {

inline const std::string kHost = "/devices/soc/7600000.hsusb/7600000.dwc3/xhci-hcd.0.auto";
inline const std::string kHub = kHost + "/usb1/1-1";

// Where a device can be: directly on a port of the unit, or on a hub that is plugged into port 2.
struct Place {
    unsigned port;         // as messages name it
    unsigned libusb_port;  // of the hub that the device hangs on
    bool behind_hub;
    const char* path;  // below kHub
};
enum E_PLACE { PLACE_1, PLACE_2, PLACE_12, PLACE_32, kPlaces };
extern const Place kPlace[kPlaces];

inline unsigned UnitPort(unsigned port) {
    return port % 10;
}

struct InterfaceKind {
    const char* usb_class;
    const char* protocol;
    const char* endpoints;
};

// A make of device, and what the service has to take it for.
struct Kind {
    const char* name;
    unsigned vid;
    unsigned pid;
    const char* manufacturer;
    const char* product;
    const char* serial;  // null: it has none
    const char* speed;
    unsigned speed_code;
    unsigned dev_type;
    std::vector<InterfaceKind> interfaces;
};
extern const std::vector<Kind> kKinds;
inline constexpr unsigned kAccessoryVid = 0x18d1;

// How a device answers control transfers and a reset.
struct Answers {
    bool opens = true;
    int protocol_bytes = 2;   // of the accessory protocol's version; negative: error of the transfer
    int protocol = 2;         // the version
    int failing_string = -1;  // index of the identification text that is refused
    int start = 0;            // result of the start of accessory mode
    int cp_bytes = 4;         // of the CarPlay capability; negative: error of the transfer
    unsigned cp_capability = 2;
    int mirrorlink = 0;        // result of MirrorLink's command
    int mirrorlink_again = 0;  // of the same, when it comes twice
    int reset = 0;             // result of a reset of the device
};

struct Device {
    E_PLACE place;
    const Kind* kind;
    unsigned accessory_pid = 0;  // not 0: it is in accessory mode
    char which = 'a';            // tells two of the same make apart
    bool stubborn = false;       // it comes back as it was, whatever it was told
    Answers answers;
    std::vector<std::string> functions;  // paths of its hid and net nodes

    unsigned vid() const { return accessory_pid ? kAccessoryVid : kind->vid; }
    unsigned pid() const { return accessory_pid ? accessory_pid : kind->pid; }
    unsigned dev_type() const;
    unsigned usb_class() const;
    std::string serial() const;
    std::string path() const { return kHub + kPlace[place].path; }
    unsigned port() const { return kPlace[place].port; }
    std::vector<InterfaceKind> interfaces() const;
    bool IsApple() const { return kind->vid == 0x05ac; }
    bool IsAndroid() const { return dev_type() == 9 || dev_type() == 10; }
};

class World {
public:
    explicit World(bool two_port_hub);

    const bool two_port_hub;

    // In the order in which they came, which is also the order of all lists of devices.
    const std::vector<std::unique_ptr<Device>>& devices() const { return m_devices; }
    Device* At(E_PLACE place) const;
    Device* AnyOn(unsigned unit_port) const;
    bool IsEmpty(E_PLACE place) const { return !At(place); }
    bool HasHub() const { return m_has_hub; }  // the customer's, on port 2
    bool IsConnected(unsigned unit_port) const;

    // Each returns the kernel's uevents for it.
    std::vector<std::string> StartUnit();  // the unit's own hub
    std::vector<std::string> PlugHub();
    std::vector<std::string> PullHub();  // with nothing on it
    std::vector<std::string> Plug(const Device& device);
    std::vector<std::string> Pull(E_PLACE place);
    std::vector<std::string> Rebind(E_PLACE place);  // only its interfaces come again
    std::vector<std::string> AddHid(E_PLACE place);
    std::vector<std::string> AddNet(E_PLACE place);
    std::string Tty(const char* action, const std::string& name);

    bool HasNet(unsigned unit_port) const;
    bool HasFunction(E_PLACE place, const char* kind) const;

    // The shell commands that contain this text do not run.
    std::string failing_command;
    // libusb cannot be initialized.
    bool usb_fails = false;
    // What the attribute of port status reads instead of 0 or 1.
    std::string odd_port_status;

    const std::string& Root() const { return m_sys.Root(); }

    // What a shell command does to the unit. On the thread that runs the command.
    int RunCommand(const std::string& command);

private:
    void Attribute(const std::string& path, const std::string& text);
    void DescribeInterface(const std::string& path, std::size_t number, const InterfaceKind& interface);
    std::string Event(const char* action, const std::string& path, const char* subsystem,
                      const std::string& more);
    std::vector<std::string> AddInterfaces(const Device& device);

    SysTree m_sys;
    std::map<std::string, std::string> m_attributes;  // as they stand in m_sys; written when they change
    std::vector<std::unique_ptr<Device>> m_devices;
    bool m_has_hub = false;
    unsigned long m_seqnum = 1000;
};

}  // namespace test
