#include "ports/Json.h"

#include <nlohmann/json.hpp>

namespace ports {
namespace {

using Json = nlohmann::ordered_json;
using namespace dcm::usb;

// Behind "port" what every device has.
void AddDevice(Json* object, const DeviceStatus& device) {
    Json& fields = *object;
    fields["dev_type"] = DeviceTypeWord(device.dev_type);
    fields["vid"] = device.vid;
    fields["pid"] = device.pid;
    fields["serial"] = TextOf(device.serial);
    fields["product"] = TextOf(device.product);
    fields["manufacturer"] = TextOf(device.manufacturer);
    fields["devpath"] = TextOf(device.devpath);
}

template <typename Record, typename Shown>
Json List(const std::vector<Record>& records, Shown shown) {
    Json list = Json::array();
    for (const Record& record : records)
        list.push_back(shown(record));
    return list;
}

Json PortOf(const PortStatus& port) {
    Json object{{"port", port.port}, {"state", TextOf(port.state_name)}, {"since_ns", port.since_ns}};
    AddDevice(&object, port.device);
    return object;
}

Json DeviceOf(const DeviceStatus& device) {
    Json object{{"port", device.port}};
    AddDevice(&object, device);
    return object;
}

Json MountOf(const MountStatus& mount) {
    return {{"port", mount.port},
            {"partition", mount.partition},
            {"mount_path", TextOf(mount.mount_path)},
            {"fs_type", TextOf(mount.fs_type)},
            {"label", TextOf(mount.label)},
            {"uuid", TextOf(mount.uuid)},
            {"devpath", TextOf(mount.devpath)}};
}

Json SettingsOf(const std::optional<SettingsStatus>& settings) {
    if (!settings) return nullptr;
    Json adaption = Json::object();
    for (std::size_t i = 0; i < kStatusAdaptions; ++i)
        adaption[std::to_string(i + 1)] = AdaptionWord(settings->adaption[i]);
    return {{"coding", settings->coding},
            {"adaption", adaption},
            {"customer_hub_support", settings->customer_hub_support},
            {"force_enable", {settings->force_enable[0], settings->force_enable[1]}},
            {"device_mode", {settings->device_mode[0], settings->device_mode[1]}}};
}

Json ReceiverOf(const status::ReceiverRecord& receiver) {
    return {{"name", TextOf(receiver.name)},
            {"sent", receiver.sent},
            {"dropped", receiver.dropped},
            {"waiting", receiver.waiting}};
}

Json QueueOf(const status::QueueRecord& queue) {
    return {{"name", TextOf(queue.name)},
            {"waiting", queue.waiting},
            {"high_water_bytes", queue.high_water},
            {"dropped", queue.dropped}};
}

Json ObjectOf(const View& view) {
    return {{"service",
             {{"pid", view.start.process},
              {"started_ns", view.start.started_ns},
              {"now_ns", view.start.now_ns},
              {"state", StateWord(view.state)},
              {"uevents", view.uevents},
              {"nodes", view.nodes},
              {"not_shown", view.refused}}},
            {"ports", List(view.ports, PortOf)},
            {"devices", List(view.devices, DeviceOf)},
            {"mounts", List(view.mounts, MountOf)},
            {"settings", SettingsOf(view.settings)},
            {"receivers", List(view.receivers, ReceiverOf)},
            {"queues", List(view.queues, QueueOf)}};
}

std::string LineOf(const Json& object) {
    return object.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

std::string JsonOf(const View& view) {
    return LineOf(ObjectOf(view));
}

std::string JsonWithoutTime(const View& view) {
    Json object = ObjectOf(view);
    object["service"].erase("now_ns");
    return LineOf(object);
}

}  // namespace ports
