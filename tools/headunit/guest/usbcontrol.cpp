// Sends one control request to a USB device, for tests of devices without the service.
//
//   usbcontrol <place> <type> <request> <value> <index> [<hex>|<bytes to read>] [<ms>]
//
// place: the device's name below /sys/bus/usb/devices, "1-1.2". Numbers as in C: 0x40, 51. <hex>: the bytes
// to send,
// "-" for none; a request to the host (type 0x80 and above) gives the number of bytes to read instead. <ms>:
// time limit, 1000. Prints the bytes read in hexadecimal, and ends with 0; or prints the error's name, and
// ends with 1.
#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace {

std::uint16_t Number(const char* text) {
    return static_cast<std::uint16_t>(std::strtoul(text, nullptr, 0));
}

std::vector<std::uint8_t> FromHex(const std::string& text) {
    std::vector<std::uint8_t> bytes;
    for (std::size_t at = 0; text != "-" && at + 1 < text.size(); at += 2)
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(at, 2), nullptr, 16)));
    return bytes;
}

int Open(const std::string& place) {
    const std::string folder = "/sys/bus/usb/devices/" + place;
    int bus = 0, device = 0;
    std::ifstream(folder + "/busnum") >> bus;
    std::ifstream(folder + "/devnum") >> device;
    char node[64];
    std::snprintf(node, sizeof node, "/dev/bus/usb/%03d/%03d", bus, device);
    return open(node, O_RDWR | O_CLOEXEC);
}

int Fail(const char* what) {
    std::printf("%s: %s\n", what, std::strerror(errno));
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 6 || argc > 8) {
        std::fprintf(stderr, "usage: usbcontrol place type request value index [hex|bytes] [ms]\n");
        return 2;
    }
    usbdevfs_ctrltransfer transfer{};
    transfer.bRequestType = static_cast<std::uint8_t>(Number(argv[2]));
    transfer.bRequest = static_cast<std::uint8_t>(Number(argv[3]));
    transfer.wValue = Number(argv[4]);
    transfer.wIndex = Number(argv[5]);
    const bool reads = (transfer.bRequestType & 0x80) != 0;
    const char* content = argc > 6 ? argv[6] : "-";
    std::vector<std::uint8_t> data = reads ? std::vector<std::uint8_t>(Number(content)) : FromHex(content);
    transfer.wLength = static_cast<std::uint16_t>(data.size());
    transfer.data = data.data();
    transfer.timeout = argc > 7 ? Number(argv[7]) : 1000;

    const int device = Open(argv[1]);
    if (device < 0) return Fail("open");
    const int count = ioctl(device, USBDEVFS_CONTROL, &transfer);
    if (count < 0) return Fail("request");
    for (int at = 0; reads && at < count; ++at)
        std::printf("%02x", data[static_cast<std::size_t>(at)]);
    std::printf("\n");
    return 0;
}
