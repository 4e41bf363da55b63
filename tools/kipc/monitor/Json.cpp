#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>

#include "monitor/Entry.h"

namespace kipcmon {
namespace {

using Json = nlohmann::ordered_json;

std::string IsoTime(std::uint64_t wall_ns) {
    const auto seconds = static_cast<std::time_t>(wall_ns / 1000000000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[48];
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(text + length, sizeof text - length, ".%09uZ", static_cast<unsigned>(wall_ns % 1000000000));
    return text;
}

Json Value(const records::Field& field, records::Bytes bytes) {
    switch (field.kind) {
        case records::KIND_U8:
        case records::KIND_U16:
        case records::KIND_U32:
        case records::KIND_I32:
            return records::Number(field, bytes);
        case records::KIND_TEXT:
            return records::Text(field, bytes);
        case records::KIND_BYTES:
            return Hex(bytes.subspan(field.at, field.width));
    }
    return nullptr;
}

}  // namespace

std::string JsonOf(const Entry& entry) {
    const Datagram& datagram = entry.datagram;
    Json fields = Json::object();
    Json words = Json::object();
    if (entry.record) {
        for (const records::Field& field : entry.record->fields) {
            if (!records::Holds(field, datagram.record)) continue;
            const std::string name(field.name);
            fields[name] = Value(field, datagram.record);
            const std::string_view word = records::WordOf(field, datagram.record);
            if (!word.empty()) words[name] = word;
        }
    }
    const Json object = {
        {"time", IsoTime(datagram.wall_ns)},
        {"monotonic_ns", datagram.monotonic_ns},
        {"direction", DirectionWord(datagram.direction)},
        {"sender", datagram.sender},
        {"receiver", datagram.receiver},
        {"outcome", OutcomeWord(datagram.outcome)},
        {"record", entry.record ? Json(entry.record->name) : Json()},
        {"fields", std::move(fields)},
        {"words", std::move(words)},
        {"faults", entry.faults},
        {"hex", Hex(datagram.record)},
        {"lost", entry.lost},
    };
    // Texts that are not UTF-8 get U+FFFD there; "hex" has them as they are.
    return object.dump(-1, ' ', true, Json::error_handler_t::replace);
}

}  // namespace kipcmon
