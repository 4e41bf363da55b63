#include "phone.h"

#include <algorithm>
#include <stdexcept>

namespace headunit {

namespace {

constexpr std::uint8_t kDeviceDescriptor = 1, kConfigurationDescriptor = 2, kStringDescriptor = 3;
constexpr std::uint8_t kInterfaceDescriptor = 4, kEndpointDescriptor = 5;
constexpr std::uint8_t kHidDescriptor = 0x21, kReportDescriptor = 0x22;
constexpr std::uint8_t kGetStatus = 0, kClearFeature = 1, kSetFeature = 3, kGetDescriptor = 6;
constexpr std::uint8_t kControlBytes = 64;
constexpr std::size_t kMaxEndpoints = 15;
constexpr std::uint8_t kSelfPowered = 0xC0;  // with the bit that is always set
constexpr std::uint8_t kEnglish[] = {4, kStringDescriptor, 0x09, 0x04};

std::uint8_t Low(std::size_t number) {
    return static_cast<std::uint8_t>(number & 0xFF);
}

std::uint8_t High(std::size_t number) {
    return static_cast<std::uint8_t>(number >> 8);
}

void Append(Bytes& bytes, const Bytes& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

Bytes HidDescriptor(const Bytes& report) {
    if (report.empty()) return {};
    return {9, kHidDescriptor, 0x11, 0x01, 0, 1, kReportDescriptor, Low(report.size()), High(report.size())};
}

constexpr Answer::Kind kData = Answer::kData;
const Answer kStalls{Answer::kStall, {}};

}  // namespace

Shape::Shape(const Mode& mode) : m_mode(&mode) {
    m_device = DeviceDescriptor();
    for (const auto& functions : mode.configurations)
        m_configurations.push_back(Place(functions, Low(m_configurations.size() + 1)));
}

std::uint8_t Shape::IndexOf(const std::string& text) {
    if (text.empty()) return 0;
    const auto found = std::ranges::find(m_strings, text);
    const auto index = found - m_strings.begin() + 1;
    if (found == m_strings.end()) m_strings.push_back(text);
    return static_cast<std::uint8_t>(index);
}

Bytes Shape::DeviceDescriptor() {
    const Mode& mode = *m_mode;
    const std::uint8_t manufacturer = IndexOf(mode.manufacturer);
    const std::uint8_t product = IndexOf(mode.product);
    const std::uint8_t serial = IndexOf(mode.serial);
    return {18,
            kDeviceDescriptor,
            0x00,
            0x02,  // USB 2.0
            mode.codes.device_class,
            mode.codes.subclass,
            mode.codes.protocol,
            kControlBytes,
            Low(mode.vid),
            High(mode.vid),
            Low(mode.pid),
            High(mode.pid),
            Low(mode.version),
            High(mode.version),
            manufacturer,
            product,
            serial,
            Low(mode.configurations.size())};
}

Shape::Configuration Shape::Place(const std::vector<Function>& functions, std::uint8_t number) {
    Configuration configuration;
    configuration.descriptor = {9, kConfigurationDescriptor, 0, 0, 0, number, 0, kSelfPowered, 50};
    for (const Function& function : functions)
        PlaceFunction(function, configuration);
    Bytes& bytes = configuration.descriptor;
    bytes[2] = Low(bytes.size());
    bytes[3] = High(bytes.size());
    bytes[4] = Low(configuration.interfaces.size());
    return configuration;
}

void Shape::PlaceFunction(const Function& function, Configuration& configuration) {
    Bytes& bytes = configuration.descriptor;
    const std::uint8_t first = Low(configuration.interfaces.size());
    for (const Interface& interface : function) {
        const std::uint8_t number = Low(configuration.interfaces.size());
        configuration.interfaces.push_back({&interface, number});
        const ClassCodes& codes = interface.codes;
        Append(bytes, {9, kInterfaceDescriptor, number, 0, Low(interface.endpoints.size()),
                       codes.device_class, codes.subclass, codes.protocol, IndexOf(interface.name)});
        Append(bytes, HidDescriptor(interface.report));
        Append(bytes, Extra(interface, first));
        for (const Endpoint& endpoint : interface.endpoints) {
            const std::size_t place = configuration.endpoints.size() + 1;
            const std::uint8_t address = Low(place | (endpoint.in ? 0x80U : 0U));
            const bool is_bulk = endpoint.type == EndpointType::kBulk;
            if (place > kMaxEndpoints)
                throw DescriptionError("more than 15 endpoints in one configuration of a mode");
            configuration.endpoints.push_back({address, endpoint, number});
            Append(bytes, {7, kEndpointDescriptor, address, static_cast<std::uint8_t>(endpoint.type),
                           Low(endpoint.size), High(endpoint.size), is_bulk ? std::uint8_t{0} : kInterval});
        }
    }
}

Bytes Shape::Extra(const Interface& interface, std::uint8_t first) {
    Bytes bytes;
    for (const std::string& word : interface.extra) {
        if (word[0] == '$')
            bytes.push_back(IndexOf(word.substr(1)));
        else if (word[0] == '@')
            bytes.push_back(Low(first + std::stoul(word.substr(1))));
        else
            bytes.push_back(Low(std::stoul(word, nullptr, 16)));
    }
    return bytes;
}

const Shape::Configuration* Shape::configuration(unsigned number) const {
    return number >= 1 && number <= m_configurations.size() ? &m_configurations[number - 1] : nullptr;
}

Answer Shape::Describe(const Setup& setup, unsigned configuration) const {
    switch (setup.request) {
        case kGetDescriptor:
            return setup.IsIn() ? Descriptor(setup, configuration) : kStalls;
        case kGetStatus:
            return setup.IsIn() ? Answer{kData, {0, 0}} : kStalls;
        case kClearFeature:
        case kSetFeature:
            return setup.IsIn() ? kStalls : Answer{kData, {}};
        default:
            return kStalls;
    }
}

Answer Shape::Descriptor(const Setup& setup, unsigned configuration) const {
    const std::uint8_t type = High(setup.value), index = Low(setup.value);
    const Configuration* asked = this->configuration(index + 1U);
    const Configuration* current = this->configuration(configuration);
    switch (type) {
        case kDeviceDescriptor:
            return {kData, m_device};
        case kConfigurationDescriptor:
            return asked ? Answer{kData, asked->descriptor} : kStalls;
        case kStringDescriptor:
            return StringDescriptor(index);
        case kHidDescriptor:
        case kReportDescriptor: {
            if (!current || setup.index >= current->interfaces.size()) return kStalls;
            const Bytes& report = current->interfaces[setup.index].interface->report;
            if (report.empty()) return kStalls;
            return {kData, type == kReportDescriptor ? report : HidDescriptor(report)};
        }
        default:
            return kStalls;
    }
}

Answer Shape::StringDescriptor(unsigned index) const {
    if (index == 0) return {kData, Bytes(std::begin(kEnglish), std::end(kEnglish))};
    if (index > m_strings.size()) return kStalls;
    const std::string& text = m_strings[index - 1];
    Bytes bytes = {Low(2 + 2 * text.size()), kStringDescriptor};
    for (const char letter : text)
        Append(bytes, {static_cast<std::uint8_t>(letter), 0});
    return {kData, bytes};
}

Phone::Phone(const Description& description) : m_description(description) {
    for (const auto& [name, mode] : description.modes)
        m_shapes.emplace(name, Shape(mode));
    Forget();
}

void Phone::Forget() {
    m_answered.assign(m_description.requests.size(), 0);
    m_returned = 0;
}

Phone::Reaction Phone::React(const Setup& setup) {
    for (std::size_t at = 0; at < m_description.requests.size(); ++at) {
        const Request& request = m_description.requests[at];
        const bool is_meant = request.type == setup.type && request.request == setup.request &&
                              request.value.value_or(setup.value) == setup.value &&
                              request.index.value_or(setup.index) == setup.index;
        if (!is_meant) continue;
        const std::size_t count = m_answered[at]++;
        const Answer& answer = request.answers[std::min(count, request.answers.size() - 1)];
        return {answer, request.leaves && answer.kind == kData};
    }
    // The kernel's drivers set up what they have bound to; nobody looks at what a phone makes of it.
    if (setup.IsClass() && !setup.IsIn()) return {{kData, {}}, false};
    return {kStalls, false};
}

Return Phone::NextReturn() {
    const auto& returns = m_description.returns;
    return returns[std::min(m_returned++, returns.size() - 1)];
}

}  // namespace headunit
