// What libudev alone takes to find the devices that the service looks for when it starts, and to open each of
// them. Prints nanoseconds taken, and how many devices there are.
#include <libudev.h>

#include <cstdio>
#include <ctime>

namespace {

long long Now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

}  // namespace

int main() {
    const long long begin = Now();
    udev* context = udev_new();
    udev_enumerate* devices = context ? udev_enumerate_new(context) : nullptr;
    if (!devices || udev_enumerate_add_match_subsystem(devices, "usb") < 0 ||
        udev_enumerate_add_match_subsystem(devices, "block") < 0 ||
        udev_enumerate_scan_devices(devices) < 0) {
        std::fprintf(stderr, "libudev finds nothing\n");
        return 1;
    }
    int found = 0;
    for (udev_list_entry* entry = udev_enumerate_get_list_entry(devices); entry;
         entry = udev_list_entry_get_next(entry)) {
        udev_device* device = udev_device_new_from_syspath(context, udev_list_entry_get_name(entry));
        if (!device) continue;
        // What a device is: its place, and the text of its event.
        if (udev_device_get_subsystem(device) && udev_device_get_devpath(device) &&
            udev_device_get_sysattr_value(device, "uevent"))
            ++found;
        udev_device_unref(device);
    }
    udev_enumerate_unref(devices);
    udev_unref(context);
    std::printf("%lld %d\n", Now() - begin, found);
}
