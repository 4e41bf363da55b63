// libudev as the scan sees it: a tree of devices, kept by path, that can be listed by subsystem; any call can
// fail, and a device can be gone between listing and opening.
#pragma once

#include <libudev.h>

#include <deque>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <vector>

struct udev_device {
    std::string devpath;
    std::optional<std::string> subsystem;
    std::optional<std::string> devtype;
    std::optional<std::string> sysname;
    std::optional<std::string> uevent;
    bool leaves = false;  // listed, but gone when it is opened
    int references = 0;
};

namespace test {

struct FakeUdev {
    // What is plugged in, by sys path: libudev lists in that order.
    std::map<std::string, udev_device> devices;

    bool new_fails = false;
    bool enumerate_fails = false;
    std::string match_fails;  // for this subsystem
    int scan_result = 0;
    bool lists_a_nameless_device = false;  // first

    int references = 0;  // contexts and enumerators not given back

    udev_device& Plug(const std::string& devpath, const char* subsystem, const char* devtype,
                      const std::string& uevent);
};

extern FakeUdev fake_udev;

}  // namespace test
