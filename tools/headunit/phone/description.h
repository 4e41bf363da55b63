// What a phone is and does, as its description (tools/headunit/phones/*.toml) says.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace headunit {

using Bytes = std::vector<std::uint8_t>;

// A description that cannot be used; the text names file, line and key.
class DescriptionError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

enum class EndpointType : std::uint8_t { kBulk = 2, kInterrupt = 3 };

struct Endpoint {
    bool in = false;
    EndpointType type = EndpointType::kBulk;
    std::uint16_t size = 0;
};

struct ClassCodes {
    std::uint8_t device_class = 0;
    std::uint8_t subclass = 0;
    std::uint8_t protocol = 0;
};

struct Interface {
    ClassCodes codes;
    std::string name;                // empty: no text
    std::vector<std::string> extra;  // words of the class-specific descriptors, see functions.toml
    Bytes report;                    // HID report descriptor; empty: no HID
    std::vector<Endpoint> endpoints;
};

// One or several interfaces that belong together.
using Function = std::vector<Interface>;

// How the phone shows itself on the bus.
struct Mode {
    std::uint16_t vid = 0;
    std::uint16_t pid = 0;
    std::uint16_t version = 0;
    ClassCodes codes;
    std::string manufacturer, product, serial;  // empty: no text
    std::vector<std::vector<Function>> configurations;
};

struct Answer {
    enum Kind { kData, kStall, kNever } kind = kData;
    Bytes data;
};

// What the phone answers to a request that is not a standard one.
struct Request {
    std::uint8_t type = 0;
    std::uint8_t request = 0;
    std::optional<std::uint16_t> value, index;  // none: any
    std::vector<Answer> answers;                // one after another; the last stays
    bool leaves = false;                        // after an answer that is no stall
};

// What the phone does when a request has made it leave.
struct Return {
    enum Kind { kComes, kNever, kStays } kind = kComes;
    std::string mode;
    unsigned after_ms = 0;  // from leaving
};

struct Description {
    std::map<std::string, Mode> modes;
    std::string starts;             // the mode in which it is plugged in, and after a power cut
    std::vector<Request> requests;  // the more exact ones first
    std::vector<Return> returns;    // one after another; the last stays
    unsigned leaves_after_ms = 0;   // from the answer
};

// Reads a description and puts the overrides, lines of TOML of the same form, over it. Functions that the
// description names and does not define are taken from functions.toml beside it.
Description ReadDescription(const std::string& file, const std::string& overrides);

}  // namespace headunit
