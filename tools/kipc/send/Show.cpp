#include "Show.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace kipcsend {

namespace {

using Json = nlohmann::ordered_json;
constexpr std::size_t kBytesPerLine = 16;

std::string Hex(records::Bytes bytes, std::string_view between) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : bytes) {
        if (!text.empty()) text += between;
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

Json ValueOf(const records::Field& field, records::Bytes bytes) {
    if (field.kind == records::KIND_TEXT) return records::Text(field, bytes);
    if (field.kind == records::KIND_BYTES) return Hex(bytes.subspan(field.at, field.width), "");
    return records::Number(field, bytes);
}

const std::string& SenderOf(const Passed& passed, const std::string& service) {
    return passed.direction == TO_SERVICE ? passed.peer : service;
}

const std::string& ReceiverOf(const Passed& passed, const std::string& service) {
    return passed.direction == TO_SERVICE ? service : passed.peer;
}

const std::string kService = "usb";

}  // namespace

const records::Record* DescriptionOf(const Passed& passed) {
    const records::Record* record =
        records::Identify(SenderOf(passed, kService), ReceiverOf(passed, kService), passed.bytes);
    // SDCM's socket speaks in the name of the service, so it may also send what the service tells itself.
    if (!record && passed.direction == TO_SERVICE && passed.peer == "sdcm")
        record = records::Identify(kService, kService, passed.bytes);
    return record;
}

std::string TextOf(const Passed& passed) {
    return SenderOf(passed, kService) + " -> " + ReceiverOf(passed, kService) + "  " +
           records::Describe(DescriptionOf(passed), passed.bytes);
}

std::string JsonOf(const Passed& passed) {
    const records::Record* record = DescriptionOf(passed);
    Json fields = Json::object();
    Json words = Json::object();
    Json faults = Json::array();
    if (record) {
        for (const records::Field& field : record->fields) {
            if (!records::Holds(field, passed.bytes)) continue;
            const std::string name(field.name);
            fields[name] = ValueOf(field, passed.bytes);
            const std::string_view word = records::WordOf(field, passed.bytes);
            if (!word.empty()) words[name] = word;
        }
        faults = records::Faults(*record, passed.bytes);
    }
    const Json object = {
        {"direction", passed.direction == TO_SERVICE ? "in" : "out"},
        {"sender", SenderOf(passed, kService)},
        {"receiver", ReceiverOf(passed, kService)},
        {"answer", passed.is_answer},
        {"record", record ? Json(record->name) : Json()},
        {"fields", std::move(fields)},
        {"words", std::move(words)},
        {"faults", std::move(faults)},
        {"hex", Hex(passed.bytes, "")},
    };
    // Texts that are not UTF-8 get U+FFFD there; "hex" has them as they are.
    return object.dump(-1, ' ', true, Json::error_handler_t::replace);
}

std::string HexLines(records::Bytes bytes) {
    std::string text;
    for (std::size_t at = 0; at < bytes.size(); at += kBytesPerLine) {
        char offset[32];
        std::snprintf(offset, sizeof offset, "    %04zx  ", at);
        text += offset + Hex(bytes.subspan(at, std::min(kBytesPerLine, bytes.size() - at)), " ") + "\n";
    }
    return text;
}

void Complain(const std::string& text) {
    std::fprintf(stderr, "kipcsend: %s\n", text.c_str());
}

}  // namespace kipcsend
