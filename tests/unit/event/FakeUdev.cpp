#include "FakeUdev.h"

#include <set>

struct udev {};
struct udev_list_entry {
    const char* name;
    udev_list_entry* next;
};
struct udev_enumerate {
    std::set<std::string> subsystems;
    std::deque<udev_list_entry> entries;
};

namespace test {

FakeUdev fake_udev;

udev_device& FakeUdev::Plug(const std::string& devpath, const char* subsystem, const char* devtype,
                            const std::string& uevent) {
    udev_device& device = devices["/sys" + devpath];
    device.devpath = devpath;
    if (subsystem) device.subsystem = subsystem;
    if (devtype) device.devtype = devtype;
    device.sysname = devpath.substr(devpath.rfind('/') + 1);
    device.uevent = uevent;
    return device;
}

namespace {

const char* OrNull(const std::optional<std::string>& text) {
    return text ? text->c_str() : nullptr;
}

}  // namespace
}  // namespace test

using test::fake_udev;

extern "C" {

udev* __wrap_udev_new() {
    if (fake_udev.new_fails) return nullptr;
    ++fake_udev.references;
    return new udev;
}

udev* __wrap_udev_unref(udev* context) {
    --fake_udev.references;
    delete context;
    return nullptr;
}

udev_enumerate* __wrap_udev_enumerate_new(udev*) {
    if (fake_udev.enumerate_fails) return nullptr;
    ++fake_udev.references;
    return new udev_enumerate;
}

udev_enumerate* __wrap_udev_enumerate_unref(udev_enumerate* found) {
    --fake_udev.references;
    delete found;
    return nullptr;
}

int __wrap_udev_enumerate_add_match_subsystem(udev_enumerate* found, const char* subsystem) {
    if (fake_udev.match_fails == subsystem) return -12;
    found->subsystems.insert(subsystem);
    return 0;
}

int __wrap_udev_enumerate_scan_devices(udev_enumerate* found) {
    found->entries.clear();
    if (fake_udev.lists_a_nameless_device) found->entries.push_back({nullptr, nullptr});
    for (const auto& [syspath, device] : fake_udev.devices)
        if (device.subsystem && found->subsystems.count(*device.subsystem))
            found->entries.push_back({syspath.c_str(), nullptr});
    for (std::size_t at = 1; at < found->entries.size(); ++at)
        found->entries[at - 1].next = &found->entries[at];
    return fake_udev.scan_result;
}

udev_list_entry* __wrap_udev_enumerate_get_list_entry(udev_enumerate* found) {
    return found->entries.empty() ? nullptr : &found->entries.front();
}

udev_list_entry* __wrap_udev_list_entry_get_next(udev_list_entry* entry) {
    return entry ? entry->next : nullptr;
}

const char* __wrap_udev_list_entry_get_name(udev_list_entry* entry) {
    return entry ? entry->name : nullptr;
}

udev_device* __wrap_udev_device_new_from_syspath(udev*, const char* syspath) {
    const auto found = fake_udev.devices.find(syspath);
    if (found == fake_udev.devices.end() || found->second.leaves) return nullptr;
    ++found->second.references;
    return &found->second;
}

udev_device* __wrap_udev_device_unref(udev_device* device) {
    --device->references;
    return nullptr;
}

const char* __wrap_udev_device_get_sysattr_value(udev_device* device, const char* attribute) {
    return std::string("uevent") == attribute ? test::OrNull(device->uevent) : nullptr;
}

const char* __wrap_udev_device_get_subsystem(udev_device* device) {
    return test::OrNull(device->subsystem);
}

const char* __wrap_udev_device_get_devpath(udev_device* device) {
    return device->devpath.c_str();
}

const char* __wrap_udev_device_get_sysname(udev_device* device) {
    return test::OrNull(device->sysname);
}

const char* __wrap_udev_device_get_devtype(udev_device* device) {
    return test::OrNull(device->devtype);
}
}
