#include "ports/View.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "records/Records.h"

namespace ports {
namespace {

using namespace dcm::usb;

// False when the record has another length than this version of it.
template <typename Record>
bool Take(std::string_view bytes, Record* record) {
    if (bytes.size() != sizeof *record) return false;
    std::memcpy(record, bytes.data(), sizeof *record);
    return true;
}

template <typename Record>
bool TakeInto(std::string_view bytes, std::vector<Record>* records) {
    return Take(bytes, &records->emplace_back());
}

struct Reading {
    View view;
    bool has_start = false;
    bool has_end = false;
    std::uint32_t count = 0;  // of records that the end counts
    std::uint64_t version = 0;
    status::EndRecord end{};
};

bool TakeNumber(std::string_view bytes, Reading* reading) {
    status::NumberRecord number;
    if (!Take(bytes, &number)) return false;
    const std::string name = TextOf(number.name);
    if (name == kStatusVersionName) reading->version = number.value;
    if (name == kStatusState) reading->view.state = number.value;
    if (name == kStatusUevents) reading->view.uevents = number.value;
    if (name == kStatusNodes) reading->view.nodes = number.value;
    return true;
}

bool TakeRecord(std::uint32_t kind, std::string_view bytes, Reading* reading) {
    View& view = reading->view;
    switch (kind) {
        case status::KIND_START:
            reading->has_start = Take(bytes, &view.start);
            return reading->has_start;
        case status::KIND_END:
            reading->has_end = Take(bytes, &reading->end);
            view.refused = reading->end.refused;
            return reading->has_end;
        case status::KIND_NUMBER:
            return TakeNumber(bytes, reading);
        case status::KIND_QUEUE:
            return TakeInto(bytes, &view.queues);
        case status::KIND_RECEIVER:
            return TakeInto(bytes, &view.receivers);
        case STATUS_PORT:
            return TakeInto(bytes, &view.ports);
        case STATUS_DEVICE:
            return TakeInto(bytes, &view.devices);
        case STATUS_MOUNT:
            return TakeInto(bytes, &view.mounts);
        case STATUS_SETTINGS:
            return Take(bytes, &view.settings.emplace());
        default:
            return true;
    }
}

bool TakeDatagram(const std::string& datagram, Reading* reading) {
    status::RecordHead head;
    if (datagram.size() < sizeof head) return false;
    std::memcpy(&head, datagram.data(), sizeof head);
    const std::string_view bytes = std::string_view(datagram).substr(sizeof head);
    if (head.length != bytes.size()) return false;
    if (head.kind != status::KIND_START && head.kind != status::KIND_END) ++reading->count;
    return TakeRecord(head.kind, bytes, reading);
}

bool IsOurs(const Reading& reading) {
    const status::StartRecord& start = reading.view.start;
    return reading.has_start && start.magic == status::kMagic && start.version == status::kVersion &&
           start.head_bytes == sizeof(status::RecordHead);
}

// As the records' description names the types of devices.
std::span<const records::Word> DeviceTypeWords() {
    for (const records::Record& record : records::All()) {
        const records::Field* field = records::FindField(record, "dev_type");
        if (field && !field->words.empty()) return field->words;
    }
    return {};
}

}  // namespace

std::optional<View> Read(const std::vector<std::string>& answer, std::string* error) {
    Reading reading;
    bool good = !answer.empty();
    for (const std::string& datagram : answer) {
        // Of another version the rest may be anything.
        if (reading.has_start && !IsOurs(reading)) break;
        good &= TakeDatagram(datagram, &reading);
    }
    if (reading.has_start && !IsOurs(reading))
        *error = "the answer is no status of this version of the service's platform";
    else if (reading.has_end && reading.version != kStatusVersion)
        *error = "the service shows its status in version " + std::to_string(reading.version) + ", not " +
                 std::to_string(kStatusVersion);
    else if (!good || !reading.has_start || !reading.has_end || reading.end.records != reading.count)
        *error = "the answer is no whole status";
    else
        return reading.view;
    return std::nullopt;
}

std::string StateWord(std::uint64_t state) {
    switch (state) {
        case SERVICE_STARTING:
            return "starting";
        case SERVICE_SCANNING:
            return "scanning";
        case SERVICE_RUNNING:
            return "running";
    }
    return std::to_string(state);
}

std::string DeviceTypeWord(std::uint32_t dev_type) {
    for (const records::Word& word : DeviceTypeWords())
        if (word.number == dev_type && !word.word.empty()) return std::string(word.word);
    return std::to_string(dev_type);
}

std::string AdaptionWord(std::uint32_t adaption) {
    constexpr const char* kWords[] = {"unknown", "active", "inactive"};  // E_USB_ADAPTION
    return adaption < std::size(kWords) ? kWords[adaption] : std::to_string(adaption);
}

}  // namespace ports
