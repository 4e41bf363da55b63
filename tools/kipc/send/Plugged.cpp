#include "Plugged.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "UnixSocket.h"
#include "platform/status.h"
#include "record/DeviceType.h"
#include "record/StatusRecord.h"

namespace kipcsend {

namespace {

constexpr int kPatienceMs = 2000;  // the service answers at once

bool IsPhone(const dcm::usb::DeviceStatus& device) {
    switch (device.dev_type) {
        case dcm::usb::DEV_TYPE_STORAGE:  // a phone of MirrorLink may look like one
        case dcm::usb::DEV_TYPE_APPLE:
        case dcm::usb::DEV_TYPE_APPLE_SHUTTLE:
        case dcm::usb::DEV_TYPE_PHONE:
        case dcm::usb::DEV_TYPE_MTP:
            return true;
    }
    return false;
}

template <std::size_t size>
std::string TextOf(const char (&text)[size]) {
    return std::string(text, strnlen(text, size));
}

std::string HexOf(std::uint16_t id) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%04x", id);
    return text;
}

// The device of a record of the snapshot, false when it is another kind of record.
bool ReadDevice(const unsigned char* bytes, std::size_t length, dcm::usb::DeviceStatus* device) {
    status::RecordHead head;
    if (length != sizeof head + sizeof *device) return false;
    std::memcpy(&head, bytes, sizeof head);
    if (head.kind != dcm::usb::STATUS_DEVICE || head.length != sizeof *device) return false;
    std::memcpy(device, bytes + sizeof head, sizeof *device);
    return true;
}

bool IsKnownStart(const unsigned char* bytes, std::size_t length) {
    status::RecordHead head;
    status::StartRecord start;
    if (length < sizeof head + sizeof start) return false;
    std::memcpy(&start, bytes + sizeof head, sizeof start);
    return start.magic == status::kMagic && start.version == status::kVersion &&
           start.head_bytes == sizeof head;
}

}  // namespace

bool Plugged::FillIn(Phone* phone) {
    const std::string path = m_root + "/usb/status";
    Descriptor socket;
    if (const int error = ConnectTo(path, &socket)) {
        m_problem = "the phone at port " + phone->port + " cannot be asked from the service's " + path +
                    ": " + strerrordesc_np(error);
        return false;
    }
    unsigned char bytes[sizeof(status::RecordHead) + status::kMaxRecordBytes];
    bool is_first = true;
    for (;;) {
        pollfd wait{socket.Get(), POLLIN, 0};
        const ssize_t length =
            poll(&wait, 1, kPatienceMs) > 0 ? recv(socket.Get(), bytes, sizeof bytes, 0) : -1;
        if (length < 0 || (is_first && !IsKnownStart(bytes, static_cast<std::size_t>(length)))) {
            m_problem = "the service does not tell at " + path + " what is plugged in, or in another version";
            return false;
        }
        m_reached = true;
        is_first = false;
        if (length == 0) break;
        dcm::usb::DeviceStatus device;
        if (!ReadDevice(bytes, static_cast<std::size_t>(length), &device)) continue;
        if (std::to_string(device.port) != phone->port || !IsPhone(device)) continue;
        if (phone->devpath.empty()) phone->devpath = TextOf(device.devpath);
        if (phone->vid.empty()) phone->vid = HexOf(device.vid);
        if (phone->pid.empty()) phone->pid = HexOf(device.pid);
        if (phone->serial.empty()) phone->serial = TextOf(device.serial);
        return true;
    }
    m_problem = "no phone is plugged at port " + phone->port + " (usbservice-ports shows what is)";
    return false;
}

}  // namespace kipcsend
