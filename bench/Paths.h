// Device paths and uevents as the head unit's kernel makes them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

inline const std::string kHub =
    "/devices/soc/7600000.hsusb/7600000.dwc3/xhci-hcd.0.auto/usb1/1-1";  // the vehicle's own

// The first `count` paths of a tree in the order in which the kernel tells them: devices with their
// interfaces, behind hubs of which the service knows no more than the first.
inline std::vector<std::string> Tree(std::size_t count) {
    constexpr int kInterfaces = 4;
    constexpr int kWidth = 100;
    const std::string top = "1-1.1";
    std::vector<std::string> paths{kHub + "/" + top};
    for (int device = 1; paths.size() < count; ++device) {
        const std::string hub = top + "." + std::to_string(1 + device / kWidth);
        const std::string name = hub + "." + std::to_string(device % kWidth);
        const std::string path = paths[0] + "/" + hub + "/" + name;
        paths.push_back(path);
        for (int interface = 0; interface < kInterfaces; ++interface)
            paths.push_back(path + "/" + name + ":1." + std::to_string(interface));
    }
    paths.resize(count);
    return paths;
}

// A path of which `path` becomes the parent.
inline std::string FurtherChild(const std::string& path) {
    return path + path.substr(path.rfind('/')) + ":1.9";
}

// One message: a head, and the lines behind it; '|' stands for the NUL between them.
inline std::string Uevent(std::string_view action, std::string_view path, std::string_view lines) {
    std::string text;
    text.append(action).append("@").append(path).append("|ACTION=").append(action).append("|DEVPATH=");
    text.append(path).append("|").append(lines).append("|SEQNUM=471|");
    for (char& character : text)
        if (character == '|') character = '\0';
    return text;
}

// A typical one, of 321 bytes.
inline std::string TypicalUevent() {
    return Uevent("add", kHub + "/1-1.2/1-1.2.3",
                  "SUBSYSTEM=usb|MAJOR=189|MINOR=3|DEVNAME=bus/usb/001/004|DEVTYPE=usb_device|"
                  "PRODUCT=781/5581/100|TYPE=0/0/0|BUSNUM=001|DEVNUM=004");
}

// One that makes no node, of about 279 bytes, as most of the machine's.
inline std::string ForeignUevent(std::string_view action) {
    return Uevent(
        action, "/devices/soc/soc:qcom,bcl/power_supply/battery/power_supply/bms",
        "SUBSYSTEM=power_supply|POWER_SUPPLY_NAME=bms|POWER_SUPPLY_CAPACITY=50|POWER_SUPPLY_TEMP=301");
}

}  // namespace bench
