#include "Plugged.h"

#include <algorithm>
#include <cstdio>

#include "ports/Ask.h"
#include "ports/View.h"
#include "record/DeviceType.h"

namespace kipcsend {

namespace {

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

std::string HexOf(std::uint16_t id) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%04x", id);
    return text;
}

}  // namespace

bool Plugged::Fail(const std::string& problem) {
    m_problem = problem;
    return false;
}

bool Plugged::FillIn(Phone* phone) {
    std::vector<std::string> answer;
    std::string error;
    const bool is_answered = ports::Ask(m_root, -1, &answer, &error) == ports::ASKED_ANSWERED;
    const auto view = is_answered ? ports::Read(answer, &error) : std::nullopt;
    if (!view) return Fail("the service does not tell which phone is at port " + phone->port + ": " + error);
    m_reached = true;
    const auto found = std::ranges::find_if(view->devices, [&](const dcm::usb::DeviceStatus& device) {
        return std::to_string(device.port) == phone->port && IsPhone(device);
    });
    if (found == view->devices.end())
        return Fail("no phone is plugged at port " + phone->port + " (usbservice-ports shows what is)");
    if (phone->devpath.empty()) phone->devpath = ports::TextOf(found->devpath);
    if (phone->vid.empty()) phone->vid = HexOf(found->vid);
    if (phone->pid.empty()) phone->pid = HexOf(found->pid);
    if (phone->serial.empty()) phone->serial = ports::TextOf(found->serial);
    return true;
}

}  // namespace kipcsend
