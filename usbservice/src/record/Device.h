// What one record says of a device, for another.
#pragma once

#include <cstdint>

#include "record/FrameMessage.h"
#include "record/MediaPacket.h"
#include "record/Text.h"

namespace dcm::usb {

// The device of a message from elsewhere, and nothing that may stand between its fields: texts are
// terminated, sender and id are zero.
inline UMsgNode DeviceOf(const UMsgNode& message) {
    UMsgNode device{};
    device.port = message.port;
    device.dev_type = message.dev_type;
    device.vid = message.vid;
    device.pid = message.pid;
    device.usb_class = message.usb_class;
    device.speed = message.speed;
    CopyText(device.serial, message.serial);
    CopyText(device.product, message.product);
    CopyText(device.manufacturer, message.manufacturer);
    CopyText(device.devpath, message.devpath);
    return device;
}

// What media is told of a device.
inline st_usb_pkt MediaPacketOf(E_CMD cmd, E_SUB_CMD sub_cmd, const UMsgNode& device) {
    st_usb_pkt packet{};
    packet.kind = kMediaPacketKind;
    packet.cmd = cmd;
    packet.sub_cmd = sub_cmd;
    packet.dev_type = device.dev_type;
    packet.port = device.port % 10;
    packet.vid = device.vid;
    packet.pid = device.pid;
    CopyText(packet.serial, device.serial);
    CopyText(packet.product, device.product);
    CopyText(packet.manufacturer, device.manufacturer);
    CopyText(packet.devpath, device.devpath);
    packet.usb_class = device.usb_class;
    packet.speed = static_cast<std::uint8_t>(device.speed);
    return packet;
}

}  // namespace dcm::usb
