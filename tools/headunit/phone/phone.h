// The device side of a phone: its descriptors in each mode, and its answers to control requests. Knows
// nothing of time and of the bus that carries it.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "description.h"

namespace headunit {

struct Setup {
    std::uint8_t type = 0;
    std::uint8_t request = 0;
    std::uint16_t value = 0;
    std::uint16_t index = 0;
    std::uint16_t length = 0;

    bool IsIn() const { return (type & 0x80) != 0; }
    bool IsStandard() const { return (type & 0x60) == 0; }
    bool IsClass() const { return (type & 0x60) == 0x20; }
};

struct PlacedInterface {
    const Interface* interface = nullptr;
    std::uint8_t number = 0;
};

struct PlacedEndpoint {
    std::uint8_t address = 0;  // with 0x80 for in
    Endpoint endpoint;
    std::uint8_t interface = 0;
};

// A mode with its descriptors made.
class Shape {
public:
    static constexpr std::uint8_t kInterval = 10;  // of interrupt endpoints, ms

    explicit Shape(const Mode& mode);

    struct Configuration {
        Bytes descriptor;
        std::vector<PlacedInterface> interfaces;
        std::vector<PlacedEndpoint> endpoints;
    };

    const Mode& mode() const { return *m_mode; }
    // Numbered from 1. No such configuration: null.
    const Configuration* configuration(unsigned number) const;
    // The answer to a standard request that only reads; stalls what there is not.
    Answer Describe(const Setup& setup, unsigned configuration) const;

private:
    std::uint8_t IndexOf(const std::string& text);  // of a string descriptor; 0: no text
    Bytes DeviceDescriptor();
    Configuration Place(const std::vector<Function>& functions, std::uint8_t number);
    void PlaceFunction(const Function& function, Configuration& configuration);
    Bytes Extra(const Interface& interface, std::uint8_t first);
    Answer Descriptor(const Setup& setup, unsigned configuration) const;
    Answer StringDescriptor(unsigned index) const;

    const Mode* m_mode;
    std::vector<std::string> m_strings;  // the first has index 1
    Bytes m_device;
    std::vector<Configuration> m_configurations;
};

// What a phone remembers from its first mode until its power is cut.
class Phone {
public:
    explicit Phone(const Description& description);

    // As after a power cut.
    void Forget();

    struct Reaction {
        Answer answer;
        bool leaves = false;
    };
    // To a request that is no standard one.
    Reaction React(const Setup& setup);
    // What it does now that a request has made it leave.
    Return NextReturn();

    const Description& description() const { return m_description; }
    const Shape& shape(const std::string& mode) const { return m_shapes.at(mode); }
    bool HasMode(const std::string& mode) const { return m_shapes.contains(mode); }

private:
    const Description& m_description;
    std::map<std::string, Shape> m_shapes;
    std::vector<std::size_t> m_answered;  // how often, for each of the description's requests
    std::size_t m_returned = 0;
};

}  // namespace headunit
