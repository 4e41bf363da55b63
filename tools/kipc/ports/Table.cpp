#include "ports/Table.h"

#include <algorithm>
#include <cstdio>

#include "records/Records.h"

namespace ports {
namespace {

using namespace dcm::usb;

constexpr const char* kBold = "\x1b[1m";
constexpr const char* kGreen = "\x1b[32m";
constexpr const char* kRed = "\x1b[31m";
constexpr const char* kDim = "\x1b[2m";
constexpr const char* kPlain = "\x1b[0m";

struct Cell {
    std::string text;
    const char* colour = nullptr;
};
using Row = std::vector<Cell>;

// Of a text of somebody else: as the other tools show it, without the quotes around it.
template <std::size_t size>
std::string Shown(const char (&field)[size]) {
    records::Field text{};
    text.width = size;
    text.kind = records::KIND_TEXT;
    const std::string quoted = records::Say(text, {reinterpret_cast<const unsigned char*>(field), size});
    return quoted.substr(1, quoted.size() - 2);
}

// Characters, not bytes.
std::size_t WidthOf(const std::string& text) {
    return static_cast<std::size_t>(
        std::ranges::count_if(text, [](char byte) { return (byte & 0xC0) != 0x80; }));
}

std::string Coloured(const Cell& cell, E_COLOUR colour) {
    if (colour == COLOUR_OFF || !cell.colour) return cell.text;
    return cell.colour + cell.text + kPlain;
}

// A headline and the rows below it in columns; a blank line before.
void AddBlock(std::vector<std::string>* lines, const std::vector<std::string>& titles,
              const std::vector<Row>& rows, E_COLOUR colour) {
    std::vector<std::size_t> widths;
    for (const std::string& title : titles)
        widths.push_back(WidthOf(title));
    for (const Row& row : rows)
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], WidthOf(row[i].text));
    const auto add = [&](const Row& row) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += Coloured(row[i], colour);
            if (i + 1 < row.size()) line.append(widths[i] - WidthOf(row[i].text) + 2, ' ');
        }
        lines->push_back(line);
    };
    lines->emplace_back();
    Row head;
    for (const std::string& title : titles)
        head.push_back({title, kBold});
    add(head);
    for (const Row& row : rows)
        add(row);
    if (rows.empty()) lines->push_back(Coloured({"none", kDim}, colour));
}

std::string Ids(const DeviceStatus& device) {
    char text[16];
    std::snprintf(text, sizeof text, "%04x:%04x", device.vid, device.pid);
    return text;
}

std::string NameOf(const DeviceStatus& device) {
    const std::string manufacturer = Shown(device.manufacturer);
    const std::string product = Shown(device.product);
    return manufacturer + (manufacturer.empty() || product.empty() ? "" : " ") + product;
}

Cell Count(std::uint64_t number, bool is_bad = false) {
    return {std::to_string(number), is_bad && number > 0 ? kRed : nullptr};
}

std::vector<Row> PortRows(const View& view) {
    std::vector<Row> rows;
    for (const PortStatus& port : view.ports) {
        const DeviceStatus& device = port.device;
        const bool is_empty = device.devpath[0] == '\0' && device.vid == 0 && device.pid == 0;
        const std::uint64_t since = view.start.now_ns - std::min(port.since_ns, view.start.now_ns);
        rows.push_back({{std::to_string(port.port)},
                        {Shown(port.state_name), is_empty ? kDim : kGreen},
                        {"since " + DurationOf(since)},
                        {is_empty ? "-" : DeviceTypeWord(device.dev_type)},
                        {is_empty ? "-" : Ids(device)},
                        {is_empty ? "-" : NameOf(device)}});
    }
    return rows;
}

std::vector<Row> DeviceRows(const View& view) {
    std::vector<Row> rows;
    for (const DeviceStatus& device : view.devices)
        rows.push_back({{std::to_string(device.port)},
                        {DeviceTypeWord(device.dev_type)},
                        {Ids(device)},
                        {NameOf(device)},
                        {Shown(device.serial)},
                        {Shown(device.devpath), kDim}});
    return rows;
}

std::vector<Row> MountRows(const View& view) {
    std::vector<Row> rows;
    for (const MountStatus& mount : view.mounts)
        rows.push_back({{std::to_string(mount.port)},
                        {std::to_string(mount.partition)},
                        {Shown(mount.mount_path)},
                        {Shown(mount.fs_type)},
                        {Shown(mount.label)},
                        {Shown(mount.uuid)}});
    return rows;
}

std::vector<Row> SettingRows(const View& view) {
    if (!view.settings) return {};
    const SettingsStatus& settings = *view.settings;
    std::string adaptions;
    for (std::size_t i = 0; i < kStatusAdaptions; ++i)
        adaptions += (i > 0 ? ", " : "") + std::to_string(i + 1) + " " + AdaptionWord(settings.adaption[i]);
    const auto both = [](const std::uint32_t(&of)[kStatusUnitPorts]) {
        return "1 " + std::to_string(of[0]) + ", 2 " + std::to_string(of[1]);
    };
    return {{{"coding"}, {std::to_string(settings.coding)}},
            {{"adaption of ports"}, {adaptions}},
            {{"customer hub support"}, {std::to_string(settings.customer_hub_support)}},
            {{"force enable of ports"}, {both(settings.force_enable)}},
            {{"device mode of ports"}, {both(settings.device_mode)}}};
}

std::vector<Row> ReceiverRows(const View& view) {
    std::vector<Row> rows;
    for (const status::ReceiverRecord& receiver : view.receivers)
        rows.push_back({{Shown(receiver.name)},
                        Count(receiver.sent),
                        Count(receiver.dropped, true),
                        Count(receiver.waiting)});
    return rows;
}

std::vector<Row> QueueRows(const View& view) {
    std::vector<Row> rows;
    for (const status::QueueRecord& queue : view.queues)
        rows.push_back(
            {{Shown(queue.name)}, Count(queue.waiting), Count(queue.high_water), Count(queue.dropped, true)});
    return rows;
}

}  // namespace

std::string DurationOf(std::uint64_t ns) {
    const std::uint64_t seconds = ns / 1000000000;
    const auto number = [](std::uint64_t value) { return static_cast<unsigned long long>(value); };
    char text[64];
    if (seconds < 60)
        std::snprintf(text, sizeof text, "%llu.%llu s", number(seconds), number(ns / 100000000 % 10));
    else if (seconds < 3600)
        std::snprintf(text, sizeof text, "%llu min %02llu s", number(seconds / 60), number(seconds % 60));
    else if (seconds < 86400)
        std::snprintf(text, sizeof text, "%llu h %02llu min", number(seconds / 3600),
                      number(seconds / 60 % 60));
    else
        std::snprintf(text, sizeof text, "%llu d %02llu h", number(seconds / 86400),
                      number(seconds / 3600 % 24));
    return text;
}

std::vector<std::string> TableOf(const View& view, E_COLOUR colour) {
    std::vector<std::string> lines;
    const std::uint64_t up = view.start.now_ns - std::min(view.start.started_ns, view.start.now_ns);
    lines.push_back(Coloured({"usbservice", kBold}, colour) + " " + std::to_string(view.start.process) +
                    ", " + StateWord(view.state) + ", up " + DurationOf(up) + ", " +
                    std::to_string(view.uevents) + " uevents, " + std::to_string(view.nodes) + " nodes");
    if (view.refused > 0)
        lines.push_back(
            Coloured({std::to_string(view.refused) + " times something could not be shown", kRed}, colour));
    AddBlock(&lines, {"PORT", "STATE", "SINCE", "TYPE", "VID:PID", "DEVICE"}, PortRows(view), colour);
    AddBlock(&lines, {"DEVICE ON PORT", "TYPE", "VID:PID", "NAME", "SERIAL", "PATH"}, DeviceRows(view),
             colour);
    AddBlock(&lines, {"VOLUME ON PORT", "PART", "MOUNTED AT", "TYPE", "LABEL", "UUID"}, MountRows(view),
             colour);
    AddBlock(&lines, {"SETTING", "VALUE"}, SettingRows(view), colour);
    AddBlock(&lines, {"RECEIVER", "SENT", "DROPPED", "WAITING"}, ReceiverRows(view), colour);
    AddBlock(&lines, {"QUEUE", "WAITING", "MOST BYTES", "DROPPED"}, QueueRows(view), colour);
    return lines;
}

}  // namespace ports
